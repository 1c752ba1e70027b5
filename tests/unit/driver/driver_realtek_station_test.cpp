#include "driver_fixture.h"
#include "unsafe_texts.h"

namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class DriverStationTest : public LiveDriverTest {
  protected:
    // Clients of a radio as "mac ssid ifname".
    std::vector<std::string> clients(const char* ifname) {
        std::vector<std::string> result;
        EXPECT_EQ(driver().get_assoclist(ifname,
                                         [&](const rrm_sta_s& station) {
                                             result.push_back(station.mac + " " + station.ssid +
                                                              " " + station.ifname);
                                         }),
                  0);
        return result;
    }
};

// --- associated clients ---

TEST_F(DriverStationTest, ClientsBearTheSsidAndNameOfTheirVap) {
    add_vap("wlan0-va3", "guest", false);
    refresh();
    kernel.interface("wlan0-va0").stations = {{{0, 1, 2, 3, 4, 5}, {40, 0, 0, 0}},
                                              {{0, 1, 2, 3, 4, 6}, {40, 0, 0, 0}}};
    kernel.interface("wlan0-va3").stations = {{{0, 1, 2, 3, 4, 7}, {40, 0, 0, 0}}};
    EXPECT_THAT(clients("wlan0"),
                ElementsAre("00:01:02:03:04:05 home wlan0-va0", "00:01:02:03:04:06 home wlan0-va0",
                            "00:01:02:03:04:07 guest wlan0-va3"));
}

TEST_F(DriverStationTest, NoVapBeyondTheLastIsAsked) {
    const LogCapture fresh;
    clients("wlan0");
    driver().set_vexor_roam_attempt_timeout("wlan0", 5);
    EXPECT_EQ(fresh.count("error: "), 0);
}

TEST_F(DriverStationTest, ClientsOfAnEnterpriseVapAreMarked) {
    vaultd.set("/interface/wlan1-va0/vap/ap-security/mode", "WPA2_1X");
    refresh();
    kernel.interface("wlan1-va0").stations.resize(1);
    kernel.interface("wlan0-va0").stations.resize(1);
    std::vector<bool> marks;
    const auto note = [&](const rrm_sta_s& station) { marks.push_back(station.is_enterprise); };
    driver().get_assoclist("wlan0", note);
    driver().get_assoclist("wlan1", note);
    EXPECT_THAT(marks, ElementsAre(false, true));
}

TEST_F(DriverStationTest, ADisabledVapHasNoClients) {
    add_vap("wlan0-va3", "guest", false);
    vaultd.set("/interface/wlan0-va3/common/enabled", "false");
    refresh();
    kernel.interface("wlan0-va3").stations.resize(2);
    EXPECT_THAT(clients("wlan0"), IsEmpty());
    EXPECT_THAT(kernel.history(), ElementsAre("wlan0-va0 stations"));
}

TEST_F(DriverStationTest, AFailingVapDoesNotHideTheOthersClients) {
    add_vap("wlan0-va3", "guest", false);
    refresh();
    kernel.interface("wlan0-va3").stations.resize(1);
    const std::string flags = kernel.file("/sys/class/net/wlan0-va0/flags");
    kernel.remove_interface("wlan0-va0");  // gone since the context was read
    EXPECT_EQ(clients("wlan0").size(), 1U);
}

TEST_F(DriverStationTest, WithHostapdDownNobodyIsAsked) {
    driver().set_hostapd_initialized(false);
    EXPECT_THAT(clients("wlan0"), IsEmpty());
    EXPECT_EQ(driver().get_tx_power("wlan0"), 16);
    EXPECT_EQ(driver().send_bsstrans_request("wlan0-va0", "00:01:02:03:04:05", 0), 0);
    EXPECT_EQ(driver().set_vexor_roam_attempt_timeout("wlan0", 5), 0);
    EXPECT_FALSE(driver().get_status("wlan0"));
    EXPECT_THAT(kernel.calls(), IsEmpty());
    EXPECT_THAT(tools.lines(), IsEmpty());
}

TEST_F(DriverStationTest, WhileTheProcessStopsNobodyIsAsked) {
    run_flag = false;
    EXPECT_THAT(clients("wlan0"), IsEmpty());
    EXPECT_EQ(driver().get_tx_power("wlan0"), 16);
    EXPECT_EQ(driver().set_vexor_roam_attempt_timeout("wlan0", 5), 0);
    EXPECT_FALSE(driver().get_status("wlan0"));
    EXPECT_THAT(kernel.calls(), IsEmpty());
}

TEST_F(DriverStationTest, ADisabledRadioIsNotAsked) {
    kernel.put_file("/sys/class/net/wlan0/flags", "0x1002\n");
    refresh();
    kernel.interface("wlan0-va0").stations.resize(1);
    EXPECT_THAT(clients("wlan0"), IsEmpty());
    EXPECT_EQ(driver().send_bsstrans_request("wlan0-va0", "00:01:02:03:04:05", 0), 0);
    EXPECT_EQ(driver().set_vexor_roam_attempt_timeout("wlan0", 5), 0);
    EXPECT_THAT(kernel.calls(), IsEmpty());
}

TEST_F(DriverStationTest, NamesOfNoRadioAreHarmless) {
    for (const char* ifname : {static_cast<const char*>(nullptr), "", "eth0", "wlan9", "wlan-1"}) {
        EXPECT_THAT(clients(ifname), IsEmpty());
        EXPECT_EQ(driver().send_bsstrans_request(ifname, "00:01:02:03:04:05", 0), 0);
        EXPECT_EQ(driver().set_vexor_roam_attempt_timeout(ifname, 5), 0);
        EXPECT_EQ(driver().get_tx_power(ifname), 16);
        EXPECT_EQ(driver().get_obss_coex(ifname), 0);
        EXPECT_FALSE(driver().get_status(ifname));
    }
}

// --- moving clients ---

TEST_F(DriverStationTest, AsksAClientToMoveOnItsVap) {
    EXPECT_EQ(driver().send_bsstrans_request("wlan0-va0", "00:01:02:03:04:05", 9), 0);
    EXPECT_EQ(driver().send_bsstrans_request("wlan1-va0", "00:01:02:03:04:06", 9), 0);
    EXPECT_THAT(kernel.interface("wlan0-va0").asked_to_move,
                ElementsAre(FakeKernel::Mac{0, 1, 2, 3, 4, 5}));
    EXPECT_THAT(kernel.interface("wlan1-va0").asked_to_move,
                ElementsAre(FakeKernel::Mac{0, 1, 2, 3, 4, 6}));
}

TEST_F(DriverStationTest, AMalformedClientAddressSendsNothing) {
    EXPECT_EQ(driver().send_bsstrans_request("wlan0-va0", "00:01:02:03:04:0x", 0), 0);
    EXPECT_THAT(kernel.calls(), IsEmpty());
}

TEST_F(DriverStationTest, AClientThatTheDriverDoesNotKnowIsNoFailure) {
    kernel.fail(FakeKernel::RTL8192CD_BSSTRANS, ENOENT);
    EXPECT_EQ(driver().send_bsstrans_request("wlan0-va0", "00:01:02:03:04:05", 0), 0);
}

TEST_F(DriverStationTest, EveryEnabledVapGetsTheRoamAttemptTimeout) {
    add_vap("wlan0-va3", "guest", false);
    add_vap("wlan0-va4", "off", false);
    vaultd.set("/interface/wlan0-va4/common/enabled", "false");
    refresh();
    EXPECT_EQ(driver().set_vexor_roam_attempt_timeout("wlan0", 30), 0);
    EXPECT_THAT(kernel.history(), ElementsAre("wlan0-va0 set roam_attempt_timeout=30",
                                              "wlan0-va3 set roam_attempt_timeout=30"));
    EXPECT_EQ(driver().set_vexor_roam_attempt_timeout("wlan1", 30), 0);
    EXPECT_THAT(tools.lines(), ElementsAre("iwpriv wlan1-va0 set_mib roam_attempt_timeout=30"));
}

// --- interface state ---

TEST_F(DriverStationTest, ReadsThePowerInUse) {
    kernel.set_mib("wlan0", "actual_tx_power", 21);
    tools.set_mib("wlan1", "power_target", 23);
    EXPECT_EQ(driver().get_tx_power("wlan0"), 21);
    EXPECT_EQ(driver().get_tx_power("wlan1"), 23);
}

TEST_F(DriverStationTest, APowerThatCannotBeReadIs16) {
    EXPECT_EQ(driver().get_tx_power("wlan0"), 16);
    EXPECT_EQ(driver().get_tx_power("wlan1"), 16);
}

TEST_F(DriverStationTest, ReadsCoexistenceAlsoWithHostapdDown) {
    driver().set_hostapd_initialized(false);
    kernel.put_file("/proc/wlan0/mib_11n", "    coexist: 1\n");
    kernel.put_file("/proc/net/rtk_wifi6/wlan1/coex_2g_40m", "1\n");
    EXPECT_EQ(driver().get_obss_coex("wlan0"), 1);
    EXPECT_EQ(driver().get_obss_coex("wlan1"), 1);
    kernel.put_file("/proc/wlan0/mib_11n", "    coexist: 0\n");
    EXPECT_EQ(driver().get_obss_coex("wlan0"), 0);
}

TEST_F(DriverStationTest, AnInterfaceIsUpByTheLowestBitOfItsFlags) {
    const std::vector<std::pair<std::string, bool>> entries = {{"0x1003\n", true},
                                                               {"0x1002\n", false},
                                                               {"1003", true},
                                                               {"0xffffffff\n", false},
                                                               {"-1\n", false},
                                                               {"0x80000001\n", true},
                                                               {"up\n", false},
                                                               {"\n", false},
                                                               {"0x1003\n0x1002\n", true},
                                                               {"0x1000000001\n", false},
                                                               {"0xfffffffffffffffff1", false}};
    for (const auto& [flags, up] : entries) {
        kernel.put_file("/sys/class/net/wlan0/flags", flags);
        EXPECT_EQ(driver().interface_is_up("wlan0"), up) << flags;
        EXPECT_EQ(driver().get_status("wlan0"), up) << flags;
    }
    EXPECT_EQ(logged(R"(debug: <interface_is_up:\d+> /sys/class/net/wlan0/flags == 0x1002)"), 2);
}

TEST_F(DriverStationTest, FlagsThatAreNoNumberOf32BitsAreLoggedAsAllOnes) {
    for (const char* flags : {"up\n", "0x100000000\n"}) {
        const LogCapture fresh;
        kernel.put_file("/sys/class/net/wlan0/flags", flags);
        driver().interface_is_up("wlan0");
        EXPECT_TRUE(fresh.contains("/sys/class/net/wlan0/flags == 0xffffffff")) << flags;
    }
}

TEST_F(DriverStationTest, AFlagsEntryThatCannotBeReadIsOneLine) {
    const LogCapture fresh;
    driver().interface_is_up("wlan5");
    EXPECT_EQ(fresh.lines().size(), 1U);
    kernel.put_file("/sys/class/net/wlan0/flags", "");
    driver().interface_is_up("wlan0");
    EXPECT_EQ(fresh.lines().size(), 2U);
}

TEST_F(DriverStationTest, AMissingFlagsEntryMeansDown) {
    EXPECT_FALSE(driver().interface_is_up("wlan5"));
    EXPECT_EQ(logged(R"(error: <interface_is_up:\d+> cannot open entry from sysfs)"
                     R"(\(/sys/class/net/wlan5/flags\))"),
              1);
}

TEST_F(DriverStationTest, AnEmptyFlagsEntryMeansDown) {
    kernel.put_file("/sys/class/net/wlan0/flags", "");
    EXPECT_FALSE(driver().interface_is_up("wlan0"));
    EXPECT_EQ(logged(R"(error: <interface_is_up:\d+> cannot read entry from sysfs)"
                     R"(\(/sys/class/net/wlan0/flags\))"),
              1);
}

TEST_F(DriverStationTest, AnInterfaceNameNeverLeavesItsFolder) {
    kernel.put_file("/sys/class/flags", "0x1003");
    for (const std::string& ifname : unsafe_texts::interface_names())
        EXPECT_FALSE(driver().interface_is_up(ifname)) << ifname;
}

// --- events and client control ---

TEST_F(DriverStationTest, NoEventEverComes) {
    EXPECT_EQ(driver().process_driver_events([](const driver_event_desc&) { FAIL(); }), 0);
}

TEST_F(DriverStationTest, LookingForEventsWaits100Milliseconds) {
    const call_faults::SelectSpy spy{0};
    EXPECT_EQ(driver().process_driver_events({}), 0);
    EXPECT_EQ(spy.calls, 1);
    EXPECT_EQ(spy.descriptors, 0);
    EXPECT_FALSE(spy.has_sets);
    EXPECT_EQ(spy.limit.tv_sec, 0);
    EXPECT_EQ(spy.limit.tv_usec, 100000);
}

TEST_F(DriverStationTest, AWaitForEventsThatFailsIsTheResult) {
    const call_faults::SelectSpy spy{-1};
    EXPECT_EQ(driver().process_driver_events({}), -1);
}

TEST_F(DriverStationTest, ClientControlWithoutCounterpartHasNoEffect) {
    const LogCapture fresh;
    EXPECT_EQ(driver().block_sta("wlan0", "mac"), 0);
    EXPECT_EQ(driver().block_sta_data("wlan0", "mac"), 0);
    EXPECT_EQ(driver().unblock_sta("wlan0", "mac"), 0);
    EXPECT_EQ(driver().unblock_all_sta("wlan0"), 0);
    EXPECT_EQ(driver().set_vexor_sta_rssi_thr_high("wlan0", 1), 0);
    EXPECT_EQ(driver().set_vexor_sta_rssi_thr_low("wlan0", 1), 0);
    EXPECT_EQ(driver().probsup_find("wlan0", "mac"), 0);
    EXPECT_EQ(driver().probsup_rrm_max_age("wlan0", 1), 0);
    EXPECT_EQ(driver().probsup_rrm_client_try_no_balance("wlan0", 1), 0);
    EXPECT_EQ(driver().rssi_renew_interval("wlan0", 1), 0);
    EXPECT_EQ(driver().disassoc_sta("wlan0", "mac"), 0);
    EXPECT_THAT(
        fresh.lines(),
        ElementsAre(
            "debug: block_sta: not supported", "debug: block_sta_data: not supported",
            "debug: unblock_sta: not supported", "debug: unblock_all_sta: not supported",
            "debug: set_vexor_sta_rssi_thr_high: not supported",
            "debug: set_vexor_sta_rssi_thr_low: not supported",
            "debug: probsup_find: not supported", "debug: probsup_rrm_max_age: not supported",
            "debug: probsup_rrm_client_try_no_balance: not supported",
            "debug: rssi_renew_interval: not supported", "debug: disassoc_sta: not supported"));
    EXPECT_THAT(kernel.calls(), IsEmpty());
    EXPECT_THAT(tools.lines(), IsEmpty());
}

}  // namespace
