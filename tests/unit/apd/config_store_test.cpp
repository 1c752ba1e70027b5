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

TEST_F(ApdConfigStore, IsEmptyWithoutAFile) {
    ConfigStore none{{folder / "none.json", "", ""}, judge_access_point};
    EXPECT_TRUE(none.load());
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
