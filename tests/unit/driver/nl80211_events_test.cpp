#include "platform-specific/nl80211_events.h"

#include <linux/nl80211.h>
#include <unistd.h>

#include "driver_fixture.h"
#include "fake_hostapd.h"
#include "fake_nl80211.h"
#include "platform-specific/ioctl_ops_factory.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr long kNoWait = 0;
constexpr long kPatienceUs = 60'000'000;

// Events as "KIND RADIO STATION SSID INTERFACE TARGET".
class Nl80211Events : public DriverTest {
  protected:
    Nl80211Events() {
        platform.radios(R"({"ifname": "wlan0", "driver": "nl80211", "bands": ["2.4GHz"]},
                           {"ifname": "wlan1", "driver": "g6", "bands": ["5GHz"]})");
        kernel_side->answers[NL80211_CMD_GET_INTERFACE] = FakeNl80211::recording("interfaces");
        // A descriptor that is always ready.
        if (pipe(ready) == 0 && write(ready[1], "x", 1) == 1)
            event_side->descriptor = ready[0];
    }
    ~Nl80211Events() override {
        close(ready[0]);
        close(ready[1]);
    }

    std::vector<std::string> process(long wait_us) {
        std::vector<std::string> told;
        const auto tell = [&told](const driver_event_desc& event) {
            told.push_back(std::to_string(event.event) + " " + std::to_string(event.radio) + " " +
                           event.sta.mac + " " + event.sta.ssid + " " + event.sta.ifname + " " +
                           event.sta.target_roaming_mac);
        };
        EXPECT_EQ((nl80211_events{driver(), radios}.process(wait_us, tell)), 0);
        return told;
    }

    TemporaryFolder folder;
    const std::string socket = folder / "global";
    int ready[2] = {-1, -1};
    std::unique_ptr<FakeNl80211> commands = std::make_unique<FakeNl80211>();
    std::unique_ptr<FakeNl80211> events = std::make_unique<FakeNl80211>();
    FakeNl80211* const kernel_side = commands.get();
    FakeNl80211* const event_side = events.get();
    nl80211_radios radios{std::move(commands), std::move(events), socket};
};

TEST_F(Nl80211Events, NothingToTellIsNothing) {
    event_side->subscription = -ENODEV;
    EXPECT_THAT(process(kNoWait), IsEmpty());
    EXPECT_EQ(log.count("no events of nl80211"), 1);
    EXPECT_THAT(process(kNoWait), IsEmpty());
    EXPECT_EQ(log.count("no events of nl80211"), 1) << "asked again only after a while";
}

TEST_F(Nl80211Events, AChannelThatChangedIsTold) {
    event_side->events = FakeNl80211::recording("channel_switch");
    EXPECT_THAT(process(kPatienceUs), ElementsAre("2 0    "));
}

TEST_F(Nl80211Events, LostEventsMayHaveBeenAChange) {
    event_side->events_result = -ENOBUFS;
    EXPECT_THAT(process(kPatienceUs), ElementsAre("2 0    "));
    EXPECT_TRUE(log.contains("events of nl80211 are lost: No buffer space available"));
}

TEST_F(Nl80211Events, LostEventsMayHaveBeenAChangeOfAnyRadio) {
    platform.radios(R"({"ifname": "wlan0", "driver": "nl80211", "bands": ["2.4GHz"]},
                       {"ifname": "wlan1", "driver": "nl80211", "bands": ["5GHz"]})");
    event_side->events_result = -ENOBUFS;
    EXPECT_THAT(process(kPatienceUs), ElementsAre("2 0    ", "2 1    "));
}

TEST_F(Nl80211Events, OtherEventsOfTheKernelAreNoChange) {
    event_side->events = FakeNl80211::recording("interfaces");
    EXPECT_THAT(process(kPatienceUs), IsEmpty());
}

TEST_F(Nl80211Events, AChangeOfAnInterfaceThatVanishedIsNobodys) {
    kernel_side->answers.clear();
    event_side->events = FakeNl80211::recording("channel_switch");
    EXPECT_THAT(process(kPatienceUs), IsEmpty());
}

TEST_F(Nl80211Events, AClientOfAForeignInterfaceIsNobodys) {
    event_side->subscription = -ENODEV;
    const FakeHostapd hostapd{socket};
    EXPECT_THAT(process(kNoWait), IsEmpty());
    hostapd.tell("IFNAME=eth0 <3>BSS-TM-RESP 02:00:00:00:04:00 status_code=0");
    EXPECT_THAT(process(kPatienceUs), IsEmpty());
}

TEST_F(Nl80211Events, AClientThatMovesIsTold) {
    event_side->subscription = -ENODEV;
    add_vap("wlan0-va0", "home");
    set_up("wlan0");
    driver().set_hostapd_initialized(true);
    driver().set_vapcontext();
    const FakeHostapd hostapd{socket};
    EXPECT_THAT(process(kNoWait), IsEmpty());
    hostapd.tell("IFNAME=wlan0-va0 <3>AP-STA-CONNECTED 02:00:00:00:04:00");
    hostapd.tell(
        "IFNAME=wlan0-va0 <3>BSS-TM-RESP 02:00:00:00:05:00 status_code=7 "
        "bss_termination_delay=0");
    hostapd.tell(
        "IFNAME=wlan0-va0 <3>BSS-TM-RESP 02:00:00:00:04:00 status_code=0 "
        "bss_termination_delay=0 target_bssid=02:00:00:00:12:00");
    EXPECT_THAT(process(kPatienceUs),
                ElementsAre("0 0 02:00:00:00:04:00 home wlan0-va0 02:00:00:00:12:00"));
    EXPECT_TRUE(log.contains("client(02:00:00:00:05:00) does not move, status 7"));
}

TEST_F(Nl80211Events, AnAccessPointThatStartsMayBeOnAnotherChannel) {
    event_side->subscription = -ENODEV;
    const FakeHostapd hostapd{socket};
    EXPECT_THAT(process(kNoWait), IsEmpty());
    hostapd.tell("IFNAME=wlan0-va0 <3>AP-ENABLED ");
    hostapd.tell("IFNAME=eth0 <3>AP-ENABLED ");
    EXPECT_THAT(process(kPatienceUs), ElementsAre("2 0    "));
}

TEST_F(Nl80211Events, AHostapdThatWasStartedAnewIsAttachedToAnew) {
    event_side->subscription = -ENODEV;
    auto hostapd = std::make_unique<FakeHostapd>(socket);
    process(kNoWait);
    hostapd.reset();
    EXPECT_THAT(process(kNoWait), IsEmpty());
    hostapd = std::make_unique<FakeHostapd>(socket);
    process(kNoWait);
    hostapd->tell("IFNAME=wlan0-va0 <3>AP-ENABLED ");
    EXPECT_THAT(process(kPatienceUs), ElementsAre("2 0    "));
}

TEST_F(Nl80211Events, TheDriverLooksForThemWhenARadioHasAny) {
    driver();  // which needs sockets
    const call_faults::SelectSpy pause{-1};
    const call_faults::NoSocket fault;
    EXPECT_EQ(driver().process_driver_events({}), 0);
    EXPECT_EQ(pause.calls, 0);
    EXPECT_TRUE(log.contains("no events of nl80211: Input/output error"));
}

TEST_F(Nl80211Events, TheDriverOnlyPausesWithoutARadio) {
    platform.radios("");
    const call_faults::SelectSpy pause{-1};
    EXPECT_EQ(driver().process_driver_events({}), -1);
    EXPECT_EQ(pause.calls, 1);
}

TEST_F(Nl80211Events, TheDriverServesSuchARadio) {
    EXPECT_EQ(driver().get_ioctl_type("wlan0-va3"), NL80211);
    EXPECT_EQ(driver().get_ioctl_type("wlan1"), G6);
    EXPECT_NE(ioctl_ops_factory::get(NL80211, driver(), "wlan0"), nullptr);
}

}  // namespace
