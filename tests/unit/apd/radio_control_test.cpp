#include "radio_control.h"

#include <gmock/gmock.h>

#include "apd_support.h"
#include "logsink.h"
#include "temporary_folder.h"

namespace apd {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class ApdRadioControl : public testing::Test {
  protected:
    ApdRadioControl() { radio.hostapd_came({}); }

    void put(const std::string& path, const std::string& value) {
        put_path(tree.get(), path, text_node(value));
    }
    void put_radio(const std::string& name, const std::string& value) {
        put("/interface/wlan0/wlan/radio/" + name, value);
    }
    // Wants what the tree says; the answer is in `answers`.
    void want(RadioControl::ChannelIs channel = RadioControl::ChannelIs::kAsBefore) {
        std::string reason;
        const std::optional<AccessPoint> all = read_access_point(tree.get(), reason);
        ASSERT_TRUE(all) << reason;
        radio.want((*all)[0], [this](const std::string& why) { answers.push_back(why); }, channel);
    }
    void event(const std::string& text) { radio.take("wlan0-va0", *read_event(text)); }
    void is_on(const Channel& channel) {
        for (const char* vap : {"wlan0-va0", "wlan0-va2"})
            kernel.channels[vap] = channel;
    }
    // Up on channel 6, and what led there forgotten.
    void bring_up() {
        want();
        is_on({6, 20});
        event("AP-ENABLED");
        ASSERT_EQ(radio.state(), RadioControl::State::kUp);
        answers.clear();
        hostapd.commands.clear();
    }
    // hostapd has left a radio at 20 MHz that was to have 40, and what led there is forgotten.
    void bring_up_refused_40mhz() {
        bring_up();
        put_radio("bandwidth", "40");
        want();
        event("AP-ENABLED");
        ASSERT_EQ(radio.applied()->channel, (Channel{6, 20}));
        hostapd.commands.clear();
    }
    [[nodiscard]] std::string last_answer() const {
        return answers.empty() ? "none yet" : answers.back();
    }

    TemporaryFolder folder;
    const Json tree = parse_json(kTwoRadios);
    FakeHostapdPort hostapd;
    FakeKernel kernel;
    RadioControl::Clock::time_point now{};
    int settled = 0;
    std::vector<std::string> ended;
    std::vector<std::string> answers;
    RadioControl radio{
        0,
        {.hostapd = hostapd,
         .kernel = kernel,
         .folder = folder.path(),
         .places = {"/run/hostapd", "/run/apd/black-list"},
         .address_of =
             [](VapId id) { return Mac{2, 0, 0, 0, 0, static_cast<std::uint8_t>(0x51 + id.vap)}; },
         .settled = [this](int) { settled++; },
         .vap_ends = [this](const std::string& ifname) { ended.push_back(ifname); },
         .now = [this] { return now; }}};
};

TEST_F(ApdRadioControl, MakesTheInterfacesAndHandsHostapdAFileForEach) {
    want();
    EXPECT_THAT(kernel.vaps, SizeIs(2));
    EXPECT_EQ(to_text(kernel.vaps["wlan0-va2"]), "02:00:00:00:00:53");
    EXPECT_THAT(hostapd.told("ADD"),
                ElementsAre("ADD bss_config=phy0:" + (folder / "wlan0-va0.conf"),
                            "ADD bss_config=phy0:" + (folder / "wlan0-va2.conf")));
    EXPECT_THAT(folder.read("wlan0-va0.conf"), HasSubstr("channel=6\n"));
    EXPECT_THAT(answers, IsEmpty());
    event("AP-ENABLED");
    EXPECT_THAT(answers, ElementsAre(""));
}

TEST_F(ApdRadioControl, AsksHostapdWhenItMissedTheEvent) {
    hostapd.state = "COUNTRY_UPDATE";
    want();
    radio.tick();
    EXPECT_THAT(answers, IsEmpty());
    hostapd.state = "ENABLED";
    radio.tick();
    EXPECT_THAT(answers, ElementsAre(""));
}

TEST_F(ApdRadioControl, ChangesTheChannelByAnnouncement) {
    bring_up();
    put_radio("channel", "11");
    want();
    EXPECT_THAT(hostapd.told(""),
                ElementsAre("IFNAME=wlan0-va0 CHAN_SWITCH 5 2462 bandwidth=20 ht"));
    EXPECT_THAT(answers, IsEmpty());
    is_on({11, 20});
    event("AP-CSA-FINISHED freq=2462 dfs=0");
    EXPECT_THAT(answers, ElementsAre(""));
    EXPECT_THAT(folder.read("wlan0-va0.conf"), HasSubstr("channel=11\n"));
    EXPECT_EQ(settled, 0);
}

TEST_F(ApdRadioControl, StartsAnewWhenTheKernelDidNotFollowTheAnnouncement) {
    bring_up();
    put_radio("channel", "11");
    want();
    now += std::chrono::seconds{6};
    radio.tick();
    EXPECT_THAT(hostapd.told("ADD"), SizeIs(2));
    EXPECT_EQ(radio.state(), RadioControl::State::kStarting);
    EXPECT_THAT(answers, IsEmpty());
    is_on({11, 20});
    event("AP-ENABLED");
    EXPECT_THAT(answers, ElementsAre(""));
}

TEST_F(ApdRadioControl, StartsAnewWhatTheKernelNoLongerSends) {
    bring_up();
    const auto look = [this] {
        now += std::chrono::seconds{10};
        radio.tick();
    };
    look();
    kernel.channels.clear();
    look();
    is_on({6, 20});
    look();
    kernel.channels.clear();
    look();
    EXPECT_THAT(hostapd.commands, IsEmpty()) << "once may be a dump that was cut short";
    look();
    EXPECT_THAT(hostapd.told("REMOVE"), SizeIs(2));
    EXPECT_THAT(hostapd.told("ADD"), SizeIs(2));
    is_on({6, 20});
    event("AP-ENABLED");
    EXPECT_EQ(radio.state(), RadioControl::State::kUp);
}

// As with rfkill(8).
TEST_F(ApdRadioControl, IsDownWhileTheKernelRefusesTheRadio) {
    bring_up();
    const RadioAbility ability = kernel.abilities["wlan0"];
    kernel.abilities.erase("wlan0");
    kernel.channels.clear();
    for (int look = 0; look < 2; look++) {
        now += std::chrono::seconds{10};
        radio.tick();
    }
    EXPECT_EQ(radio.state(), RadioControl::State::kDown);
    EXPECT_FALSE(radio.applied());
    EXPECT_EQ(radio.trouble(), "there is no interface wlan0");
    kernel.abilities["wlan0"] = ability;
    is_on({6, 20});
    for (int look = 0; look < 2; look++) {
        now += std::chrono::minutes{1};
        radio.tick();
    }
    EXPECT_EQ(radio.state(), RadioControl::State::kUp);
}

TEST_F(ApdRadioControl, StartsAnewWhereTheDriverCannotAnnounce) {
    kernel.abilities["wlan0"].csa = false;
    bring_up();
    put_radio("channel", "11");
    want();
    EXPECT_THAT(hostapd.told("CHAN_SWITCH"), IsEmpty());
    EXPECT_THAT(hostapd.told("REMOVE"), ElementsAre("REMOVE wlan0-va2", "REMOVE wlan0-va0"));
    EXPECT_THAT(hostapd.told("ADD"), SizeIs(2));
    is_on({11, 20});
    event("AP-ENABLED");
    EXPECT_EQ(last_answer(), "");
}

TEST_F(ApdRadioControl, StartsAnewWhenHostapdRefusesToAnnounce) {
    bring_up();
    hostapd.answers["IFNAME=wlan0-va0 CHAN_SWITCH"] = "FAIL";
    put_radio("channel", "11");
    want();
    EXPECT_THAT(hostapd.told("ADD"), SizeIs(2));
}

TEST_F(ApdRadioControl, LetsHostapdLookForOthersBefore40MhzAt24Ghz) {
    bring_up();
    put_radio("bandwidth", "40");
    want();
    EXPECT_THAT(hostapd.told("CHAN_SWITCH"), IsEmpty());
    EXPECT_THAT(hostapd.told("ADD"), SizeIs(2));
    is_on({6, 20});  // hostapd has found others
    event("AP-ENABLED");
    EXPECT_EQ(last_answer(), "");
    EXPECT_EQ(radio.applied()->channel, (Channel{6, 20}));
}

TEST_F(ApdRadioControl, LetsHostapdLookForOthersBefore40MhzElsewhereAt24Ghz) {
    put_radio("bandwidth", "40");
    want();
    is_on({6, 40, Sideband::kLower});
    event("AP-ENABLED");
    hostapd.commands.clear();
    put_radio("control-sideband", "upper");
    want();
    EXPECT_THAT(hostapd.told("CHAN_SWITCH"), IsEmpty());
    EXPECT_THAT(hostapd.told("ADD"), SizeIs(2));
}

TEST_F(ApdRadioControl, LeavesA40MhzChannelThatOthersOverlapAloneWhenSomethingElseChanges) {
    bring_up_refused_40mhz();
    put_radio("tx-power", "9");
    want();
    EXPECT_EQ(last_answer(), "");
    EXPECT_EQ(kernel.powers["phy0"], 9);
    EXPECT_THAT(hostapd.commands, IsEmpty());
}

TEST_F(ApdRadioControl, Tries40MhzAgainWhenTheyAreAskedForAgain) {
    bring_up_refused_40mhz();
    want(RadioControl::ChannelIs::kAskedFor);
    EXPECT_THAT(hostapd.told("ADD"), SizeIs(2));
    is_on({6, 40, Sideband::kLower});
    event("AP-ENABLED");
    EXPECT_EQ(radio.applied()->channel.width, 40);
}

TEST_F(ApdRadioControl, RefusesWhatTheRegulatoryDomainDoesNotHave) {
    bring_up();
    kernel.abilities["wlan0"].channels.erase(kernel.abilities["wlan0"].channels.begin() + 12);
    put_radio("channel", "13");
    want();
    EXPECT_EQ(last_answer(), "channel 13 is not available on wlan0 in DE");
    put_radio("channel", "6");
    put_radio("tx-power", "30");
    want();
    EXPECT_EQ(last_answer(), "tx-power 30 dBm is above the 20 dBm of channel 6");
    EXPECT_THAT(hostapd.commands, IsEmpty());
}

TEST_F(ApdRadioControl, SetsThePowerAlone) {
    bring_up();
    put_radio("tx-power", "9");
    want();
    EXPECT_EQ(last_answer(), "");
    EXPECT_EQ(kernel.powers["phy0"], 9);
    EXPECT_THAT(hostapd.commands, IsEmpty());
}

TEST_F(ApdRadioControl, EntersARadarChannelByAStartAndAnswersWhenTheCheckBegins) {
    put_radio("channel", "36");
    want();
    is_on({36, 20});
    event("AP-ENABLED");
    put_radio("channel", "52");
    want();
    EXPECT_THAT(hostapd.told("CHAN_SWITCH"), IsEmpty());
    hostapd.state = "DFS";
    event("DFS-CAC-START freq=5260 chan=52 sec_chan=0, width=0, seg0=0, seg1=0, cac_time=60s");
    EXPECT_EQ(last_answer(), "");
    EXPECT_EQ(radio.state(), RadioControl::State::kRadarCheck);
    EXPECT_EQ(settled, 0);
    is_on({52, 20});
    hostapd.state = "ENABLED";
    event("AP-ENABLED");
    EXPECT_EQ(radio.state(), RadioControl::State::kUp);
    EXPECT_EQ(settled, 1);
}

TEST_F(ApdRadioControl, TakesOtherChangesAfterARadarHasDrivenItAway) {
    put_radio("channel", "52");
    want();
    is_on({52, 20});
    event("AP-ENABLED");
    kernel.abilities["wlan0"].channels[17].radar_seen = true;
    is_on({36, 20});
    event("AP-CSA-FINISHED freq=5180 dfs=0");
    hostapd.commands.clear();
    put_radio("tx-power", "9");
    want();
    EXPECT_EQ(last_answer(), "");
    EXPECT_EQ(kernel.powers["phy0"], 9);
    EXPECT_THAT(hostapd.commands, IsEmpty());
    want(RadioControl::ChannelIs::kAskedFor);
    EXPECT_EQ(last_answer(), "channel 52 was left for a radar lately");
}

TEST_F(ApdRadioControl, FollowsHostapdAndTellsWhereItWent) {
    bring_up();
    is_on({1, 20});
    event("AP-CSA-FINISHED freq=2412 dfs=0");
    EXPECT_EQ(settled, 1);
    EXPECT_EQ(radio.applied()->channel.number, 1);
}

TEST_F(ApdRadioControl, GoesBackWhenAStartFails) {
    bring_up();
    put_radio("channel", "36");
    hostapd.state = "DISABLED";
    want();
    radio.tick();
    EXPECT_EQ(last_answer(), "hostapd cannot start channel 36");
    EXPECT_THAT(folder.read("wlan0-va0.conf"), HasSubstr("channel=6\n"));
    event("AP-ENABLED");
    EXPECT_EQ(radio.state(), RadioControl::State::kUp);
}

TEST_F(ApdRadioControl, GivesUpAStartThatHangs) {
    hostapd.state = "HT_SCAN";
    want();
    now += std::chrono::seconds{15};
    radio.tick();
    EXPECT_THAT(last_answer(), HasSubstr("does not start within 15 s (it is at HT_SCAN)"));
    EXPECT_EQ(radio.state(), RadioControl::State::kDown);
}

TEST_F(ApdRadioControl, RefusesWhatItDoesNotReachWhileTheAgentWaits) {
    bring_up();
    hostapd.state = "HT_SCAN";
    put_radio("channel", "11");
    want();
    now += std::chrono::seconds{5};
    radio.tick();
    ASSERT_EQ(radio.state(), RadioControl::State::kStarting) << "the announcement has failed";
    now += std::chrono::seconds{12};
    radio.tick();
    EXPECT_THAT(answers, IsEmpty());
    now += std::chrono::seconds{1};
    radio.tick();
    EXPECT_EQ(last_answer(), "hostapd does not start within 13 s (it is at HT_SCAN)");
}

TEST_F(ApdRadioControl, RefusesAChangeWhoseTurnComesTooLate) {
    std::string reason;
    hostapd.state = "HT_SCAN";
    radio.bring_to((*read_access_point(tree.get(), reason))[0]);
    put_radio("channel", "11");
    want();
    now += std::chrono::seconds{18};
    hostapd.state = "ENABLED";
    hostapd.commands.clear();
    radio.tick();
    EXPECT_EQ(last_answer(), "the changes before it took too long");
    EXPECT_THAT(hostapd.told("CHAN_SWITCH"), IsEmpty());
}

TEST_F(ApdRadioControl, TriesARadioAgainThatStaysDown) {
    hostapd.state = "DISABLED";
    std::string reason;
    radio.bring_to((*read_access_point(tree.get(), reason))[0]);
    radio.tick();
    ASSERT_EQ(radio.state(), RadioControl::State::kDown);
    EXPECT_EQ(radio.trouble(), "hostapd cannot start channel 6");
    hostapd.commands.clear();
    now += std::chrono::seconds{59};
    radio.tick();
    EXPECT_THAT(hostapd.told("ADD"), IsEmpty());
    hostapd.state = "ENABLED";
    is_on({6, 20});
    now += std::chrono::seconds{1};
    radio.tick();
    EXPECT_THAT(hostapd.told("ADD"), SizeIs(2));
    radio.tick();
    EXPECT_EQ(radio.state(), RadioControl::State::kUp);
    EXPECT_EQ(radio.trouble(), "");
    EXPECT_EQ(settled, 1) << "the agent is to read its channel anew";
}

TEST_F(ApdRadioControl, LogsARefusalWheneverItIsAskedForAndNotAtEachTrial) {
    logsink_set_file((folder / "log").c_str());
    hostapd.state = "DISABLED";
    std::string reason;
    for (int times = 0; times < 2; times++) {
        radio.bring_to((*read_access_point(tree.get(), reason))[0]);
        radio.tick();
    }
    for (int trial = 0; trial < 2; trial++) {
        now += std::chrono::minutes{1};
        radio.tick();
        radio.tick();
    }
    logsink_set_file(nullptr);
    EXPECT_THAT(hostapd.told("ADD"), SizeIs(8)) << "twice two access points, and two trials";
    const std::string log = folder.read("log");
    const std::string line = "hostapd cannot start channel 6";
    const std::size_t first = log.find(line);
    ASSERT_NE(first, std::string::npos);
    const std::size_t second = log.find(line, first + 1);
    ASSERT_NE(second, std::string::npos);
    EXPECT_EQ(log.find(line, second + 1), std::string::npos);
}

TEST_F(ApdRadioControl, StartsWithWhatItHadWhereOtherSettingsWereRefused) {
    bring_up();
    kernel.abilities["wlan0"].channels.erase(kernel.abilities["wlan0"].channels.begin() + 12);
    put_radio("channel", "13");
    std::string reason;
    radio.bring_to((*read_access_point(tree.get(), reason))[0]);
    ASSERT_EQ(radio.state(), RadioControl::State::kUp);
    radio.hostapd_went();
    radio.hostapd_came({});
    EXPECT_THAT(folder.read("wlan0-va0.conf"), HasSubstr("channel=6\n"));
}

TEST_F(ApdRadioControl, TriesARadioAgainThatIsPluggedIn) {
    const RadioAbility ability = kernel.abilities["wlan0"];
    kernel.abilities.erase("wlan0");
    std::string reason;
    radio.bring_to((*read_access_point(tree.get(), reason))[0]);
    EXPECT_EQ(radio.trouble(), "there is no interface wlan0");
    for (int minute = 0; minute < 2; minute++) {
        now += std::chrono::minutes{1};
        radio.tick();
    }
    EXPECT_EQ(radio.trouble(), "there is no interface wlan0");
    kernel.abilities["wlan0"] = ability;
    now += std::chrono::minutes{1};
    radio.tick();
    EXPECT_THAT(hostapd.told("ADD"), SizeIs(2));
}

TEST_F(ApdRadioControl, LeavesARadioDownThatIsToBeDown) {
    bring_up();
    radio.bring_to(std::nullopt);
    hostapd.commands.clear();
    now += std::chrono::minutes{2};
    radio.tick();
    EXPECT_THAT(hostapd.commands, IsEmpty());
}

TEST_F(ApdRadioControl, StartsAllAccessPointsAnewForTheFirst) {
    bring_up();
    put("/interface/wlan0-va0/vap/ssid", "visitors");
    want();
    EXPECT_THAT(hostapd.told("ADD"), SizeIs(2));
    event("AP-ENABLED");
    EXPECT_EQ(last_answer(), "");
}

TEST_F(ApdRadioControl, StartsAnyOtherAccessPointAloneAnew) {
    bring_up();
    ended.clear();
    put("/interface/wlan0-va2/vap/ssid", "visitors");
    want();
    EXPECT_EQ(last_answer(), "");
    EXPECT_THAT(hostapd.told(""), ElementsAre("REMOVE wlan0-va2", "ADD bss_config=phy0:" +
                                                                      (folder / "wlan0-va2.conf")));
    EXPECT_THAT(ended, ElementsAre("wlan0-va2"));
    EXPECT_THAT(folder.read("wlan0-va2.conf"), HasSubstr("ssid2=76697369746f7273\n"));
    EXPECT_TRUE(kernel.vaps.contains("wlan0-va2"));
}

TEST_F(ApdRadioControl, AddsAnAccessPointBesideTheOthers) {
    bring_up();
    ended.clear();
    put("/interface/wlan0-va1/common/enabled", "true");
    put("/interface/wlan0-va1/vap/ssid", "third");
    want();
    EXPECT_EQ(last_answer(), "");
    EXPECT_THAT(hostapd.told(""),
                ElementsAre("ADD bss_config=phy0:" + (folder / "wlan0-va1.conf")));
    EXPECT_THAT(ended, IsEmpty());
}

TEST_F(ApdRadioControl, StartsAllAnewWhereHostapdTakesNoneBesideOthers) {
    bring_up();
    hostapd.answers["ADD"] = "FAIL";
    put("/interface/wlan0-va2/vap/ssid", "visitors");
    want();
    EXPECT_THAT(hostapd.told("REMOVE wlan0-va0"), SizeIs(1));
    EXPECT_EQ(last_answer(), "hostapd does not take wlan0-va0");
}

TEST_F(ApdRadioControl, RemovesAnAccessPointBesideTheOthers) {
    bring_up();
    put("/interface/wlan0-va2/common/enabled", "false");
    want();
    EXPECT_EQ(last_answer(), "");
    EXPECT_THAT(hostapd.told(""), ElementsAre("REMOVE wlan0-va2"));
    EXPECT_FALSE(kernel.vaps.contains("wlan0-va2"));
}

TEST_F(ApdRadioControl, PassesOverALateEndOfAnAccessPoint) {
    bring_up();
    event("AP-DISABLED");
    EXPECT_EQ(radio.state(), RadioControl::State::kUp);
    EXPECT_EQ(settled, 0);
}

TEST_F(ApdRadioControl, SetsKeyHoldersWithTheClientsConnected) {
    bring_up();
    const std::string key(64, 'a');
    put_path(tree.get(), "/interface/wlan0-va0/vap/ft-config/mac",
             parse_json(R"({"02:00:00:00:99:51": {"r0-kh-id": "ap2", "r0-kh-key": ")" + key +
                        R"(", "r1-kh-key": ")" + key + R"("}})"));
    want();
    EXPECT_EQ(last_answer(), "");
    EXPECT_THAT(
        hostapd.told(""),
        ElementsAre("IFNAME=wlan0-va0 SET r0kh 02:00:00:00:99:51 ap2 " + key,
                    "IFNAME=wlan0-va0 SET r1kh 02:00:00:00:99:51 02:00:00:00:99:51 " + key));
    hostapd.commands.clear();
    put_path(tree.get(), "/interface/wlan0-va0/vap/ft-config/mac", nullptr);
    want();
    EXPECT_THAT(hostapd.told("SET r0kh"), SizeIs(1));
    EXPECT_THAT(hostapd.told("SET r0kh " + key), IsEmpty());
    EXPECT_THAT(hostapd.told("RELOAD"), IsEmpty());
}

TEST_F(ApdRadioControl, ReloadsForAnotherMobilityDomain) {
    bring_up();
    put("/interface/wlan0-va0/vap/ft-config/mobility-domain", "4660");
    want();
    EXPECT_THAT(hostapd.told("SET mobility_domain 1234"), SizeIs(1));
    EXPECT_EQ(hostapd.commands.back(), "IFNAME=wlan0-va0 RELOAD");
}

TEST_F(ApdRadioControl, TellsTheEndsAtAllAccessPointsThatHostapdReloads) {
    bring_up();
    ended.clear();
    put("/interface/wlan0-va0/vap/ft-config/mobility-domain", "4660");
    want();
    EXPECT_THAT(ended, ElementsAre("wlan0-va0", "wlan0-va2"));
}

TEST_F(ApdRadioControl, TakesOverWhatRunsAsWanted) {
    bring_up();
    RadioControl again{
        0,
        {.hostapd = hostapd,
         .kernel = kernel,
         .folder = folder.path(),
         .places = {"/run/hostapd", "/run/apd/black-list"},
         .address_of =
             [](VapId id) { return Mac{2, 0, 0, 0, 0, static_cast<std::uint8_t>(0x51 + id.vap)}; },
         .settled = [](int) {},
         .vap_ends = [](const std::string&) {}}};
    std::optional<RadioConfig> wanted = radio.applied();
    wanted->tx_power = 15;
    kernel.powers.clear();
    again.expect(wanted);
    again.hostapd_came({"wlan0-va0", "wlan0-va2"});
    EXPECT_EQ(again.state(), RadioControl::State::kUp);
    EXPECT_EQ(kernel.powers["phy0"], 15) << "the kernel sends with " << kernel.sent_with << " dBm";
    EXPECT_THAT(hostapd.told("REMOVE"), IsEmpty());
    EXPECT_THAT(hostapd.told("ADD"), IsEmpty());
}

TEST_F(ApdRadioControl, EndsWhatRunsAndIsNotWanted) {
    kernel.vaps["wlan0-va0"] = Mac{};
    radio.hostapd_came({"wlan0-va0", "wlan1-va0"});
    EXPECT_THAT(hostapd.told("REMOVE"), ElementsAre("REMOVE wlan0-va0"));
    EXPECT_THAT(kernel.vaps, IsEmpty());
}

TEST_F(ApdRadioControl, StartsAgainWhenHostapdComesBack) {
    bring_up();
    radio.hostapd_went();
    EXPECT_EQ(radio.state(), RadioControl::State::kDown);
    radio.hostapd_came({});
    EXPECT_THAT(hostapd.told("ADD"), SizeIs(2));
}

TEST_F(ApdRadioControl, AnswersAChangeThatHostapdsEndCutsOff) {
    bring_up();
    put_radio("channel", "11");
    want();
    radio.hostapd_went();
    EXPECT_EQ(last_answer(), "hostapd is not running");
}

TEST_F(ApdRadioControl, MakesOneChangeAfterTheOther) {
    bring_up();
    put_radio("channel", "11");
    want();
    put_radio("channel", "1");
    want();
    EXPECT_THAT(hostapd.told("CHAN_SWITCH"), SizeIs(1));
    is_on({11, 20});
    event("AP-CSA-FINISHED freq=2462 dfs=0");
    EXPECT_THAT(hostapd.told("CHAN_SWITCH"), SizeIs(2));
    is_on({1, 20});
    event("AP-CSA-FINISHED freq=2412 dfs=0");
    EXPECT_THAT(answers, ElementsAre("", ""));
}

}  // namespace
}  // namespace apd
