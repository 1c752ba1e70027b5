#include "config_store.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "access_point.h"
#include "apd_support.h"
#include "logsink.h"
#include "stored_file.h"
#include "temporary_folder.h"

namespace apd {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kChannelPath = "/interface/wlan0/wlan/radio/channel";

class ApdConfigStore : public testing::Test {
  protected:
    ApdConfigStore() {
        folder.write("apd.json", kTwoRadios);
        EXPECT_TRUE(store.load());
    }

    [[nodiscard]] ConfigStore anew() const {
        return ConfigStore{{folder / "apd.json", folder / "service.json", folder / "last.json"},
                           judge_access_point};
    }
    [[nodiscard]] std::string in_force(const std::string& path) const {
        return scalar_text(store.get(path));
    }

    TemporaryFolder folder;
    ConfigStore store = anew();
};

TEST_F(ApdConfigStore, AnswersByPath) {
    EXPECT_EQ(in_force(kChannelPath), "6");
    EXPECT_EQ(in_force("/interface/wlan0-va0/vap/ssid"), "office");
    EXPECT_EQ(store.get("/interface/wlan7"), nullptr);
    EXPECT_EQ(store.get(""), nullptr);
    EXPECT_EQ(store.get("/"), nullptr);
    EXPECT_EQ(store.get("interface"), nullptr);
    EXPECT_EQ(store.get("/interface//wlan0"), nullptr);
}

TEST_F(ApdConfigStore, KnowsAnAccessPointByItsOtherName) {
    EXPECT_EQ(in_force("/interface/wlan0-vap0/vap/ap-security/mode"), "WPA2_PSK");
}

TEST_F(ApdConfigStore, ChangesNothingBeforeTheCommit) {
    EXPECT_EQ(store.set(kChannelPath, text_node("11")), "");
    EXPECT_EQ(in_force(kChannelPath), "6");
    EXPECT_THAT(store.changes(), ElementsAre(kChannelPath));
    EXPECT_EQ(store.commit(), "");
    EXPECT_EQ(in_force(kChannelPath), "11");
    ConfigStore again = anew();
    ASSERT_TRUE(again.load());
    EXPECT_EQ(scalar_text(again.get(kChannelPath)), "11");
}

TEST_F(ApdConfigStore, ForgetsWhatIsReverted) {
    EXPECT_EQ(store.set(kChannelPath, text_node("11")), "");
    store.revert();
    EXPECT_THAT(store.changes(), IsEmpty());
    EXPECT_EQ(store.commit(), "");
    EXPECT_EQ(in_force(kChannelPath), "6");
}

TEST_F(ApdConfigStore, RefusesWhatCannotBeWithPathValueAndBound) {
    EXPECT_EQ(store.set(kChannelPath, text_node("999")),
              std::string{kChannelPath} + ": \"999\" is not a number from 1 to 177");
    EXPECT_EQ(store.set("/foo/bar", text_node("1")), "there is no setting /foo/bar");
    EXPECT_THAT(store.set("/interface/wlan0-va0/common/enabled", text_node("yes")),
                HasSubstr("true or false"));
    EXPECT_THAT(store.set("/interface/wlan0-va0/vap/ssid", text_node("a\nb")),
                HasSubstr("1 to 32 bytes"));
    EXPECT_THAT(store.set("", text_node("1")), HasSubstr("no path"));
    std::string deep;
    for (int level = 0; level < 10000; level++)
        deep += "/a";
    EXPECT_THAT(store.set(deep, text_node("1")), HasSubstr("no path"));
    EXPECT_EQ(store.get(deep), nullptr);
    EXPECT_THAT(store.set("/orvanta/tpc", nullptr), HasSubstr("nothing at"));
    EXPECT_THAT(store.changes(), IsEmpty());
}

// Otherwise an access point whose mode is {} would be an open one.
TEST_F(ApdConfigStore, RefusesAnObjectWhereAValueBelongs) {
    const std::string mode = "/interface/wlan0-va0/vap/ap-security/mode";
    EXPECT_THAT(store.set(mode, new_object()), HasSubstr(mode + ": \"{}\" is not one of"));
    EXPECT_THAT(store.set("/nonsense", new_object()), HasSubstr("no setting /nonsense"));
    for (const char* tree : {R"({"tpc": {}})", R"({"tpc": {"a": {}}})", R"({"a": {}})",
                             R"({"": {}})", R"({"tpc/": {}})"})
        EXPECT_NE(store.set("/orvanta", parse_json(tree)), "") << tree;
    EXPECT_NE(store.set("/orvanta", parse_json(R"({"": "x"})")), "");
    std::string deep = "{}";
    for (std::size_t level = 0; level < kDeepest; level++)
        deep = R"({"a": )" + deep + '}';
    EXPECT_NE(store.set("/orvanta", parse_json(deep)), "");
    EXPECT_THAT(store.changes(), IsEmpty());
    for (const char* empty : {"/orvanta", "/interface/wlan0-va1", "/interface/wlan0-va1/vap"})
        EXPECT_EQ(store.set(empty, new_object()), "") << empty;
}

TEST_F(ApdConfigStore, RefusesANameThatIsNoneInTheFilesOfHostapd) {
    const std::string lines = "/interface/wlan0-va0/vap/hostapd/";
    for (const char* name : {"a\nwpa_passphrase", "a=b", "#a", "a b", "\xc3\xa4"})
        EXPECT_THAT(store.set(lines + name, text_node("1")), HasSubstr("no setting")) << name;
    EXPECT_NE(store.set("/interface", parse_json(R"({"wlan0-va0/vap/hostapd/a": "1"})")), "");
    EXPECT_EQ(store.set(lines + "he_bss_color", text_node("1")), "");
}

TEST_F(ApdConfigStore, StoresNothingThatItCouldNotReadAgain) {
    const std::string any = "/interface/wlan0/wlan/radio/antenna-configuration";
    std::string deep = R"({"name": )";
    for (int level = 0; level < 28; level++)
        deep += '[';
    for (int level = 0; level < 28; level++)
        deep += ']';
    EXPECT_THAT(store.set(any, parse_json(deep + '}')), HasSubstr("too deeply"));
    EXPECT_EQ(store.set(any + "/name", text_node(std::string(kMaxFileBytes, 'x'))), "");
    EXPECT_THAT(store.commit(), HasSubstr("File too large"));
    ConfigStore again = anew();
    EXPECT_TRUE(again.load());
    EXPECT_EQ(scalar_text(again.get(kChannelPath)), "6");
}

TEST_F(ApdConfigStore, DoesNotRepeatAPasswordThatItRefuses) {
    EXPECT_THAT(store.set("/interface/wlan0-va0/vap/ap-security/passphrase", text_node("short")),
                testing::Not(HasSubstr("short")));
}

TEST_F(ApdConfigStore, JudgesSettingsTogetherAtTheCommit) {
    EXPECT_EQ(store.set("/interface/wlan0-va0/vap/ap-security/passphrase", nullptr), "");
    EXPECT_THAT(store.commit(), HasSubstr("passphrase is missing"));
    EXPECT_EQ(in_force("/interface/wlan0-va0/vap/ap-security/passphrase"), "12345678");
}

TEST_F(ApdConfigStore, KeepsWhatTheServiceHasSetAboveWhatIsStored) {
    store.set_service(kChannelPath, text_node("1"));
    EXPECT_EQ(in_force(kChannelPath), "1");
    EXPECT_EQ(scalar_text(find_path(store.stored(), kChannelPath)), "6");
    ConfigStore again = anew();
    ASSERT_TRUE(again.load());
    again.load_service();
    EXPECT_EQ(scalar_text(again.get(kChannelPath)), "1");
    EXPECT_TRUE(store.reset_service("/interface/wlan0/wlan/radio"));
    EXPECT_EQ(in_force(kChannelPath), "6");
    EXPECT_FALSE(store.reset_service("/interface/wlan0/wlan/radio"));
}

TEST_F(ApdConfigStore, LetsTheServiceGiveWayToACommitAtTheSamePath) {
    store.set_service(kChannelPath, text_node("1"));
    store.set_service("/interface/wlan0/wlan/radio/tx-power", text_node("9"));
    EXPECT_EQ(store.set(kChannelPath, text_node("11")), "");
    EXPECT_EQ(store.commit(), "");
    EXPECT_EQ(in_force(kChannelPath), "11");
    EXPECT_EQ(in_force("/interface/wlan0/wlan/radio/tx-power"), "9");
}

// The upper half of 40 MHz, of which the service had named the lower one.
TEST_F(ApdConfigStore, LetsTheServiceGiveWayWhereItDoesNotGoWithACommit) {
    const std::string radio = "/interface/wlan1/wlan/radio/";
    store.set_service(radio + "bandwidth", text_node("40"));
    store.set_service(radio + "control-sideband", text_node("lower"));
    store.set_service("/wids/mac-lists", parse_json(R"({"black": []})"));
    EXPECT_EQ(store.set(radio + "channel", text_node("40")), "");
    logsink_set_file((folder / "log").c_str());
    EXPECT_EQ(store.commit(), "");
    logsink_set_file(nullptr);
    EXPECT_EQ(judge_access_point(store.running()), "");
    EXPECT_EQ(in_force(radio + "channel"), "40");
    EXPECT_EQ(in_force(radio + "bandwidth"), "80");
    EXPECT_NE(store.get("/wids/mac-lists"), nullptr);
    EXPECT_THAT(folder.read("log"),
                HasSubstr("forgets what the service had set: /interface/wlan1/wlan/radio: "));
    ConfigStore again = anew();
    EXPECT_TRUE(again.load());
    again.load_service();
    EXPECT_EQ(scalar_text(again.get(radio + "bandwidth")), "80");
}

TEST_F(ApdConfigStore, LetsTheServiceGiveWayWhereItDoesNotGoWithAFileReadAnew) {
    store.set_service("/interface/wlan0/wlan/radio/tx-power", text_node("18"));
    const Json tree = parse_json(kTwoRadios);
    put_path(tree.get(), "/interface/wlan0/wlan/radio/tx-power-max", text_node("10"));
    folder.write("apd.json", compact(tree.get()));
    EXPECT_TRUE(store.load());
    EXPECT_EQ(judge_access_point(store.running()), "");
    EXPECT_EQ(store.get("/interface/wlan0/wlan/radio/tx-power"), nullptr);
}

TEST_F(ApdConfigStore, LeavesOutOfTheServicesFileWhatTheServiceCannotHaveSet) {
    folder.write("service.json", R"({"/interface": 5, "/interface/wlan1": {}, "x": 1, "/": {},
        "/nonsense": {}, "/interface/wlan0/wlan/radio/bandwidth": [],
        "/interface/wlan0-va0/vap/ft-config": "x", "/wids/mac-lists": {"black": []},
        "/interface/wlan0/wlan/radio/tx-power": "9"})");
    logsink_set_file((folder / "log").c_str());
    store.load_service();
    logsink_set_file(nullptr);
    EXPECT_THAT(folder.read("log"), HasSubstr("service.json: there is no setting /interface\n"));
    EXPECT_EQ(in_force(kChannelPath), "6");
    EXPECT_EQ(in_force("/interface/wlan1/wlan/radio/channel"), "36");
    EXPECT_EQ(in_force("/interface/wlan0/wlan/radio/bandwidth"), "20");
    EXPECT_EQ(in_force("/interface/wlan0-va0/vap/ft-config/enabled"), "true");
    EXPECT_EQ(in_force("/interface/wlan0/wlan/radio/tx-power"), "9");
    EXPECT_NE(store.get("/wids/mac-lists"), nullptr);
}

TEST_F(ApdConfigStore, KeepsWhatWasInForceWhenTheFileIsBroken) {
    for (const char* broken :
         {"{", "[]", "null", "\xff\xfe", "",
          R"({"interface": {"wlan0-va0": {"vap": {"ssid": ""}}}})",
          R"({"interface": {"wlan0": {"wlan": {"radio": {"channel": []}}}}})",
          R"({"interface": {"wlan0-va0": {"common": {"enabled": "true"}}}})"}) {
        folder.write("apd.json", broken);
        logsink_set_file((folder / "log").c_str());
        EXPECT_FALSE(store.load()) << broken;
        logsink_set_file(nullptr);
        EXPECT_THAT(folder.read("log"), HasSubstr("cannot use " + (folder / "apd.json"))) << broken;
        EXPECT_EQ(in_force(kChannelPath), "6") << broken;
    }
}

TEST_F(ApdConfigStore, StartsWithWhatWasUsableLast) {
    folder.write("apd.json", "{");
    ConfigStore again = anew();
    EXPECT_FALSE(again.load());
    EXPECT_TRUE(again.load_last_good());
    EXPECT_EQ(scalar_text(again.get(kChannelPath)), "6");
}

TEST_F(ApdConfigStore, TellsThatThereIsNothingThatWasUsableLast) {
    ConfigStore none{{folder / "none.json", "", folder / "none-either.json"}, judge_access_point};
    EXPECT_FALSE(none.load_last_good());
}

TEST_F(ApdConfigStore, TellsOfABrokenFileInOneLine) {
    folder.write("apd.json", R"({"orvanta": {"t\nerror: \u001b[31mpc": "true"}})");
    logsink_set_file((folder / "log").c_str());
    EXPECT_FALSE(store.load());
    logsink_set_file(nullptr);
    EXPECT_THAT(folder.read("log"), HasSubstr("there is no setting /orvanta/t?error: ?[31mpc\n"));
}

TEST_F(ApdConfigStore, IsEmptyWithoutAFile) {
    ConfigStore none{{folder / "none.json", "", ""}, judge_access_point};
    logsink_set_file((folder / "log").c_str());
    EXPECT_TRUE(none.load());
    logsink_set_file(nullptr);
    EXPECT_THAT(folder.read("log"), HasSubstr("there is no " + (folder / "none.json")));
    EXPECT_EQ(none.get("/interface"), nullptr);
}

TEST_F(ApdConfigStore, LeavesTheOldFileWhenTheNewOneCannotBeWritten) {
    ConfigStore lost{{folder / "gone/apd.json", "", ""}, judge_access_point};
    ASSERT_TRUE(lost.load());
    EXPECT_EQ(lost.set("/orvanta/tpc", text_node("true")), "");
    EXPECT_THAT(lost.commit(), HasSubstr("gone/apd.json"));
    EXPECT_EQ(lost.get("/orvanta/tpc"), nullptr);
}

TEST_F(ApdConfigStore, IsReadableByItsOwnerAlone) {
    EXPECT_EQ(store.set(kChannelPath, text_node("11")), "");
    ASSERT_EQ(store.commit(), "");
    struct stat status {};
    ASSERT_EQ(stat((folder / "apd.json").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(ApdConfigStore, ForgetsWhatTheServiceHadSetWhenItNoLongerFits) {
    folder.write("service.json", R"({"/interface/wlan0/wlan/radio/channel": "37"})");
    store.load_service();
    EXPECT_EQ(in_force(kChannelPath), "6");
    folder.write("service.json", "garbage");
    store.load_service();
    EXPECT_EQ(in_force(kChannelPath), "6");
}

}  // namespace
}  // namespace apd
