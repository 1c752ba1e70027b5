#include "manager.h"

#include <gmock/gmock.h>

#include "apd_support.h"
#include "logsink.h"
#include "temporary_folder.h"

namespace apd {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

class ApdManager : public testing::Test {
  protected:
    ApdManager() {
        folder.write("apd.json", kTwoRadios);
        EXPECT_TRUE(store.load());
        manager.reloaded();
        manager.hostapd_came(4711);
        is_on("wlan0", {6, 20});
        is_on("wlan1", {36, 80});
        manager.take_event("wlan0-va0", "AP-ENABLED");
        manager.take_event("wlan1-va0", "AP-ENABLED");
        hostapd.commands.clear();
    }

    void is_on(const std::string& radio, const Channel& channel) {
        kernel.channels[radio + "-va0"] = kernel.channels[radio + "-va2"] = channel;
    }
    [[nodiscard]] Manager::Done answer() {
        return [this](const std::string& why) { answers.push_back(why); };
    }
    [[nodiscard]] std::string in_force(const std::string& path) const {
        return scalar_text(store.get(path));
    }
    [[nodiscard]] bool there(const std::string& name) const {
        return std::filesystem::exists(folder / name);
    }

    TemporaryFolder folder;
    ConfigStore store{{folder / "apd.json", folder / "service.json", ""}, judge_access_point};
    FakeHostapdPort hostapd;
    FakeKernel kernel;
    AgentFiles files{folder.path(), folder / "hostapd.pid"};
    RadioControl::Clock::time_point now{};
    std::vector<std::string> traps;
    std::vector<std::string> answers;
    Manager manager{{.store = store,
                     .hostapd = hostapd,
                     .kernel = kernel,
                     .files = files,
                     .folder = folder.path(),
                     .control_folder = "/run/hostapd",
                     .base_mac = Mac{0, 0x11, 0x22, 0x33, 0x44, 0xFA},
                     .tell_agent = [this](const Json& t) { traps.push_back(compact(t.get())); },
                     .now = [this] { return now; }}};
};

TEST_F(ApdManager, GivesTheAddressesThatTheAgentComputes) {
    EXPECT_EQ(to_text(kernel.vaps["wlan0-va0"]), "00:11:22:33:44:fb");
    EXPECT_EQ(to_text(kernel.vaps["wlan0-va2"]), "00:11:22:33:44:fd");
    EXPECT_EQ(to_text(kernel.vaps["wlan1-va0"]), "00:11:22:33:44:03");
}

TEST_F(ApdManager, TellsTheAgentOnceThatHostapdIsThere) {
    EXPECT_EQ(folder.read("hostapd.pid"), "4711\n");
    EXPECT_TRUE(there(".orvanta_notify"));
    EXPECT_TRUE(there(".orvanta_notify_hostapd_started"));
    manager.hostapd_went();
    EXPECT_FALSE(there("hostapd.pid"));
    EXPECT_FALSE(there(".orvanta_notify_hostapd_started"));
}

TEST_F(ApdManager, KeepsWhatTheServiceWantsOnceTheRadioIsThere) {
    manager.update_radio(
        "wlan0", {{"auto-channel", "false"}, {"channel", "11"}, {"bandwidth", "20"}}, answer());
    EXPECT_EQ(in_force("/interface/wlan0/wlan/radio/channel"), "6");
    is_on("wlan0", {11, 20});
    manager.take_event("wlan0-va0", "AP-CSA-FINISHED freq=2462 dfs=0");
    EXPECT_THAT(answers, ElementsAre(""));
    EXPECT_EQ(in_force("/interface/wlan0/wlan/radio/channel"), "11");
    EXPECT_EQ(in_force("/interface/wlan0/wlan/radio/auto-channel"), "false");
}

TEST_F(ApdManager, AsksForAChannelThatTheServiceNamesAgain) {
    const Manager::Params wide = {{"channel", "6"}, {"bandwidth", "40"}};
    manager.update_radio("wlan0", wide, answer());
    manager.take_event("wlan0-va0", "AP-ENABLED");  // hostapd has heard others
    hostapd.commands.clear();
    manager.update_radio("wlan0", {{"tx-power", "9"}}, answer());
    EXPECT_THAT(hostapd.told("ADD"), IsEmpty());
    manager.update_radio("wlan0", wide, answer());
    EXPECT_THAT(hostapd.told("ADD"), SizeIs(2));
}

TEST_F(ApdManager, KeepsNothingThatIsRefused) {
    const Manager::Params wrong[] = {
        {{"channel", "14"}},  {{"channel", "x"}},   {{"bandwidth", "30"}},
        {{"tx-power", "99"}}, {{"tx-power", "30"}}, {{"no-such", "1"}},
        {{"country", "zz"}},  {{"channel", "-1"}},  {{"hostapd/wpa", "0"}}};
    for (const Manager::Params& params : wrong) {
        answers.clear();
        manager.update_radio("wlan0", params, answer());
        ASSERT_THAT(answers, SizeIs(1)) << params.front().second;
        EXPECT_NE(answers.front(), "") << params.front().second;
    }
    manager.update_radio("wlan7", {{"channel", "1"}}, answer());
    EXPECT_EQ(answers.back(), "there is no radio wlan7");
    EXPECT_FALSE(there("service.json"));
    EXPECT_THAT(hostapd.told("CHAN_SWITCH"), IsEmpty());
}

TEST_F(ApdManager, NamesTheSideOfAChannelThatTheServiceLeftOpen) {
    manager.update_radio("wlan1", {{"channel", "40"}, {"bandwidth", "40"}}, answer());
    is_on("wlan1", {40, 40, Sideband::kUpper});
    manager.take_event("wlan1-va0", "AP-CSA-FINISHED freq=5200 dfs=0");
    EXPECT_THAT(answers, ElementsAre(""));
    EXPECT_EQ(in_force("/interface/wlan1/wlan/radio/control-sideband"), "upper");
}

TEST_F(ApdManager, GoesBackToWhatIsStored) {
    manager.update_radio("wlan0", {{"channel", "11"}}, answer());
    is_on("wlan0", {11, 20});
    manager.take_event("wlan0-va0", "AP-CSA-FINISHED freq=2462 dfs=0");
    manager.reset_radio("wlan0", answer());
    EXPECT_THAT(hostapd.told("CHAN_SWITCH 5 2437"), SizeIs(1));
    is_on("wlan0", {6, 20});
    manager.take_event("wlan0-va0", "AP-CSA-FINISHED freq=2437 dfs=0");
    EXPECT_THAT(answers, ElementsAre("", ""));
    EXPECT_EQ(in_force("/interface/wlan0/wlan/radio/channel"), "6");
}

TEST_F(ApdManager, TellsTheAgentWhatHasBecomeOfASetting) {
    manager.update_radio("wlan0", {{"tx-power", "12"}}, answer());
    EXPECT_THAT(answers, ElementsAre(""));
    EXPECT_TRUE(there(".orvanta_notify_config_updated"));
}

TEST_F(ApdManager, BeginsWithWhatIsStoredAfterAResetWithoutHostapd) {
    manager.update_radio("wlan0", {{"channel", "11"}}, answer());
    is_on("wlan0", {11, 20});
    manager.take_event("wlan0-va0", "AP-CSA-FINISHED freq=2462 dfs=0");
    manager.hostapd_went();
    manager.reset_radio("wlan0", answer());
    EXPECT_THAT(answers, ElementsAre("", ""));
    EXPECT_EQ(in_force("/interface/wlan0/wlan/radio/channel"), "6");
    manager.hostapd_came(4712);
    EXPECT_THAT(folder.read("wlan0-va0.conf"), HasSubstr("\nchannel=6\n"));
}

TEST_F(ApdManager, TakesFastTransitionBackWithoutHostapd) {
    const Json config = parse_json(R"({"enabled": "true", "mobility-domain": 4660})");
    manager.update_ft({{"wlan0-va0", config.get()}}, answer());
    manager.hostapd_went();
    manager.update_ft({{"wlan0-va0", nullptr}, {"wlan0-va1", nullptr}}, answer());
    EXPECT_THAT(answers, ElementsAre("", ""));
    EXPECT_EQ(in_force("/interface/wlan0-va0/vap/ft-config/mobility-domain"), "");
}

TEST_F(ApdManager, PutsTheBlackListIntoEveryAccessPoint) {
    const Json lists = parse_json(R"({"Name": "x", "black-list": ["02:00:00:00:00:01"]})");
    manager.set_mac_lists(lists.get());
    EXPECT_THAT(hostapd.told("DENY_ACL ADD_MAC 02:00:00:00:00:01"), SizeIs(3));
    EXPECT_EQ(folder.read("black-list"), "02:00:00:00:00:01\n");
    const Json none = parse_json(R"({"Name": "x"})");
    manager.set_mac_lists(none.get());
    EXPECT_THAT(hostapd.told("DENY_ACL DEL_MAC 02:00:00:00:00:01"), SizeIs(3));
    EXPECT_EQ(folder.read("black-list"), "");
}

TEST_F(ApdManager, TellsOfABlackListThatItCannotWrite) {
    std::filesystem::remove(folder / "black-list");
    std::filesystem::create_directory(folder / "black-list");
    logsink_set_file((folder / "log").c_str());
    manager.set_mac_lists(parse_json(R"({"black": ["02:00:00:00:00:01"]})").get());
    logsink_set_file(nullptr);
    EXPECT_THAT(folder.read("log"), HasSubstr("cannot write " + (folder / "black-list")));
    EXPECT_THAT(hostapd.told("DENY_ACL ADD_MAC 02:00:00:00:00:01"), Not(IsEmpty()));
}

TEST_F(ApdManager, LeavesARadioAloneThatIsScannedWith) {
    manager.lock_scan("wlan0");
    ASSERT_EQ(store.set("/interface/wlan0-va2/vap/ssid", text_node("visitors")), "");
    ASSERT_EQ(manager.commit(), "");
    EXPECT_THAT(hostapd.commands, IsEmpty());
    manager.unlock_scan("wlan0");
    EXPECT_THAT(hostapd.told("ADD"), SizeIs(1));
}

TEST_F(ApdManager, WaitsForAnUnlockNoLongerThanASurveyLasts) {
    manager.lock_scan("wlan0");
    ASSERT_EQ(store.set("/interface/wlan0-va2/vap/ssid", text_node("visitors")), "");
    ASSERT_EQ(manager.commit(), "");
    now += std::chrono::minutes{3};
    manager.tick();
    EXPECT_THAT(hostapd.told("ADD"), SizeIs(1));
}

TEST_F(ApdManager, SendsTheAgentWhatClientsDo) {
    hostapd.answers["IFNAME=wlan0-va0 STA"] = "02:00:00:00:02:00\nsignal=-50\next_capab=000008";
    manager.take_event("wlan0-va0", "AP-STA-CONNECTED 02:00:00:00:02:00");
    ASSERT_THAT(traps, SizeIs(1));
    EXPECT_THAT(traps[0], HasSubstr(R"("command":"wifi-client-trap")"));
    EXPECT_THAT(traps[0], HasSubstr(R"("rssi":-50)"));
}

TEST_F(ApdManager, TellsTheAgentWhomAStartAnewEnds) {
    manager.take_event("wlan0-va0", "AP-STA-CONNECTED 02:00:00:00:02:00");
    manager.take_event("wlan1-va0", "AP-STA-CONNECTED 02:00:00:00:02:01");
    traps.clear();
    manager.update_radio("wlan0", {{"channel", "6"}, {"bandwidth", "40"}}, answer());
    ASSERT_THAT(traps, SizeIs(1));
    EXPECT_THAT(traps[0], HasSubstr(R"("type":"send-deauth")"));
    EXPECT_THAT(traps[0], HasSubstr("02:00:00:00:02:00"));
}

TEST_F(ApdManager, KnowsTheStationsOfWhatItTakesOver) {
    hostapd.answers["INTERFACES"] = "wlan0-va0\nwlan0-va2\nwlan1-va0";
    hostapd.answers["IFNAME=wlan0-va0 STA-FIRST"] = "02:00:00:00:02:00\nflags=[AUTH][ASSOC]\n";
    hostapd.answers["IFNAME=wlan0-va0 STA-NEXT 02:00:00:00:02:00"] =
        "02:00:00:00:02:01\nflags=[AUTH][ASSOC][AUTHORIZED][HT]\n";
    hostapd.answers["IFNAME=wlan0-va0 STA-NEXT 02:00:00:00:02:01"] = "";
    hostapd.answers["IFNAME=wlan0-va2 STA-FIRST"] = "FAIL";
    manager.hostapd_went();
    manager.hostapd_came(4711);
    const Json status = manager.status();
    EXPECT_EQ(scalar_text(find_path(status.get(), "/wlan0/wlan0-va0/stations")), "1");
    EXPECT_EQ(scalar_text(find_path(status.get(), "/wlan1/wlan1-va0/stations")), "0");
    manager.take_event("wlan0-va0", "AP-STA-DISCONNECTED 02:00:00:00:02:01");
    EXPECT_THAT(traps, SizeIs(1));
}

TEST_F(ApdManager, LivesThroughGarbageOfHostapd) {
    for (const char* ifname : {"", "wlan0", "wlan9-va0", "wlan0-va9", "lo", "wlan0-va1"})
        for (const char* text : {"", "AP-STA-CONNECTED 02:00:00:00:02:00", "AP-ENABLED",
                                 "AP-CSA-FINISHED freq=0", "\xff\xfe"})
            manager.take_event(ifname, text);
    EXPECT_THAT(traps, IsEmpty());
}

TEST_F(ApdManager, SetsFastTransitionAndTakesItBack) {
    const Json config = parse_json(R"({"enabled": "true", "mobility-domain": 4660})");
    manager.update_ft({{"wlan0-va0", config.get()}}, answer());
    EXPECT_EQ(answers.back(), "");
    EXPECT_EQ(in_force("/interface/wlan0-va0/vap/ft-config/mobility-domain"), "4660");
    EXPECT_THAT(hostapd.told("SET mobility_domain 1234"), SizeIs(1));
    manager.update_ft({{"wlan0-va0", nullptr}, {"wlan0-va1", nullptr}}, answer());
    EXPECT_EQ(answers.back(), "");
    EXPECT_EQ(in_force("/interface/wlan0-va0/vap/ft-config/mobility-domain"), "");
    EXPECT_EQ(in_force("/interface/wlan0-va0/vap/ft-config/enabled"), "true");
}

TEST_F(ApdManager, RefusesAFastTransitionThatCannotBe) {
    const Json config = parse_json(R"({"enabled": "true", "mobility-domain": 99999})");
    manager.update_ft({{"wlan0-va0", config.get()}}, answer());
    EXPECT_THAT(answers.back(), HasSubstr("mobility-domain"));
    EXPECT_THAT(hostapd.commands, IsEmpty());
}

}  // namespace
}  // namespace apd
