#include "websock_cfg.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "log_capture.h"
#include "temporary_folder.h"

using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::IsEmpty;

namespace {

constexpr const char* rrm_url = "orvanta_service_url=ws://service.example:8080/agent\n";

class WebsockCfg : public testing::Test {
  protected:
    ~WebsockCfg() override {
        trace.set_log_level(0);
        global_log_level = 0;
        global_log_file.clear();
        global_log_out = false;
        logsink_set_file(nullptr);
    }

    static websock_cfg_t from_options(std::vector<const char*> options) {
        options.insert(options.begin(), "lumd");
        const int count = static_cast<int>(options.size());
        options.push_back(nullptr);
        return websock_cfg_t(count, options.data());
    }
    void write(const std::string& text) const { folder.write("lumd.conf", text); }
    websock_cfg_t from_file(const std::string& text) const {
        write(text);
        return from_options({"-f", path.c_str()});
    }
    [[nodiscard]] config_instance_t rrm_from_url(const std::string& url) const {
        return from_file("orvanta_service_url=" + url + "\n").instance[WS_INSTANCE_RRM];
    }

    const TemporaryFolder folder;
    const std::string path = folder / "lumd.conf";
};

using WebsockCfgDeathTest = WebsockCfg;

// What is wrong with a file of these lines and a service, as "line: text".
class WebsockCfgFaults : public WebsockCfg {
  protected:
    std::vector<std::string> faults_of(const std::string& text) const {
        std::vector<std::string> told;
        for (const config_fault& fault : from_file(text).faults)
            told.push_back(std::to_string(fault.line) + ": " + fault.text);
        return told;
    }

    std::vector<config_fault::kind> kinds_of(const std::string& text) const {
        std::vector<config_fault::kind> kinds;
        for (const config_fault& fault : from_file(text).faults)
            kinds.push_back(fault.what);
        return kinds;
    }
};

TEST_F(WebsockCfg, WithoutOptionsNothingIsConfigured) {
    const websock_cfg_t cfg = from_options({});
    for (const config_instance_t& service : cfg.instance) {
        EXPECT_FALSE(service.run);
        EXPECT_EQ(service.port, 0);
        EXPECT_STREQ(service.domain, "");
        EXPECT_STREQ(service.path, "");
        EXPECT_STREQ(service.ap_location, "");
        EXPECT_EQ(service.initial_connection_delay, 0u);
        EXPECT_EQ(service.max_connection_delay, 0u);
    }
    EXPECT_EQ(cfg.reconnect_retries, 3);
    EXPECT_EQ(cfg.log_level, 0);
    EXPECT_EQ(cfg.error, 0);
    EXPECT_EQ(cfg.wids_mac_list_id, "");
}

TEST_F(WebsockCfg, TheFileThatWasNamedIsRemembered) {
    EXPECT_EQ(from_file("").file, path);
    EXPECT_EQ(from_options({"-d", "host"}).file, "");
}

TEST_F(WebsockCfg, EverythingIsLoggedUntilTheFileSaysOtherwise) {
    from_options({});
    EXPECT_TRUE(trace.is_error_enabled() && trace.is_warn_enabled() && trace.is_info_enabled() &&
                trace.is_debug_enabled());
}

TEST_F(WebsockCfg, OptionsPrefillAllServicesAndEnableNone) {
    const websock_cfg_t cfg = from_options({"-d", "host", "-p", "path", "-P", "81"});
    for (const config_instance_t& service : cfg.instance) {
        EXPECT_STREQ(service.domain, "host");
        EXPECT_STREQ(service.path, "path");
        EXPECT_EQ(service.port, 81);
        EXPECT_FALSE(service.run);
    }
}

TEST_F(WebsockCfg, EachOptionSetsItsOwnValueAlone) {
    const websock_cfg_t cfg = from_options({"-P", "81", "-p", "path", "-d", "host"});
    for (const config_instance_t& service : cfg.instance) {
        EXPECT_STREQ(service.domain, "host");
        EXPECT_STREQ(service.path, "path");
        EXPECT_EQ(service.port, 81);
    }
}

TEST_F(WebsockCfg, LongOptionsAreCutAt255Characters) {
    const std::string text(300, 'x');
    const websock_cfg_t cfg = from_options({"-d", text.c_str(), "-p", text.c_str()});
    EXPECT_EQ(cfg.instance[WS_INSTANCE_WIDS].domain, std::string(255, 'x'));
    EXPECT_EQ(cfg.instance[WS_INSTANCE_WIDS].path, std::string(255, 'x'));
}

TEST_F(WebsockCfg, AUrlLineOverwritesWhatOptionsSaid) {
    write(rrm_url);
    const websock_cfg_t cfg =
        from_options({"-d", "host", "-p", "path", "-P", "81", "-f", path.c_str()});
    EXPECT_STREQ(cfg.instance[WS_INSTANCE_RRM].domain, "service.example");
    EXPECT_STREQ(cfg.instance[WS_INSTANCE_RRM].path, "/agent");
    EXPECT_EQ(cfg.instance[WS_INSTANCE_RRM].port, 8080);
    EXPECT_STREQ(cfg.instance[WS_INSTANCE_PORTAL].domain, "host");
    EXPECT_EQ(cfg.instance[WS_INSTANCE_PORTAL].port, 81);
}

TEST_F(WebsockCfg, TheLastFileOptionCounts) {
    write(rrm_url);
    const websock_cfg_t cfg = from_options({"-f", "/nonexistent", "-f", path.c_str()});
    EXPECT_EQ(cfg.error, 0);
    EXPECT_TRUE(cfg.instance[WS_INSTANCE_RRM].run);
}

TEST_F(WebsockCfgDeathTest, AnUnknownOptionEndsTheProcessWithStatus255) {
    EXPECT_EXIT(from_options({"-x"}), ExitedWithCode(255), "");
}

TEST_F(WebsockCfgDeathTest, AnOptionWithoutItsArgumentEndsTheProcessWithStatus255) {
    EXPECT_EXIT(from_options({"-f"}), ExitedWithCode(255), "");
}

TEST_F(WebsockCfg, AMissingFileIsAnErrorAndEnablesNothing) {
    const websock_cfg_t cfg = from_options({"-f", "/nonexistent/lumd.conf"});
    EXPECT_EQ(cfg.error, 1);
    EXPECT_FALSE(cfg.instance[WS_INSTANCE_RRM].run);
    EXPECT_STREQ(cfg.instance[WS_INSTANCE_RRM].ap_location, "default-rrm-domain");
}

TEST_F(WebsockCfg, AnUnreadableFileIsAnError) {
    constexpr uid_t nobody = 65534;  // root would read the file all the same
    const uid_t self = geteuid();
    write(rrm_url);
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    if (self == 0 && seteuid(nobody) != 0)
        GTEST_SKIP() << "no way to become an ordinary user";
    const int error = from_options({"-f", path.c_str()}).error;
    ASSERT_EQ(seteuid(self), 0);
    EXPECT_EQ(error, 1);
}

// A directory opens well and fails at the first read.
TEST_F(WebsockCfg, AReadErrorAfterAGoodOpenIsTheEndOfTheFile) {
    EXPECT_EQ(from_options({"-f", folder.path().c_str()}).error, 0);
}

TEST_F(WebsockCfg, AnEmptyFileEnablesNothingAndIsNoError) {
    const websock_cfg_t cfg = from_file("");
    EXPECT_EQ(cfg.error, 0);
    for (const config_instance_t& service : cfg.instance)
        EXPECT_FALSE(service.run);
}

TEST_F(WebsockCfg, EachUrlKeyEnablesItsService) {
    const std::vector<std::pair<std::string, ws_instance_id>> keys = {
        {"roam_service_url=", WS_INSTANCE_PORTAL},
        {"orvanta_service_url=", WS_INSTANCE_RRM},
        {"mac-list-service-url=", WS_INSTANCE_WIDS}};
    for (const auto& [key, id] : keys) {
        const websock_cfg_t cfg = from_file(key + "ws://service.example:8080/agent\n");
        for (int other = 0; other < WS_INSTANCE_MAX; ++other)
            EXPECT_EQ(cfg.instance[static_cast<std::size_t>(other)].run, other == id) << key;
        EXPECT_STREQ(cfg.instance[id].domain, "service.example");
        EXPECT_STREQ(cfg.instance[id].path, "/agent");
        EXPECT_EQ(cfg.instance[id].port, 8080);
    }
}

struct url_case {
    const char* url;
    const char* domain;
    int port;
    const char* path;
};

TEST_F(WebsockCfg, AcceptsEveryCompleteUrl) {
    const url_case cases[] = {
        {"ws://host:80/path", "host", 80, "/path"},
        {"host:80/path", "host", 80, "/path"},
        {"ws://10.0.0.1:8080/a/b/c?d=e", "10.0.0.1", 8080, "/a/b/c?d=e"},
        {"ws://host:80/a:b", "host", 80, "/a:b"},
        {"ws://host:80//double", "host", 80, "//double"},
        {"ws://host:80/with blank ", "host", 80, "/with blank "},
        {"ws://host:80/", "host", 80, "/"},
        {"ws://host:port/path", "host", 0, "/path"},
        {"ws://host:/path", "host", 0, "/path"},
        {"ws://:80/path", "", 80, "/path"},
        {"ws://host: 80x/path", "host", 80, "/path"},
        {"ws://host:99999999999999999999/path", "host", INT_MAX, "/path"},
        {"ws://host:-99999999999999999999/path", "host", INT_MIN, "/path"},
        // The first colon counts, be it in the path or in an address of colons.
        {"ws://host/a:b/path", "host/a", 0, "/path"},
        {"ws://[::1]:80/path", "[", 0, "/path"},
    };
    for (const url_case& each : cases) {
        const config_instance_t service = rrm_from_url(each.url);
        EXPECT_TRUE(service.run) << each.url;
        EXPECT_STREQ(service.domain, each.domain) << each.url;
        EXPECT_EQ(service.port, each.port) << each.url;
        EXPECT_STREQ(service.path, each.path) << each.url;
    }
}

TEST_F(WebsockCfg, AUrlWithoutPortOrPathLeavesTheServiceDisabledWithoutAMessage) {
    for (const char* url : {"", "host", "ws://", "ws://host", "ws://host/path", "ws://host:80",
                            "host:80", "/", ":"}) {
        write("log_file=" + folder / "log" + "\nlog_level=15\norvanta_service_url=" + url + "\n");
        const websock_cfg_t cfg = from_options({"-f", path.c_str()});
        EXPECT_FALSE(cfg.instance[WS_INSTANCE_RRM].run) << url;
        EXPECT_EQ(cfg.error, 0) << url;
        EXPECT_FALSE(std::filesystem::exists(folder / "log")) << url;
    }
}

TEST_F(WebsockCfg, AnIncompleteUrlLeavesWhatAnEarlierOneSaid) {
    for (const char* url : {"ws://other:81", "ws://other/late", "other", ""}) {
        const websock_cfg_t cfg =
            from_file(std::string(rrm_url) + "orvanta_service_url=" + url + "\n");
        const config_instance_t& service = cfg.instance[WS_INSTANCE_RRM];
        EXPECT_TRUE(service.run) << url;
        EXPECT_STREQ(service.domain, "service.example") << url;
        EXPECT_EQ(service.port, 8080) << url;
        EXPECT_STREQ(service.path, "/agent") << url;
        EXPECT_EQ(cfg.error, 0) << url;
    }
}

TEST_F(WebsockCfg, HostAndPathEndAtTheirFirstLineEnd) {
    const config_instance_t service = rrm_from_url("ws://ho\rst:80/pa\rth");
    EXPECT_STREQ(service.domain, "ho");
    EXPECT_STREQ(service.path, "/pa");
    EXPECT_EQ(service.port, 80);
}

TEST_F(WebsockCfg, AnIncompleteUrlStillCutsHostAndPathAtTheirLineEnds) {
    write("orvanta_service_url=other\n");
    const websock_cfg_t cfg =
        from_options({"-d", "host\nmore", "-p", "path\nmore", "-f", path.c_str()});
    EXPECT_STREQ(cfg.instance[WS_INSTANCE_RRM].domain, "host");
    EXPECT_STREQ(cfg.instance[WS_INSTANCE_RRM].path, "path");
}

TEST_F(WebsockCfg, APathEndingRightAfterTheSlashIsTheRootWithEitherLineEnd) {
    for (const char* line :
         {"orvanta_service_url=ws://host:80/\n", "orvanta_service_url=ws://host:80/\r\n",
          "orvanta_service_url=ws://host:80/"})
        EXPECT_STREQ(from_file(line).instance[WS_INSTANCE_RRM].path, "/");
}

TEST_F(WebsockCfg, RefusesEveryOtherScheme) {
    for (const char* url : {"WS://host:80/path", "wss://host:80/path", "http://host:80/path",
                            "://host:80/path", " ws://host:80/path", "host:80/path://x"}) {
        const websock_cfg_t cfg = from_file("orvanta_service_url=" + std::string(url) + "\n");
        EXPECT_EQ(cfg.error, 1) << url;
        EXPECT_FALSE(cfg.instance[WS_INSTANCE_RRM].run) << url;
    }
}

TEST_F(WebsockCfg, ARefusedSchemeIsLogged) {
    from_file("log_file=" + folder / "log" + "\norvanta_service_url=wss://host:80/path\n");
    std::ifstream log{folder / "log"};
    std::string line;
    std::getline(log, line);
    EXPECT_THAT(line, testing::EndsWith("debug: Proto wss is invalid"));
}

TEST_F(WebsockCfg, ARefusedSchemeKeepsWhatCameBeforeAndDropsWhatComesAfter) {
    const websock_cfg_t cfg = from_file(
        "roam_service_url=ws://host:80/path\n"
        "orvanta_service_url=wss://host:80/path\n"
        "mac-list-service-url=ws://host:80/path\n"
        "mac-list-id=late\n");
    EXPECT_EQ(cfg.error, 1);
    EXPECT_TRUE(cfg.instance[WS_INSTANCE_PORTAL].run);
    EXPECT_FALSE(cfg.instance[WS_INSTANCE_RRM].run);
    EXPECT_FALSE(cfg.instance[WS_INSTANCE_WIDS].run);
    EXPECT_EQ(cfg.wids_mac_list_id, "");
}

TEST_F(WebsockCfg, KeysIgnoreCase) {
    const websock_cfg_t cfg = from_file(
        "ORVANTA_SERVICE_URL=ws://host:80/path\n"
        "Ap_Location=Lobby\n"
        "MAC-LIST-ID=List\n");
    EXPECT_TRUE(cfg.instance[WS_INSTANCE_RRM].run);
    EXPECT_STREQ(cfg.instance[WS_INSTANCE_RRM].ap_location, "Lobby");
    EXPECT_EQ(cfg.wids_mac_list_id, "List");
}

TEST_F(WebsockCfg, AKeyCountsOnlyAtTheStartOfItsLine) {
    const websock_cfg_t cfg = from_file(" mac-list-id=blank\n#mac-list-id=comment\nmac-list-id\n");
    EXPECT_EQ(cfg.wids_mac_list_id, "");
    EXPECT_EQ(cfg.error, 0);
}

TEST_F(WebsockCfg, DelaysApplyToAllServices) {
    const websock_cfg_t cfg =
        from_file("initial_connection_delay=4\nmax_connection_delay=60 seconds\n");
    for (const config_instance_t& service : cfg.instance) {
        EXPECT_EQ(service.initial_connection_delay, 4u);
        EXPECT_EQ(service.max_connection_delay, 60u);
    }
}

TEST_F(WebsockCfg, DelaysAreDecimalWhateverTheyBeginWith) {
    const websock_cfg_t cfg =
        from_file("initial_connection_delay=010\nmax_connection_delay=0x10\n");
    for (const config_instance_t& service : cfg.instance) {
        EXPECT_EQ(service.initial_connection_delay, 10u);
        EXPECT_EQ(service.max_connection_delay, 0u);
    }
}

TEST_F(WebsockCfg, ADelayThatIsNoNumberIsZero) {
    const websock_cfg_t cfg = from_file("initial_connection_delay=soon\nmax_connection_delay=\n");
    EXPECT_EQ(cfg.instance[WS_INSTANCE_RRM].initial_connection_delay, 0u);
    EXPECT_EQ(cfg.instance[WS_INSTANCE_RRM].max_connection_delay, 0u);
}

TEST_F(WebsockCfg, TheLocationAppliesToAllServicesAndHasADefault) {
    for (const config_instance_t& service : from_file("ap_location=Lobby 2\r\n").instance)
        EXPECT_STREQ(service.ap_location, "Lobby 2");
    for (const config_instance_t& service : from_file("# nothing\n").instance)
        EXPECT_STREQ(service.ap_location, "default-rrm-domain");
}

TEST_F(WebsockCfg, AKeyGivenTwiceTakesItsLastValue) {
    const websock_cfg_t cfg = from_file(
        "mac-list-id=one\nap_location=first\norvanta_service_url=ws://a:1/x\n"
        "mac-list-id=two\nap_location=second\norvanta_service_url=ws://b:2/y\n");
    EXPECT_EQ(cfg.wids_mac_list_id, "two");
    EXPECT_STREQ(cfg.instance[WS_INSTANCE_RRM].ap_location, "second");
    EXPECT_STREQ(cfg.instance[WS_INSTANCE_RRM].domain, "b");
    EXPECT_EQ(cfg.instance[WS_INSTANCE_RRM].port, 2);
}

TEST_F(WebsockCfg, ReadsTheLogLevelInBothBases) {
    const std::vector<std::pair<std::string, int>> levels = {
        {"31", 31},  {"0x1F", 31},     {"0X1f", 31},     {"010", 10}, {"", 0},
        {"loud", 0}, {"0x", 0},        {"8 # debug", 8}, {"-1", -1},  {"0xFFFFFFFF", -1},
        {"0xzz", 0}, {"65535", 65535}, {"0x0x1F", 31},   {"0x-1", -1}};
    for (const auto& [text, level] : levels) {
        const websock_cfg_t cfg = from_file("log_level=" + text + "\n");
        EXPECT_EQ(cfg.log_level, level) << text;
        EXPECT_EQ(global_log_level, level) << text;
        EXPECT_EQ(trace.is_debug_enabled(), (level & 8) != 0) << text;
        EXPECT_EQ(trace.is_error_enabled(), (level & 1) != 0) << text;
    }
}

TEST_F(WebsockCfg, AHugeLogLevelIsNoTrouble) {
    EXPECT_EQ(from_file("log_level=99999999999999999999999\n").log_level, -1);
    EXPECT_EQ(from_file("log_level=0xffffffffffffffffffffff\n").log_level, -1);
}

TEST_F(WebsockCfg, AFileWithoutLogLevelLeavesTheGlobalLevelZero) {
    global_log_level = 15;
    from_file("# nothing\n");
    EXPECT_EQ(global_log_level, 0);
}

TEST_F(WebsockCfg, TheLogFileIsWhereTheSinkWrites) {
    const std::string log_file = folder / "lumd.log";
    from_file("log_level=15\nlog_file=" + log_file + "\r\n");
    EXPECT_TRUE(global_log_out);
    EXPECT_EQ(global_log_file, log_file);
    trace.info("hello\n");
    EXPECT_TRUE(std::filesystem::exists(log_file));
}

TEST_F(WebsockCfg, AFileWithoutLogFileEndsLoggingToOne) {
    const std::string log_file = folder / "lumd.log";
    from_file("log_file=" + log_file + "\n");
    from_file("log_level=15\n");
    EXPECT_FALSE(global_log_out);
    trace.info("hello\n");
    EXPECT_FALSE(std::filesystem::exists(log_file));
}

TEST_F(WebsockCfg, LineEndsMayBeCrLfOrMissing) {
    const websock_cfg_t cfg = from_file(
        "orvanta_service_url=ws://host:80/path\r\nmac-list-id=list\r\n\r\nap_location=Lobby");
    EXPECT_STREQ(cfg.instance[WS_INSTANCE_RRM].path, "/path");
    EXPECT_EQ(cfg.wids_mac_list_id, "list");
    EXPECT_STREQ(cfg.instance[WS_INSTANCE_RRM].ap_location, "Lobby");
}

TEST_F(WebsockCfg, ALineOf254CharactersIsReadWhole) {
    const std::string value(254 - sizeof "mac-list-id=" + 1 - 1, 'x');  // and its line feed
    EXPECT_EQ(from_file("mac-list-id=" + value + "\n").wids_mac_list_id, value);
}

TEST_F(WebsockCfg, ALongerLineIsReadInPiecesAndAPieceMayBeAKey) {
    const websock_cfg_t cfg = from_file(std::string(254, '#') + "mac-list-id=from a piece\n");
    EXPECT_EQ(cfg.wids_mac_list_id, "from a piece");
}

TEST_F(WebsockCfg, ALongValueIsCutAtThePiecesEnd) {
    const std::size_t room = 254 - std::string("mac-list-id=").size();
    EXPECT_EQ(from_file("mac-list-id=" + std::string(300, 'x') + "\n").wids_mac_list_id,
              std::string(room, 'x'));
}

TEST_F(WebsockCfg, TheLongestPossibleHostFitsItsField) {
    const std::string host(254 - std::string("orvanta_service_url=:1/").size(), 'h');
    const config_instance_t service = rrm_from_url(host + ":1/");
    EXPECT_EQ(service.domain, host);
    EXPECT_STREQ(service.path, "/");
}

TEST_F(WebsockCfg, BinaryGarbageIsIgnored) {
    std::string garbage;
    for (int i = 0; i < 4096; ++i)
        garbage += static_cast<char>(i * 7);
    const websock_cfg_t cfg = from_file(garbage + "\n" + rrm_url);
    EXPECT_EQ(cfg.error, 0);
    EXPECT_TRUE(cfg.instance[WS_INSTANCE_RRM].run);
}

TEST_F(WebsockCfg, ANulByteEndsItsLineAsText) {
    const std::string text = "mac-list-id=ab";
    const websock_cfg_t cfg = from_file(text + std::string("\0cd\n", 4) + rrm_url);
    EXPECT_EQ(cfg.wids_mac_list_id, "ab");
    EXPECT_TRUE(cfg.instance[WS_INSTANCE_RRM].run);
}

TEST_F(WebsockCfg, AnOversizedLineGivenDirectlyIsCut) {
    websock_cfg_t cfg = from_options({});
    std::string line = "url=" + std::string(1000, 'h') + ":1/" + std::string(1000, 'p');
    EXPECT_TRUE(cfg.setup_service_config(WS_INSTANCE_WIDS, line.data(), 4));
    EXPECT_EQ(cfg.instance[WS_INSTANCE_WIDS].domain, std::string(255, 'h'));
    EXPECT_EQ(cfg.instance[WS_INSTANCE_WIDS].path, "/" + std::string(254, 'p'));
}

TEST(FixupConfigString, CutsAtTheFirstLineEndAndReturnsTheOldLength) {
    const std::vector<std::pair<std::string, std::string>> cases = {{"text\n", "text"},
                                                                    {"text\r\n", "text"},
                                                                    {"te\rxt\n", "te"},
                                                                    {"te\nxt\r", "te"},
                                                                    {"text", "text"},
                                                                    {"\n", ""},
                                                                    {"", ""}};
    for (const auto& [before, after] : cases) {
        std::string text = before;
        EXPECT_EQ(fixup_config_string(text.data()), static_cast<int>(before.size()));
        EXPECT_STREQ(text.c_str(), after.c_str());
    }
}

TEST(ConfigKeyLength, IsThatOfTheKeyWithItsEqualsSign) {
    EXPECT_EQ(config_key_length("log_level=3"), 10u);
    EXPECT_EQ(config_key_length("LOG_FILE=x"), 9u);
}

TEST(ConfigKeyLength, IsZeroForWhatIsIgnored) {
    EXPECT_EQ(config_key_length(""), 0u);
    EXPECT_EQ(config_key_length("# log_level=3"), 0u);
    EXPECT_EQ(config_key_length("log_level 3"), 0u);
}

TEST_F(WebsockCfgFaults, NothingIsWrongWithKeysCommentsAndBlankLines) {
    EXPECT_THAT(faults_of(std::string("# a=b\n\n  # more\n \t\r\nLOG_LEVEL=3\n") + rrm_url),
                IsEmpty());
    EXPECT_THAT(from_options({"-d", "host"}).faults, IsEmpty()) << "no file was named";
}

TEST_F(WebsockCfgFaults, AreLinesThatAreNoKeyWithAValue) {
    EXPECT_THAT(faults_of(std::string(rrm_url) + "log_level 3\nlog\x1blevel=3\n\n log_level =3\n"),
                ElementsAre("2: has no '=': ignored", "3: unknown key 'log?level': ignored",
                            "5: blanks around 'log_level': ignored"));
}

TEST_F(WebsockCfgFaults, AreKeysWithoutALetter) {
    EXPECT_THAT(faults_of(std::string(rrm_url) + "=3\n =3\n"),
                ElementsAre("2: unknown key '': ignored", "3: unknown key '': ignored"));
}

TEST_F(WebsockCfgFaults, HaveTheirKinds) {
    using kind = config_fault::kind;
    EXPECT_THAT(kinds_of("log_level 3\nloglevel=3\nlog_level =3\n"
                         "orvanta_service_url=ws://:0/x\nroam_service_url=wss://h:1/x\n"),
                ElementsAre(kind::no_equals, kind::unknown_key, kind::blanks, kind::host,
                            kind::port, kind::scheme));
    std::string many;
    for (std::size_t i = 0; i <= websock_cfg_t::most_faults; ++i)
        many += "x\n";
    const std::vector<kind> kinds = kinds_of(many);
    EXPECT_EQ(kinds[websock_cfg_t::most_faults], kind::more);
    EXPECT_EQ(kinds.back(), kind::no_mode);
}

TEST_F(WebsockCfgFaults, OfALineThatIsReadInPiecesAreOnce) {
    EXPECT_THAT(faults_of(std::string(300, 'x') + "\nunknown=1\n" + rrm_url),
                ElementsAre("1: has no '=': ignored", "2: unknown key 'unknown': ignored"));
}

TEST_F(WebsockCfgFaults, AreSchemesThatEndTheReading) {
    EXPECT_THAT(faults_of("orvanta_service_url=wss://host:1/x\nunknown=1\n"),
                ElementsAre("1: scheme 'wss' is not usable: lumd reads the file no further",
                            "0: no mode is enabled"));
    EXPECT_THAT(faults_of(std::string(rrm_url) + "roam_service_url= ws://host:1/x\n"),
                ElementsAre("2: blank before 'ws': lumd reads the file no further"));
    EXPECT_THAT(faults_of(std::string(rrm_url) + "roam_service_url=\tws://host:1/x\n"),
                ElementsAre("2: blank before 'ws': lumd reads the file no further"));
    EXPECT_THAT(faults_of(std::string(rrm_url) + "roam_service_url=xws://host:1/x\n"),
                ElementsAre("2: scheme 'xws' is not usable: lumd reads the file no further"));
}

TEST_F(WebsockCfgFaults, AreEndpointsThatNobodyHas) {
    EXPECT_THAT(faults_of("orvanta_service_url=ws://:0/x\nroam_service_url=ws://h:65536/x\n"),
                ElementsAre("1: the URL has no host", "1: port '0' is not from 1 to 65535",
                            "2: port '65536' is not from 1 to 65535"));
    EXPECT_THAT(faults_of("orvanta_service_url=h:65535/x\nroam_service_url=h:1/x\n"), IsEmpty());
}

TEST_F(WebsockCfgFaults, AreNotUrlsThatLackPortOrPath) {
    EXPECT_THAT(faults_of(std::string(rrm_url) + "roam_service_url=ws://host/x\n" +
                          "mac-list-service-url=ws://host:1\n"),
                IsEmpty());
}

TEST_F(WebsockCfgFaults, AreFilesThatCannotBeRead) {
    const auto faults_of_file = [](const std::string& name) {
        return from_options({"-f", name.c_str()}).faults;
    };
    for (const auto& [name, reason] : {std::pair{path, "No such file or directory"},
                                       std::pair{folder / ".", "Is a directory"}}) {
        const std::vector<config_fault> faults = faults_of_file(name);
        ASSERT_EQ(faults.size(), 1U) << "and no word of a mode";
        EXPECT_EQ(faults[0].text, reason);
        EXPECT_EQ(faults[0].line, 0);
    }
}

TEST_F(WebsockCfgFaults, OfManyLinesTheFirstAndWhatDecidesOverTheWholeAreKept) {
    const auto lines = [](int count) {
        std::string text;
        for (int i = 0; i < count; ++i)
            text += "x\n";
        return text;
    };
    const std::string wss = "roam_service_url=wss://h:1/x\n";
    EXPECT_EQ(faults_of(lines(20) + wss)[20],
              "21: scheme 'wss' is not usable: lumd reads the file no further");
    EXPECT_EQ(faults_of(lines(20))[20], "0: no mode is enabled");
    const std::vector<std::string> told = faults_of(lines(50) + wss);
    ASSERT_EQ(told.size(), websock_cfg_t::most_faults + 3);
    EXPECT_EQ(told[19], "20: has no '=': ignored");
    EXPECT_EQ(told[20], "21: more is wrong from here on");
    EXPECT_EQ(told[21], "51: scheme 'wss' is not usable: lumd reads the file no further");
    EXPECT_EQ(told[22], "0: no mode is enabled");
}

}  // namespace
