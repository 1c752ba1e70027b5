#include "driver_fixture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* bssid = "00:1a:2b:3c:4d:5e";

class DriverNeighbourTest : public LiveDriverTest {};

TEST_F(DriverNeighbourTest, OffersANeighbourOfTheLowerBandToItsRadioAlone) {
    EXPECT_EQ(driver().set_rrm_nbr_ap_list(bssid, "home", 6, 77, 0), 0);
    EXPECT_THAT(kernel.writes(), ElementsAre(FakeKernel::Written{
                                     "/proc/wlan0-va0/rm_neighbor_report",
                                     "add 001a2b3c4d5e 0x0867 255 6 7 ssid \"home\" bssload 0 0"}));
    EXPECT_EQ(logged("debug: Execute rrm_nbr_add_nbr 'wlan0-va0' - 'home' - '00:1a:2b:3c:4d:5e'"),
              1);
    EXPECT_THAT(tools.lines(), IsEmpty());
}

TEST_F(DriverNeighbourTest, OffersANeighbourOfTheUpperBandToItsRadioAlone) {
    EXPECT_EQ(driver().set_rrm_nbr_ap_list(bssid, "home", 36, 77, 0), 0);
    EXPECT_THAT(kernel.writes(),
                ElementsAre(FakeKernel::Written{"/proc/net/rtk_wifi6/wlan1-va0/nb_report",
                                                "add 00:1a:2b:3c:4d:5e 1728577536 0 36 0 77"}));
    EXPECT_EQ(tools.lines().back(),
              "wpa_cli -g /var/run/hostapd/global raw IFNAME=wlan1-va0 SET_NEIGHBOR "
              "00:1a:2b:3c:4d:5e ssid=686f6d65 nr=001a2b3c4d5eaf590000ff24090603002400");
}

TEST_F(DriverNeighbourTest, UsesTheCustomListWhenAsked) {
    driver().set_rrm_nbr_ap_list(bssid, "home", 6, 0, 1);
    driver().set_rrm_nbr_ap_list(bssid, "home", 36, 0, 1);
    ASSERT_EQ(kernel.writes().size(), 2U);
    EXPECT_EQ(kernel.writes()[0].path, "/proc/wlan0-va0/rm_neighbor_report_custom");
    EXPECT_EQ(kernel.writes()[1].path, "/proc/net/rtk_wifi6/wlan1-va0/nb_report_custom");
}

TEST_F(DriverNeighbourTest, AnyNumberButZeroAsksForTheCustomList) {
    for (const int custom : {2, -1, 256}) {
        kernel.forget();
        driver().set_rrm_nbr_ap_list(bssid, "home", 6, 0, custom);
        driver().set_rrm_nbr_ap_list(bssid, "home", 36, 0, custom);
        ASSERT_EQ(kernel.writes().size(), 2U);
        EXPECT_EQ(kernel.writes()[0].path, "/proc/wlan0-va0/rm_neighbor_report_custom") << custom;
        EXPECT_EQ(kernel.writes()[1].path, "/proc/net/rtk_wifi6/wlan1-va0/nb_report_custom")
            << custom;
    }
}

TEST_F(DriverNeighbourTest, AsksTheSsidsOwnVapFor80211k) {
    add_vap("wlan0-va0", "home", false);
    add_vap("wlan0-va3", "guest", true);
    refresh();
    driver().set_rrm_nbr_ap_list(bssid, "home", 6, 0, 0);
    EXPECT_THAT(kernel.writes(), IsEmpty());
    driver().set_rrm_nbr_ap_list(bssid, "guest", 6, 0, 0);
    ASSERT_EQ(kernel.writes().size(), 1U);
    EXPECT_EQ(kernel.writes()[0].path, "/proc/wlan0-va3/rm_neighbor_report");
}

TEST_F(DriverNeighbourTest, OffersNothingToAVapWithout80211k) {
    vaultd.set("/interface/wlan1-va0/vap/w80211kv-config/enabled", "false");
    refresh();
    driver().set_rrm_nbr_ap_list(bssid, "home", 36, 0, 0);
    EXPECT_THAT(kernel.writes(), IsEmpty());
    EXPECT_EQ(log.count("Execute"), 0);
}

TEST_F(DriverNeighbourTest, OffersNothingForAnSsidOfNoVap) {
    driver().set_rrm_nbr_ap_list(bssid, "elsewhere", 36, 0, 0);
    driver().set_rrm_nbr_ap_list(bssid, "", 36, 0, 0);
    driver().set_rrm_nbr_ap_list(bssid, nullptr, 36, 0, 0);
    EXPECT_THAT(kernel.writes(), IsEmpty());
}

TEST_F(DriverNeighbourTest, AMalformedBssidAddsAndLogsNothing) {
    const LogCapture fresh;
    driver().set_rrm_nbr_ap_list("00:1a:2b:3c:4d:5x", "home", 36, 0, 0);
    driver().set_rrm_nbr_ap_list("00:1a:2b:3c:4d5e0", "home", 6, 0, 0);
    EXPECT_THAT(fresh.lines(), IsEmpty());
    EXPECT_THAT(kernel.writes(), IsEmpty());
    EXPECT_THAT(tools.lines(), IsEmpty());
}

TEST_F(DriverNeighbourTest, ANeighbourWithoutBssidOrSsidAddsAndLogsNothing) {
    const LogCapture fresh;
    EXPECT_EQ(driver().set_rrm_nbr_ap_list(nullptr, "home", 36, 0, 0), 0);
    EXPECT_EQ(driver().set_rrm_nbr_ap_list("00:1a:2b:3c:4d:5e", nullptr, 36, 0, 0), 0);
    EXPECT_THAT(fresh.lines(), IsEmpty());
}

TEST_F(DriverNeighbourTest, OffersANeighbourToTheRadiosThereAreWithoutAnErrorLine) {
    const LogCapture fresh;
    driver().set_rrm_nbr_ap_list("00:1a:2b:3c:4d:5e", "home", 6, 0, 0);
    EXPECT_EQ(fresh.count("error: "), 0);
}

TEST_F(DriverNeighbourTest, ALostNeighbourOfOneRadioDoesNotStopTheOther) {
    tools.set_mib("wlan1", "chanspec", 0x1000 | 11);  // both radios at 2.4 GHz
    refresh();
    std::filesystem::remove_all(kernel.root() + "/proc/wlan0-va0");
    EXPECT_EQ(driver().set_rrm_nbr_ap_list(bssid, "home", 6, 0, 0), 0);
    ASSERT_EQ(kernel.writes().size(), 1U);
    EXPECT_EQ(kernel.writes()[0].path, "/proc/net/rtk_wifi6/wlan1-va0/nb_report");
}

TEST_F(DriverNeighbourTest, ClearsEachList) {
    driver().clear_rrm_nbr_ap_list("wlan0-va0");
    driver().clear_vexor_nbr_ap_list("wlan0-va0");
    driver().clear_rrm_nbr_ap_list("wlan1-va0");
    driver().clear_vexor_nbr_ap_list("wlan1-va0");
    EXPECT_THAT(
        kernel.writes(),
        ElementsAre(
            FakeKernel::Written{"/proc/wlan0-va0/rm_neighbor_report", "delall"},
            FakeKernel::Written{"/proc/wlan0-va0/rm_neighbor_report_custom", "delall"},
            FakeKernel::Written{"/proc/net/rtk_wifi6/wlan1-va0/nb_report", "delall"},
            FakeKernel::Written{"/proc/net/rtk_wifi6/wlan1-va0/nb_report_custom", "delall"}));
    EXPECT_THAT(tools.lines(), ElementsAre("wpa_cli -g /var/run/hostapd/global raw "
                                           "IFNAME=wlan1-va0 REMOVE_ALL_NEIGHBOR"));
    EXPECT_EQ(logged("debug: Execute rrm_nbr_del_nbr 'wlan[01]-va0'"), 2);
    EXPECT_EQ(logged("debug: Execute vexor_rrm_nbr_del_nbr 'wlan[01]-va0'"), 2);
}

TEST_F(DriverNeighbourTest, ClearsTheListsAlsoWhileTheProcessStops) {
    run_flag = false;
    driver().clear_rrm_nbr_ap_list("wlan0-va0");
    driver().clear_vexor_nbr_ap_list("wlan0-va0");
    EXPECT_EQ(kernel.writes().size(), 2U);
    EXPECT_EQ(driver().set_rrm_nbr_ap_list(bssid, "home", 6, 0, 0), 0);
    EXPECT_EQ(kernel.writes().size(), 2U);
}

TEST_F(DriverNeighbourTest, WithHostapdDownNoListIsTouched) {
    driver().set_hostapd_initialized(false);
    EXPECT_EQ(driver().set_rrm_nbr_ap_list(bssid, "home", 6, 0, 0), 0);
    EXPECT_EQ(driver().clear_rrm_nbr_ap_list("wlan0-va0"), 0);
    EXPECT_EQ(driver().clear_vexor_nbr_ap_list("wlan0-va0"), 0);
    EXPECT_THAT(kernel.writes(), IsEmpty());
    EXPECT_EQ(log.count("Execute"), 0);
}

TEST_F(DriverNeighbourTest, ClearingNoInterfaceIsHarmless) {
    EXPECT_EQ(driver().clear_rrm_nbr_ap_list(nullptr), 0);
    EXPECT_EQ(driver().clear_vexor_nbr_ap_list(nullptr), 0);
    EXPECT_THAT(kernel.writes(), IsEmpty());
}

}  // namespace
