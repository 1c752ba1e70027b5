#include "config_findings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "logsink.h"
#include "temporary_folder.h"

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr const char* rrm_url = "orvanta_service_url=ws://rrm.example:8080/agent\n";

// A finding of that weight, line and part of a text.
auto is_finding(severity how, int line, const std::string& text) {
    return AllOf(Field(&finding::how, how), Field(&finding::line, line),
                 Field(&finding::text, HasSubstr(text)));
}

auto is_warning(int line, const std::string& text) {
    return is_finding(severity::warning, line, text);
}

auto is_broken(int line, const std::string& text) {
    return is_finding(severity::broken, line, text);
}

class ConfigFindings : public testing::Test {
  protected:
    // Of the lines, then of the whole; what is well is left out.
    [[nodiscard]] std::vector<finding> complaints_about(const std::string& text) const {
        std::vector<finding> found = findings_about(text);
        std::erase_if(found, [](const finding& one) { return one.how == severity::ok; });
        return found;
    }
    [[nodiscard]] std::vector<finding> findings_about(const std::string& text) const {
        folder.write("lumd.conf", text);
        config_examiner examiner(path);
        const websock_cfg_t config = read_agent_config(path);
        std::vector<finding> found = examiner.examine(text, config);
        for (const finding& one : examiner.examine_whole(config))
            found.push_back(one);
        return found;
    }
    [[nodiscard]] std::vector<finding> complaints_about_url(const std::string& url) const {
        return complaints_about("orvanta_service_url=" + url + "\n");
    }

    const TemporaryFolder folder;
    const std::string path = folder / "lumd.conf";
};

TEST_F(ConfigFindings, NothingIsWrongWithAWholeConfiguration) {
    EXPECT_THAT(complaints_about("# comment\n\n" + std::string(rrm_url) +
                                 "initial_connection_delay=4\nmax_connection_delay=60\n"
                                 "ap_location=here\nlog_level=0x0F\nmac-list-id=\n"),
                IsEmpty());
}

TEST_F(ConfigFindings, TheModeIsToldWithTheLineThatDecidesIt) {
    EXPECT_THAT(findings_about(std::string("# first\n") + rrm_url),
                ElementsAre(is_finding(severity::ok, 2, "RRM mode, ws://rrm.example:8080/agent")));
}

TEST_F(ConfigFindings, EachFindingNamesTheFile) {
    EXPECT_THAT(findings_about(rrm_url), Contains(Field(&finding::file, path)));
}

TEST_F(ConfigFindings, ALineWithoutEqualsIsTold) {
    EXPECT_THAT(complaints_about(std::string(rrm_url) + "log_level 3\n"),
                ElementsAre(is_warning(2, "no '='")));
}

TEST_F(ConfigFindings, AnUnknownKeyIsTold) {
    EXPECT_THAT(complaints_about("loglevel=3\n" + std::string(rrm_url)),
                ElementsAre(is_warning(1, "unknown key 'loglevel'")));
}

TEST_F(ConfigFindings, AKeyInUpperCaseIsKnown) {
    EXPECT_THAT(complaints_about("LOG_LEVEL=3\n" + std::string(rrm_url)), IsEmpty());
}

TEST_F(ConfigFindings, BlanksAroundAKeyAreTold) {
    EXPECT_THAT(complaints_about(std::string(rrm_url) + " log_level=3\nlog_file = /tmp/x\n"),
                ElementsAre(is_warning(2, "blanks around 'log_level'"),
                            is_warning(3, "blanks around 'log_file'")));
}

TEST_F(ConfigFindings, TheAdviceFitsTheFinding) {
    EXPECT_THAT(complaints_about(std::string(rrm_url) + " log_level=3\nloglevel=3\n"),
                ElementsAre(Field(&finding::advice, HasSubstr("without blanks")),
                            Field(&finding::advice, HasSubstr("for the keys"))));
}

TEST_F(ConfigFindings, AKeyThatStandsTwiceIsTold) {
    EXPECT_THAT(complaints_about(std::string(rrm_url) + "log_level=1\nLog_Level=2\n"),
                ElementsAre(is_warning(3, "'log_level' stands in line 2 too")));
}

TEST_F(ConfigFindings, ALongLineIsReadInPieces) {
    EXPECT_THAT(complaints_about(std::string(rrm_url) + "#" + std::string(254, 'x') + "\n"),
                ElementsAre(is_warning(2, "longer than 254")));
    EXPECT_THAT(complaints_about(std::string(rrm_url) + "#" + std::string(253, 'x') + "\n"),
                IsEmpty());
}

TEST_F(ConfigFindings, APieceThatIsTakenAsAKeyIsTold) {
    EXPECT_THAT(
        complaints_about(std::string(rrm_url) + "#" + std::string(253, 'x') + "log_level=3\n"),
        ElementsAre(is_warning(2, "longer than"), is_warning(2, "taken as 'log_level'")));
}

TEST_F(ConfigFindings, AnotherSchemeEndsTheReading) {
    EXPECT_THAT(complaints_about("orvanta_service_url=wss://host:1/x\nunknown=1\n"),
                ElementsAre(is_broken(1, "scheme 'wss' is not usable: lumd reads the file no"),
                            is_broken(0, "no mode")));
}

TEST_F(ConfigFindings, TheSchemeIsComparedExactly) {
    EXPECT_THAT(complaints_about_url("WS://host:1/x"), Contains(is_broken(1, "scheme 'WS'")));
}

TEST_F(ConfigFindings, ABlankBeforeTheUrlIsTold) {
    EXPECT_THAT(complaints_about_url(" ws://host:1/x"), Contains(is_broken(1, "blank before")));
}

TEST_F(ConfigFindings, AUrlWithoutPortDisablesItsMode) {
    EXPECT_THAT(complaints_about_url("ws://host/x"),
                ElementsAre(is_broken(1, "has no port"), is_broken(0, "no mode")));
}

TEST_F(ConfigFindings, AUrlWithoutPathDisablesItsMode) {
    EXPECT_THAT(complaints_about_url("ws://host:80"),
                ElementsAre(is_broken(1, "has no path"), is_broken(0, "no mode")));
}

TEST_F(ConfigFindings, AUrlWithoutASchemeIsFine) {
    EXPECT_THAT(complaints_about_url("host:80/x"), IsEmpty());
}

TEST_F(ConfigFindings, AnEmptyUrlIsAWarning) {
    EXPECT_THAT(complaints_about_url(""),
                ElementsAre(is_warning(1, "no URL: the RRM mode"), is_broken(0, "no mode")));
}

TEST_F(ConfigFindings, AUrlWithoutHostIsBroken) {
    EXPECT_THAT(complaints_about_url("ws://:80/x"), ElementsAre(is_broken(1, "no host")));
}

TEST_F(ConfigFindings, AnAddressOfIpVersion6IsNoHost) {
    EXPECT_THAT(complaints_about_url("ws://[::1]:80/x"), Contains(is_broken(1, "no host name")));
}

TEST_F(ConfigFindings, APortOutsideItsRangeIsBroken) {
    EXPECT_THAT(complaints_about_url("ws://host:0/x"), ElementsAre(is_broken(1, "port '0'")));
    EXPECT_THAT(complaints_about_url("ws://host:65536/x"),
                ElementsAre(is_broken(1, "port '65536'")));
    EXPECT_THAT(complaints_about_url("ws://host:65535/x"), IsEmpty());
}

TEST_F(ConfigFindings, APortWithAnythingBehindItIsTold) {
    EXPECT_THAT(complaints_about_url("ws://host:80a/x"),
                ElementsAre(is_warning(1, "port '80a' is read as 80")));
}

TEST_F(ConfigFindings, ABlankInThePathIsTold) {
    EXPECT_THAT(complaints_about_url("ws://host:80/x "), ElementsAre(is_warning(1, "'/x '")));
}

TEST_F(ConfigFindings, ALineEndOfAnotherSystemIsFine) {
    EXPECT_THAT(complaints_about_url("ws://host:80/x\r"), IsEmpty());
}

TEST_F(ConfigFindings, WithoutAUrlNoModeIsEnabled) {
    EXPECT_THAT(complaints_about(""), ElementsAre(is_broken(0, "no mode is enabled")));
}

TEST_F(ConfigFindings, OfSeveralUrlsTheOneWithoutEffectIsTold) {
    EXPECT_THAT(complaints_about("mac-list-service-url=ws://host:80/x\n" + std::string(rrm_url)),
                ElementsAre(is_warning(1,
                                       "'mac-list-service-url' has no effect: "
                                       "orvanta_service_url decides")));
}

TEST_F(ConfigFindings, AFirstDelayAboveTheLongestIsTold) {
    EXPECT_THAT(complaints_about(std::string(rrm_url) +
                                 "initial_connection_delay=10\nmax_connection_delay=9\n"),
                ElementsAre(is_warning(2, "10 s, is above the longest, 9 s")));
}

TEST_F(ConfigFindings, ADelayOfMoreThanADayIsTold) {
    EXPECT_THAT(complaints_about(std::string(rrm_url) + "max_connection_delay=90000\n"),
                ElementsAre(is_warning(2, "more than a day")));
}

TEST_F(ConfigFindings, ANumberThatIsNoneIsTold) {
    EXPECT_THAT(complaints_about(std::string(rrm_url) + "max_connection_delay=1m\nlog_level=all\n"),
                ElementsAre(is_warning(2, "'1m', which is no plain number: lumd reads 1"),
                            is_warning(3, "'all', which is no plain number: lumd reads 0")));
}

TEST_F(ConfigFindings, TheLogStaysTheCallers) {
    const std::string log = folder / "lumd.log";
    static_cast<void>(findings_about("log_file=" + log + "\nlog_level=15\n" + rrm_url));
    logsink_message(SINK_ERROR, "from the caller");
    struct stat status {};
    EXPECT_NE(stat(log.c_str(), &status), 0);
}

// Files that are no configuration

TEST_F(ConfigFindings, ATextFileCanBeRead) {
    folder.write("lumd.conf", rrm_url);
    EXPECT_FALSE(unusable_config(path));
}

TEST_F(ConfigFindings, AMissingFileIsTold) {
    EXPECT_THAT(unusable_config(path), testing::Optional(is_broken(0, "is not there")));
}

TEST_F(ConfigFindings, AFolderIsTold) {
    EXPECT_THAT(unusable_config(folder.path()), testing::Optional(is_broken(0, "directory")));
}

TEST_F(ConfigFindings, ANamedPipeIsNotWaitedFor) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_THAT(unusable_config(path), testing::Optional(is_broken(0, "no regular file")));
}

TEST_F(ConfigFindings, ABinaryFileIsTold) {
    folder.write("lumd.conf", std::string("log_level=3\n\0x", 14));
    EXPECT_THAT(unusable_config(path), testing::Optional(is_broken(0, "binary")));
}

TEST_F(ConfigFindings, AnEndlessFileIsNotExamined) {
    folder.write("lumd.conf", std::string(1024 * 1024 + 1, '\n'));
    EXPECT_THAT(unusable_config(path), testing::Optional(is_broken(0, "longer than 1 MiB")));
}

}  // namespace
