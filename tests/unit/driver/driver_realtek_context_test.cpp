#include <pthread.h>

#include <csignal>

#include "driver_fixture.h"
#include "json_writer.h"
#include "text.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StrEq;

using DriverContextTest = DriverTest;

// ---- construction

TEST_F(DriverContextTest, RadiosAndVapsBearTheirNamesFromTheStart) {
    EXPECT_EQ(driver().get_max_radios(), 2);
    EXPECT_EQ(driver().get_max_vap(), 7);
    EXPECT_EQ(driver().get_radio(0)->ifname, "wlan0");
    EXPECT_EQ(driver().get_radio(1)->ifname, "wlan1");
    EXPECT_EQ(driver().get_radio(1)->get_vap(6)->ifname, "wlan1-va6");
    EXPECT_EQ(driver().get_mac_offset(0), 0);
    EXPECT_EQ(driver().get_mac_offset(1), 8);
    EXPECT_EQ(driver().get_radio_mac_count(1), 8);
}

TEST_F(DriverContextTest, FactoryDataIsTakenOver) {
    EXPECT_STREQ(driver().get_factory().board, "AP-7");
    EXPECT_STREQ(driver().get_factory().hw, "rev-b");
    EXPECT_STREQ(driver().get_factory().serial, "S123");
    EXPECT_STREQ(driver().get_mac(), "00:11:22:33:44:50");
}

TEST_F(DriverContextTest, LongFactoryTextsAreCutAndTerminated) {
    platform.write("factory.json", R"({"serial": ")" + std::string(50, 's') + R"("})");
    EXPECT_EQ(driver().get_factory().serial, std::string(31, 's'));
}

TEST_F(DriverContextTest, EveryFactoryTextHasAtMost31CharactersAndANul) {
    for (const std::size_t length : {31U, 32U, 33U}) {
        platform.write("factory.json", R"({"board": ")" + std::string(length, 'b') +
                                           R"(", "hw": ")" + std::string(length, 'h') +
                                           R"(", "serial": ")" + std::string(length, 's') +
                                           R"(", "mac": ")" + std::string(length, 'm') + R"("})");
        const driver_realtek fresh{run_flag};
        const lumd_factory_t& data = fresh.get_factory();
        const auto whole = [](const char(&field)[32]) { return std::string(field, sizeof field); };
        const auto full = [](char c) { return std::string(31, c) + '\0'; };
        EXPECT_EQ(whole(data.board), full('b')) << length;
        EXPECT_EQ(whole(data.hw), full('h')) << length;
        EXPECT_EQ(whole(data.serial), full('s')) << length;
        EXPECT_EQ(whole(data.mac), full('m')) << length;
    }
}

TEST_F(DriverContextTest, VapMacsCountFromTheBaseMac) {
    EXPECT_EQ(driver().get_radio(0)->get_vap(0)->mac, "00:11:22:33:44:51");
    EXPECT_EQ(driver().get_radio(1)->get_vap(6)->mac, "00:11:22:33:44:5f");
}

TEST_F(DriverContextTest, VapMacsWrapInTheLastByteWithoutCarry) {
    platform.write("factory.json", R"({"mac": "00:11:22:33:44:fa"})");
    EXPECT_EQ(driver().get_radio(0)->get_vap(5)->mac, "00:11:22:33:44:00");
    EXPECT_EQ(driver().get_radio(1)->get_vap(0)->mac, "00:11:22:33:44:03");
}

TEST_F(DriverContextTest, WithoutFactoryDataVapMacsCountFromZero) {
    platform.remove("factory.json");
    EXPECT_EQ(driver().get_radio(0)->get_vap(0)->mac, "00:00:00:00:00:01");
    EXPECT_STREQ(driver().get_mac(), "");
    EXPECT_STREQ(driver().get_factory().board, "");
}

TEST_F(DriverContextTest, AFreshContextHasItsDefaults) {
    EXPECT_EQ(driver().get_tx_power_max(0), 16);
    EXPECT_EQ(driver().get_tx_power_min(0), 11);
    EXPECT_EQ(driver().get_eirp_max(0), 100);
    EXPECT_EQ(driver().get_eirp_min(0), 0);
    EXPECT_EQ(driver().get_config_spec(0), 0U);
    EXPECT_EQ(driver().get_antenna_configuration(0)->ant_gain, 0);
    EXPECT_EQ(driver().get_radio(0)->band, BAND_NONE);
    EXPECT_FALSE(driver().is_hostapd_initialized());
    EXPECT_FALSE(driver().is_guardd_sentry_mode());
    EXPECT_FALSE(driver().is_in_progress());
}

TEST_F(DriverContextTest, ARadioThatNobodyHasReadIsDownAndHasNothing) {
    const interface_context fresh;
    EXPECT_FALSE(fresh.status || fresh.wds_status || fresh.wids_status || fresh.coex_status ||
                 fresh.auto_channel);
    EXPECT_EQ(fresh.mac_offset, 0);
    EXPECT_EQ(fresh.radio_mac_count, 0);
    EXPECT_EQ(fresh.config_spec, 0U);
    EXPECT_EQ(fresh.antenna_config.ant_gain, 0);
    EXPECT_EQ(fresh.antenna_config.cable_loss, 0);
}

TEST_F(DriverContextTest, AVapThatNobodyHasReadIsDownAndHasNothing) {
    const vap_context fresh;
    EXPECT_FALSE(fresh.cp_vap || fresh.status || fresh.enterprise_vap || fresh.rrm_vap);
    EXPECT_EQ(fresh.ifname + fresh.mac + fresh.ssid, "");
}

// ---- numbers and names

TEST_F(DriverContextTest, NumbersOutOfRangeGiveNothingAndAnErrorLine) {
    EXPECT_EQ(driver().get_radio(2), nullptr);
    EXPECT_EQ(driver().get_radio(-1), nullptr);
    EXPECT_EQ(driver().get_radio(0)->get_vap(7), nullptr);
    EXPECT_EQ(driver().get_radio(0)->get_vap(-1), nullptr);
    EXPECT_TRUE(log.contains("error: <get_radio:"));
    EXPECT_TRUE(log.contains("> radio_id 2 are absence: "));
    EXPECT_TRUE(log.contains("> radio_id -1 are absence: "));
    EXPECT_TRUE(log.contains("error: <get_vap:"));
    EXPECT_TRUE(log.contains("> vap_id 7 are absence: "));
    EXPECT_TRUE(log.contains("> vap_id -1 are absence: "));
}

TEST_F(DriverContextTest, RadioNumbersAreReadWithoutARangeCheck) {
    EXPECT_EQ(driver().get_radio_id("wlan7"), 7);
    EXPECT_EQ(driver().get_radio_id("wlan1-va3"), 1);
    EXPECT_EQ(driver().get_radio_id("wlan1a"), 1);
    for (const char* name : {"", "wlan", "eth0", "wlanx", "wlan99999999999999999999", "0", "xlan0"})
        EXPECT_EQ(driver().get_radio_id(name), -1) << name;
}

TEST_F(DriverContextTest, ARadioIsFoundByItsOwnAndItsVapsNames) {
    EXPECT_EQ(driver().radio_by_ifname("wlan0"), driver().get_radio(0));
    EXPECT_EQ(driver().radio_by_ifname("wlan1-va3"), driver().get_radio(1));
    EXPECT_EQ(driver().radio_by_ifname("eth0"), nullptr);
    EXPECT_FALSE(log.contains("are absence"));
    EXPECT_EQ(driver().radio_by_ifname("wlan7"), nullptr);
    EXPECT_TRUE(log.contains("error: <radio_by_ifname:"));
    EXPECT_TRUE(log.contains("> radio_id 7 are absence: "));
}

TEST_F(DriverContextTest, AddRadioIdWritesTheRadioOfAVapName) {
    json_writer writer{"", "", "", ""};
    EXPECT_TRUE(driver().add_radio_id("wlan1-va3", &writer));
    EXPECT_STREQ(writer.serialize(), R"({"radio":1})");
}

TEST_F(DriverContextTest, AddRadioIdWritesNothingForAnyOtherName) {
    json_writer writer{"", "", "", ""};
    for (const char* name : {"wlan0", "wlan0-va", "wlan-va3", "eth0-va1", ""})
        EXPECT_FALSE(driver().add_radio_id(name, &writer)) << name;
    EXPECT_FALSE(driver().add_radio_id(nullptr, &writer));
    EXPECT_STREQ(writer.serialize(), "{}");
}

TEST_F(DriverContextTest, FillVapNameCutsLikeSnprintf) {
    char name[8];
    EXPECT_EQ(driver().fill_vap_name(1, 3, name, sizeof name), 9);
    EXPECT_STREQ(name, "wlan1-v");
    EXPECT_EQ(driver().fill_vap_name(1, 3, nullptr, 0), 9);
}

TEST_F(DriverContextTest, NullNamesAreNoCrash) {
    driver_realtek& ready = ready_driver();
    EXPECT_FALSE(ready.get_vap_status(nullptr, 0));
    EXPECT_EQ(ready.SsidToVap(nullptr, 0), nullptr);
    EXPECT_EQ(ready.SsidToVapId(nullptr, 0), -1);
    EXPECT_EQ(ready.get_ssidlist(nullptr, [](int, const char*, const char*, bool) {}), 0);
    EXPECT_FALSE(ready.get_wds_enabled(nullptr));
    EXPECT_EQ(ready.get_band_from_ifname(nullptr), BAND_2G);
    EXPECT_EQ(ready.get_ioctl_type(nullptr), RTL8192CD);
}

TEST_F(DriverContextTest, TheChipFamilyFollowsTheRadioOfTheInterface) {
    EXPECT_EQ(driver().get_ioctl_type("wlan0"), RTL8192CD);
    EXPECT_EQ(driver().get_ioctl_type("wlan1"), G6);
    EXPECT_EQ(driver().get_ioctl_type("wlan1-va3"), G6);
    EXPECT_EQ(driver().get_ioctl_type("wlan5"), RTL8192CD);
}

// ---- reading anew

TEST_F(DriverContextTest, AStoppingProcessReadsNothing) {
    driver().set_hostapd_initialized(true);
    run_flag = false;
    driver().set_vapcontext();
    EXPECT_THAT(bus.requests(VAULTDMOD), IsEmpty());
    EXPECT_FALSE(log.contains("Attempt to initialize"));
}

TEST_F(DriverContextTest, ARadioThatIsDownIsNotReadFurther) {
    set_down("wlan0");
    driver().set_hostapd_initialized(true);
    driver().set_vapcontext();
    EXPECT_THAT(vaultd.paths(), ElementsAre("/wids/enabled"));
    EXPECT_FALSE(driver().is_enabled(0));
    EXPECT_FALSE(driver().is_enabled(1));
    EXPECT_TRUE(log.contains("info: Attempt to initialize interface_context..."));
    EXPECT_TRUE(log.contains("info: Initializing wlan0 radio..."));
    EXPECT_TRUE(log.contains("info: Initializing wlan1 radio..."));
}

TEST_F(DriverContextTest, ReadsTwoRadiosInTheDocumentedOrder) {
    set_up("wlan0");
    set_up("wlan1");
    kernel.set_mib("wlan0", "chanspec", LWLIO_CHANSPEC_BW_20 | 6);
    tools.set_mib("wlan1", "chanspec", LWLIO_CHANSPEC_BW_20 | 36);
    vaultd.set("/wids/enabled", "true");
    vaultd.set("/wids/scan-mode", "sentry");
    vaultd.set("/wids/scan-interface", "wlan1");
    vaultd.set("/interface/wlan0/wlan/wds/enabled", "true");
    vaultd.set("/interface/wlan0-wds1/common/enabled", "true");
    vaultd.set("/interface/wlan1/wlan/radio/bandwidth", "80");
    add_vap("wlan0-va2", "lobby");
    driver().set_hostapd_initialized(true);
    driver().set_vapcontext();
    EXPECT_THAT(
        vaultd.paths(),
        ElementsAre(
            "/wids/enabled", "/wids/scan-mode", "/wids/scan-interface",
            // wlan0: the antenna gain is fixed, the configuration is not asked
            "/interface/wlan0/wlan/wds/enabled", "/interface/wlan0-wds0/common/enabled",
            "/interface/wlan0-wds1/common/enabled", "/interface/wlan0/wlan/radio/country",
            "/interface/wlan0/wlan/radio/auto-channel", "/interface/wlan0/wlan/radio/bandwidth",
            "/interface/wlan0/wlan/radio/control-sideband",
            "/interface/wlan0/wlan/radio/tx-power-max", "/interface/wlan0/wlan/radio/tx-power-min",
            "/interface/wlan0/wlan/radio/eirp-max", "/interface/wlan0/wlan/radio/eirp-min",
            "/interface/wlan0-va2/common/enabled", "/interface/wlan0-va2/vap/ssid",
            "/interface/wlan0-va2/vap/captive-portal/enabled",
            "/interface/wlan0-va2/vap/ap-security/mode",
            "/interface/wlan0-va2/vap/w80211kv-config/enabled",
            // wlan1 scans for WIDS: no VAP is read
            "/interface/wlan1/wlan/wds/enabled", "/interface/wlan1/wlan/radio/country",
            "/interface/wlan1/wlan/radio/auto-channel", "/interface/wlan1/wlan/radio/bandwidth",
            "/interface/wlan1/wlan/radio/tx-power-max", "/interface/wlan1/wlan/radio/tx-power-min",
            "/interface/wlan1/wlan/radio/eirp-max", "/interface/wlan1/wlan/radio/eirp-min",
            "/interface/wlan1/wlan/radio/antenna-configuration"));
}

TEST_F(DriverContextTest, KeepsWhatItHasReadOfARadio) {
    vaultd.set("/interface/wlan1/wlan/radio/country", "FI");
    vaultd.set("/interface/wlan1/wlan/radio/auto-channel", "true");
    vaultd.set("/interface/wlan1/wlan/radio/tx-power-max", "20");
    vaultd.set("/interface/wlan1/wlan/radio/tx-power-min", "5");
    vaultd.set("/interface/wlan1/wlan/radio/eirp-max", "30");
    vaultd.set("/interface/wlan1/wlan/radio/eirp-min", "7");
    kernel.put_file("/proc/net/rtk_wifi6/wlan1/coex_2g_40m", "1\n");
    driver_realtek& ready = ready_driver();
    EXPECT_TRUE(ready.is_enabled(1));
    EXPECT_TRUE(ready.is_band(0, BAND_2G));
    EXPECT_TRUE(ready.is_band(1, BAND_5G));
    EXPECT_FALSE(ready.is_band(1, BAND_2G));
    EXPECT_EQ(ready.get_radio(1)->country, "FI");
    EXPECT_EQ(ready.get_radio(0)->country, "RU");
    EXPECT_TRUE(ready.is_auto_channel(1));
    EXPECT_FALSE(ready.is_auto_channel(0));
    EXPECT_TRUE(ready.is_obss_coex(1));
    EXPECT_FALSE(ready.is_obss_coex(0));
    EXPECT_EQ(ready.get_tx_power_max(1), 20);
    EXPECT_EQ(ready.get_tx_power_min(1), 5);
    EXPECT_EQ(ready.get_eirp_max(1), 30);
    EXPECT_EQ(ready.get_eirp_min(1), 7);
    EXPECT_EQ(ready.get_antenna_configuration(0)->ant_gain, 3);
}

TEST_F(DriverContextTest, TheConfiguredSideGoesWith20And40MhzButNotWith80) {
    const std::string radio = "/interface/wlan0/wlan/radio/";
    vaultd.set(radio + "control-sideband", "upper");
    vaultd.set(radio + "bandwidth", "80");
    driver_realtek& ready = ready_driver();
    EXPECT_EQ(ready.get_config_spec(0), 0x2000U);
    vaultd.set(radio + "bandwidth", "40");
    ready.set_vapcontext();
    EXPECT_EQ(ready.get_config_spec(0), 0x1900U);
    vaultd.set(radio + "bandwidth", "20");
    ready.set_vapcontext();
    EXPECT_EQ(ready.get_config_spec(0), 0x1100U);
}

TEST_F(DriverContextTest, WidsOnAllRadiosIsSentryModeAndReadsNoVap) {
    vaultd.set("/wids/enabled", "true");
    vaultd.set("/wids/scan-mode", "sentry");
    vaultd.set("/wids/scan-interface", "all");
    add_vap("wlan0-va0", "lobby");
    driver_realtek& ready = ready_driver();
    EXPECT_TRUE(ready.is_guardd_sentry_mode());
    EXPECT_TRUE(ready.is_wids_enabled(0));
    EXPECT_TRUE(ready.is_wids_enabled(1));
    EXPECT_FALSE(ready.is_vap_enabled(0, 0));
    EXPECT_FALSE(log.contains(" vap..."));
}

TEST_F(DriverContextTest, SentryModeEndsWithTheReadingThatFindsNone) {
    set_wids("all");
    driver_realtek& ready = ready_driver();
    ASSERT_TRUE(ready.is_guardd_sentry_mode());
    set_wids("wlan1");
    ready.set_vapcontext();
    EXPECT_FALSE(ready.is_guardd_sentry_mode());
    set_wids("all");
    ready.set_vapcontext();
    ASSERT_TRUE(ready.is_guardd_sentry_mode());
    vaultd.set("/wids/enabled", "false");
    ready.set_vapcontext();
    EXPECT_FALSE(ready.is_guardd_sentry_mode());
}

TEST_F(DriverContextTest, SentryModeOutlastsAClosedContextAndAReadingThatIsNotMade) {
    set_wids("all");
    driver_realtek& ready = ready_driver();
    ready.close_vapcontext();
    EXPECT_TRUE(ready.is_guardd_sentry_mode());
    vaultd.set("/wids/enabled", "false");
    run_flag = false;
    ready.set_vapcontext();
    EXPECT_TRUE(ready.is_guardd_sentry_mode());
}

TEST_F(DriverContextTest, AWidsRadioStaysOneUntilTheContextIsClosed) {
    vaultd.set("/wids/enabled", "true");
    vaultd.set("/wids/scan-mode", "sentry");
    vaultd.set("/wids/scan-interface", "wlan1");
    driver_realtek& ready = ready_driver();
    EXPECT_FALSE(ready.is_guardd_sentry_mode());
    vaultd.set("/wids/enabled", "false");
    ready.set_vapcontext();
    EXPECT_FALSE(ready.is_wids_enabled(0));
    EXPECT_TRUE(ready.is_wids_enabled(1));
    ready.close_vapcontext();
    ready.set_vapcontext();
    EXPECT_FALSE(ready.is_wids_enabled(1));
}

TEST_F(DriverContextTest, AVapIsReadWhenItIsUpAndSwitchedOn) {
    add_vap("wlan0-va2", "lobby");
    vaultd.set("/interface/wlan0-va2/vap/captive-portal/enabled", "true");
    vaultd.set("/interface/wlan0-va2/vap/ap-security/mode", "WPA2-1X");
    vaultd.set("/interface/wlan0-va2/vap/w80211kv-config/enabled", "true");
    driver_realtek& ready = ready_driver();
    const vap_context& vap = *ready.get_radio(0)->get_vap(2);
    EXPECT_TRUE(vap.status);
    EXPECT_EQ(vap.ssid, "lobby");
    EXPECT_TRUE(vap.cp_vap);
    EXPECT_TRUE(vap.enterprise_vap);
    EXPECT_TRUE(ready.is_802dot11k(0, 2));
    EXPECT_TRUE(ready.has_enabled_vaps(0));
    EXPECT_FALSE(ready.has_enabled_vaps(1));
    EXPECT_TRUE(log.contains("info: Initializing wlan0-va2 vap..."));
}

TEST_F(DriverContextTest, AVapWithoutInterfaceIsLeftAsItWas) {
    add_vap("wlan0-va2", "lobby");
    driver_realtek& ready = ready_driver();
    kernel.remove_interface("wlan0-va2");
    ready.set_vapcontext();
    EXPECT_TRUE(ready.is_vap_enabled(0, 2));
    EXPECT_TRUE(log.contains("debug: <is_if_exists:"));
    EXPECT_TRUE(log.contains("> wlan0-va2 interface not exists"));
}

TEST_F(DriverContextTest, AVapSwitchedOffInTheConfigurationCountsAsDown) {
    set_up("wlan0-va2");
    vaultd.set("/interface/wlan0-va2/common/enabled", "false");
    vaultd.set("/interface/wlan0-va2/vap/ssid", "lobby");
    driver_realtek& ready = ready_driver();
    EXPECT_FALSE(ready.is_vap_enabled(0, 2));
    EXPECT_TRUE(ready.get_vap_status("wlan0-va2"));
    EXPECT_EQ(ready.VapIdToSsid(2, 0), nullptr);
}

TEST_F(DriverContextTest, AVapThatWentDownKeepsItsLastSsid) {
    add_vap("wlan0-va2", "lobby");
    driver_realtek& ready = ready_driver();
    set_down("wlan0-va2");
    ready.set_vapcontext();
    EXPECT_FALSE(ready.is_vap_enabled(0, 2));
    EXPECT_EQ(ready.SsidToVapId("lobby", 0), 2);
    EXPECT_STREQ(ready.SsidToVap("lobby", 0), "wlan0-va2");
    ready.close_vapcontext();
    ready.set_vapcontext();
    EXPECT_EQ(ready.SsidToVapId("lobby", 0), -1);
}

TEST_F(DriverContextTest, ClosingForgetsAllButNamesMacsAndCountry) {
    vaultd.set("/interface/wlan0/wlan/radio/country", "FI");
    vaultd.set("/interface/wlan0/wlan/radio/tx-power-max", "20");
    vaultd.set("/interface/wlan0/wlan/radio/tx-power-min", "5");
    vaultd.set("/interface/wlan0/wlan/radio/auto-channel", "true");
    add_vap("wlan0-va2", "lobby");
    driver_realtek& ready = ready_driver();
    ready.close_vapcontext();
    const interface_context& radio = *ready.get_radio(0);
    EXPECT_FALSE(ready.is_enabled(0));
    EXPECT_FALSE(ready.is_auto_channel(0));
    EXPECT_EQ(ready.get_tx_power_max(0), 16);
    EXPECT_EQ(ready.get_tx_power_min(0), 11);
    EXPECT_EQ(ready.get_config_spec(0), 0U);
    EXPECT_EQ(ready.get_antenna_configuration(0)->ant_gain, 0);
    EXPECT_EQ(radio.band, BAND_NONE);
    EXPECT_EQ(radio.vap[2].ssid, "");
    EXPECT_FALSE(radio.vap[2].status);
    EXPECT_EQ(radio.ifname, "wlan0");
    EXPECT_EQ(radio.country, "FI");
    EXPECT_EQ(radio.vap[2].mac, "00:11:22:33:44:53");
    EXPECT_EQ(ready.get_mac_offset(1), 8);
}

TEST_F(DriverContextTest, ClosingSetsBackEveryFieldOfEveryRadioAndVapButWhatNamesThem) {
    driver();
    for (const int number : {0, 1}) {
        interface_context& radio = *driver().get_radio(number);
        radio.status = radio.wds_status = radio.wids_status = true;
        radio.coex_status = radio.auto_channel = true;
        radio.country = "FI";
        radio.tx_power_max = 1;
        radio.tx_power_min = 2;
        radio.eirp_max = 3;
        radio.eirp_min = 4;
        radio.antenna_config = {5, 6};
        radio.config_spec = 7;
        radio.band = BAND_5G;
        for (vap_context& vap : radio.vap) {
            vap.ssid = "lobby";
            vap.cp_vap = vap.status = vap.enterprise_vap = vap.rrm_vap = true;
        }
    }
    driver().close_vapcontext();
    for (const int number : {0, 1}) {
        const interface_context& radio = *driver().get_radio(number);
        EXPECT_FALSE(radio.status || radio.wds_status || radio.wids_status);
        EXPECT_FALSE(radio.coex_status || radio.auto_channel);
        EXPECT_EQ(radio.tx_power_max, 16);
        EXPECT_EQ(radio.tx_power_min, 11);
        EXPECT_EQ(radio.eirp_max, 100);
        EXPECT_EQ(radio.eirp_min, 0);
        EXPECT_EQ(radio.antenna_config.ant_gain, 0);
        EXPECT_EQ(radio.antenna_config.cable_loss, 0);
        EXPECT_EQ(radio.config_spec, 0U);
        EXPECT_EQ(radio.band, BAND_NONE);
        EXPECT_EQ(radio.ifname, "wlan" + std::to_string(number));
        EXPECT_EQ(radio.country, "FI");
        EXPECT_EQ(radio.mac_offset, 8 * number);
        EXPECT_EQ(radio.radio_mac_count, 8);
        for (const vap_context& vap : radio.vap) {
            EXPECT_EQ(vap.ssid, "");
            EXPECT_FALSE(vap.cp_vap || vap.status || vap.enterprise_vap || vap.rrm_vap);
            EXPECT_THAT(vap.ifname, testing::StartsWith(radio.ifname + "-va"));
            EXPECT_THAT(vap.mac, testing::StartsWith("00:11:22:33:44:5"));
        }
    }
}

TEST_F(DriverContextTest, WdsNeedsTheSwitchAndALink) {
    vaultd.set("/interface/wlan0-wds7/common/enabled", "true");
    EXPECT_FALSE(driver().get_wds_enabled("wlan0"));
    EXPECT_THAT(vaultd.paths(), ElementsAre("/interface/wlan0/wlan/wds/enabled"));
    vaultd.set("/interface/wlan0/wlan/wds/enabled", "true");
    EXPECT_TRUE(driver().get_wds_enabled("wlan0"));
    EXPECT_THAT(vaultd.paths(), SizeIs(1 + 1 + 8));
    EXPECT_TRUE(log.contains("debug: getconf '/interface/wlan0-wds7/common/enabled'"));
}

// ---- questions

TEST_F(DriverContextTest, EveryQuestionIsAnsweredWithNothingWhileHostapdIsDown) {
    add_vap("wlan0-va2", "lobby");
    driver_realtek& ready = ready_driver();
    ASSERT_STREQ(ready.VapIdToMac(2, 0), "00:11:22:33:44:53");
    ready.set_hostapd_initialized(false);
    EXPECT_FALSE(ready.is_enabled(0));
    EXPECT_FALSE(ready.is_wds_enabled(0));
    EXPECT_FALSE(ready.is_wids_enabled(0));
    EXPECT_FALSE(ready.has_enabled_vaps(0));
    EXPECT_FALSE(ready.is_vap_enabled(0, 2));
    EXPECT_FALSE(ready.is_802dot11k(0, 2));
    EXPECT_FALSE(ready.is_band(0, BAND_2G));
    EXPECT_FALSE(ready.get_vap_status("wlan0-va2"));
    EXPECT_FALSE(ready.get_vap_status("wlan0", 2));
    EXPECT_EQ(ready.VapIdToMac(2, 0), nullptr);
    EXPECT_EQ(ready.VapIdToSsid(2, 0), nullptr);
    EXPECT_EQ(ready.VapIdToVap(2, 0), nullptr);
    EXPECT_EQ(ready.SsidToVap("lobby", 0), nullptr);
    EXPECT_EQ(ready.SsidToVapId("lobby", 0), -1);
}

TEST_F(DriverContextTest, TheSameHoldsOnceTheRunFlagIsClear) {
    add_vap("wlan0-va2", "lobby");
    driver_realtek& ready = ready_driver();
    run_flag = false;
    EXPECT_FALSE(ready.is_enabled(0));
    EXPECT_EQ(ready.VapIdToMac(2, 0), nullptr);
    EXPECT_FALSE(ready.get_vap_status("wlan0-va2"));
}

TEST_F(DriverContextTest, OfARadioThatWentDownNeitherBandNorVapsAreTold) {
    add_vap("wlan0-va2", "lobby", true);
    driver_realtek& ready = ready_driver();
    ASSERT_TRUE(ready.is_802dot11k(0, 2));
    set_down("wlan0");
    ready.set_vapcontext();
    EXPECT_FALSE(ready.is_enabled(0));
    EXPECT_EQ(ready.get_radio(0)->band, BAND_2G);
    EXPECT_FALSE(ready.is_band(0, BAND_2G));
    EXPECT_FALSE(ready.is_802dot11k(0, 2));
    EXPECT_EQ(ready.VapIdToVap(2, 0), nullptr);
    EXPECT_EQ(ready.VapIdToSsid(2, 0), nullptr);
    EXPECT_EQ(ready.VapIdToMac(2, 0), nullptr);
    EXPECT_EQ(ready.SsidToVap("lobby", 0), nullptr);
    EXPECT_EQ(ready.SsidToVapId("lobby", 0), -1);
    ready.get_ssidlist("wlan0", [](int, const char*, const char*, bool) { FAIL(); });
}

TEST_F(DriverContextTest, OfARadioThatWentDownTheLastFlagsAndFiguresAreTold) {
    add_vap("wlan0-va2", "lobby");
    set_wds("wlan0");
    vaultd.set("/interface/wlan0/wlan/radio/auto-channel", "true");
    vaultd.set("/interface/wlan0/wlan/radio/bandwidth", "80");
    kernel.put_file("/proc/wlan0/mib_11n", "coexist: 1\n");
    driver_realtek& ready = ready_driver();
    set_wids("wlan0");
    ready.set_vapcontext();
    set_down("wlan0");
    ready.set_vapcontext();
    EXPECT_FALSE(ready.is_enabled(0));
    EXPECT_TRUE(ready.is_wds_enabled(0));
    EXPECT_TRUE(ready.is_wids_enabled(0));
    EXPECT_TRUE(ready.has_enabled_vaps(0));
    EXPECT_TRUE(ready.is_vap_enabled(0, 2));
    EXPECT_TRUE(ready.is_obss_coex(0));
    EXPECT_TRUE(ready.is_auto_channel(0));
    EXPECT_EQ(ready.get_config_spec(0), 0x2000U);
    EXPECT_EQ(ready.get_antenna_configuration(0)->ant_gain, 3);
}

TEST_F(DriverContextTest, FlagsAndFiguresOfARadioAreToldWithHostapdDownToo) {
    vaultd.set("/interface/wlan0/wlan/radio/auto-channel", "true");
    vaultd.set("/interface/wlan0/wlan/radio/bandwidth", "80");
    kernel.put_file("/proc/wlan0/mib_11n", "coexist: 1\n");
    driver_realtek& ready = ready_driver();
    ready.set_hostapd_initialized(false);
    EXPECT_TRUE(ready.is_obss_coex(0));
    EXPECT_TRUE(ready.is_auto_channel(0));
    EXPECT_EQ(ready.get_config_spec(0), 0x2000U);
    EXPECT_EQ(ready.get_antenna_configuration(0)->ant_gain, 3);
    EXPECT_EQ(ready.get_mac_offset(1), 8);
    EXPECT_EQ(ready.get_radio_mac_count(1), 8);
}

TEST_F(DriverContextTest, VapsAreFoundByNumberAndBySsid) {
    add_vap("wlan1-va1", "lobby");
    add_vap("wlan1-va4", "lobby");
    driver_realtek& ready = ready_driver();
    EXPECT_STREQ(ready.VapIdToVap(4, 1), "wlan1-va4");
    EXPECT_STREQ(ready.VapIdToSsid(4, 1), "lobby");
    EXPECT_STREQ(ready.VapIdToMac(4, 1), "00:11:22:33:44:5d");
    EXPECT_STREQ(ready.VapIdToVap(0, 1), "wlan1-va0");
    EXPECT_EQ(ready.VapIdToSsid(0, 1), nullptr);
    EXPECT_EQ(ready.VapIdToMac(0, 1), nullptr);
    EXPECT_EQ(ready.SsidToVapId("lobby", 1), 1);
    EXPECT_STREQ(ready.SsidToVap("lobby", 1), "wlan1-va1");
    EXPECT_EQ(ready.SsidToVapId("lobby", 0), -1);
    EXPECT_EQ(ready.SsidToVapId("", 1), -1);
    EXPECT_TRUE(ready.get_vap_status("wlan1", 4));
    EXPECT_FALSE(ready.get_vap_status("wlan1", 0));
}

TEST_F(DriverContextTest, BadNumbersGetTheListedAnswers) {
    driver_realtek& ready = ready_driver();
    for (const int radio : {-1, 2, 1000}) {
        EXPECT_FALSE(ready.is_enabled(radio));
        EXPECT_FALSE(ready.has_enabled_vaps(radio));
        EXPECT_FALSE(ready.is_vap_enabled(radio, 0));
        EXPECT_FALSE(ready.is_band(radio, BAND_2G));
        EXPECT_FALSE(ready.is_obss_coex(radio));
        EXPECT_FALSE(ready.is_auto_channel(radio));
        EXPECT_EQ(ready.get_config_spec(radio), 0U);
        EXPECT_EQ(ready.get_tx_power_max(radio), 16);
        EXPECT_EQ(ready.get_tx_power_min(radio), 11);
        EXPECT_EQ(ready.get_eirp_max(radio), 100);
        EXPECT_EQ(ready.get_eirp_min(radio), 0);
        EXPECT_FALSE(ready.get_antenna_configuration(radio).has_value());
        EXPECT_EQ(ready.get_mac_offset(radio), 0);
        EXPECT_EQ(ready.get_radio_mac_count(radio), 0);
        EXPECT_EQ(ready.VapIdToVap(0, radio), nullptr);
        EXPECT_EQ(ready.SsidToVapId("lobby", radio), -1);
    }
    for (const unsigned vap : {7U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(ready.VapIdToVap(vap, 0), nullptr);
        EXPECT_EQ(ready.VapIdToSsid(vap, 0), nullptr);
        EXPECT_EQ(ready.VapIdToMac(vap, 0), nullptr);
    }
    EXPECT_FALSE(ready.is_vap_enabled(0, 7));
    EXPECT_FALSE(ready.is_802dot11k(0, -1));
    EXPECT_FALSE(ready.get_vap_status("wlan0", 7));
    EXPECT_FALSE(ready.get_vap_status("wlan9", 0));
}

TEST_F(DriverContextTest, TheSsidListNamesTheVapsThatAreUp) {
    add_vap("wlan0-va1", "lobby");
    add_vap("wlan0-va6", "office");
    vaultd.set("/interface/wlan0-va6/vap/w80211kv-config/enabled", "true");
    driver_realtek& ready = ready_driver();
    std::vector<std::string> seen;
    const auto note = [&](int vap, const char* ssid, const char* mac, bool dot11k) {
        seen.push_back(std::to_string(vap) + " " + ssid + " " + mac + (dot11k ? " k" : ""));
    };
    EXPECT_EQ(ready.get_ssidlist("wlan0", note), 0);
    EXPECT_THAT(seen, ElementsAre("1 lobby 00:11:22:33:44:52", "6 office 00:11:22:33:44:57 k"));
    seen.clear();
    EXPECT_EQ(ready.get_ssidlist("wlan1", note), 0);
    EXPECT_EQ(ready.get_ssidlist("wlan9", note), 0);
    ready.set_hostapd_initialized(false);
    EXPECT_EQ(ready.get_ssidlist("wlan0", note), 0);
    EXPECT_THAT(seen, IsEmpty());
}

TEST_F(DriverContextTest, TheSsidListBeginsWithTheFirstVapAndAsksForNoneBeyondTheLast) {
    add_vap("wlan0-va0", "home");
    driver_realtek& ready = ready_driver();
    std::vector<int> seen;
    ready.get_ssidlist("wlan0",
                       [&](int vap, const char*, const char*, bool) { seen.push_back(vap); });
    EXPECT_THAT(seen, ElementsAre(0));
    EXPECT_EQ(log.count("are absence"), 0);
}

TEST_F(DriverContextTest, TheMacOfAVapBeyondTheLastIsNoErrorLine) {
    driver_realtek& ready = ready_driver();
    const LogCapture fresh;
    EXPECT_EQ(ready.VapIdToMac(7, 0), nullptr);
    EXPECT_EQ(ready.VapIdToMac(0xFFFFFFFF, 0), nullptr);
    EXPECT_THAT(fresh.lines(), IsEmpty());
}

TEST_F(DriverContextTest, ReadingTheContextLeavesNoDescriptorOpen) {
    add_vap("wlan0-va0", "home");
    driver_realtek& ready = ready_driver();
    const auto open_files = [] {
        const std::filesystem::directory_iterator all{"/proc/self/fd"};
        return std::distance(begin(all), end(all));
    };
    const auto before = open_files();
    for (int i = 0; i < 5; ++i)
        ready.set_vapcontext();
    EXPECT_EQ(open_files(), before);
}

TEST_F(DriverContextTest, TheBandOfAnInterfaceFollowsItsChanspec) {
    driver_realtek& ready = ready_driver();
    EXPECT_EQ(ready.get_band_from_ifname("wlan0"), 2);
    EXPECT_EQ(ready.get_band_from_ifname("wlan1"), 5);
}

// ---- life

TEST_F(DriverContextTest, InitDoesNothingWhileHostapdIsDown) {
    driver().init();
    EXPECT_FALSE(log.contains("unblock_all_sta"));
}

TEST_F(DriverContextTest, InitUnblocksTheStationsOfEveryDescribedRadio) {
    driver().set_hostapd_initialized(true);
    driver().init();
    EXPECT_EQ(log.count("unblock_all_sta: not supported"), 2);
}

TEST_F(DriverContextTest, InitEndsBothKindsOfScanTheActiveOneFirst) {
    driver().set_hostapd_initialized(true);
    driver().init();
    std::vector<std::string> stops;
    for (const std::string& line : log.lines())
        if (contains(line, "Attempt to stop"))
            stops.push_back(line);
    EXPECT_THAT(stops, ElementsAre("info: Attempt to stop active scanning...",
                                   "info: Attempt to stop RRM scanning..."));
}

TEST_F(DriverContextTest, ThereIsOneDriverPerProcess) {
    volatile bool other_flag = false;
    EXPECT_EXIT(
        {
            driver_interface& first = make_driver(run_flag);
            first.set_hostapd_initialized(true);
            driver_interface& second = make_driver(other_flag);
            second.set_vapcontext();
            std::_Exit(&first == &second && log.contains("Attempt to initialize") ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

volatile bool process_runs = true;
void stop_process(int) {
    process_runs = false;
}

TEST_F(DriverContextTest, ASignalWhileTheContextIsReadStartsNoFurtherRead) {
    process_runs = true;
    set_up("wlan0");
    set_up("wlan1");
    driver_realtek stoppable{process_runs};
    stoppable.set_hostapd_initialized(true);
    std::signal(SIGUSR1, stop_process);
    vaultd.on_request([worker = pthread_self()](const std::string& path) {
        if (path == "/interface/wlan0/wlan/radio/country")
            pthread_kill(worker, SIGUSR1);
    });
    stoppable.set_vapcontext();
    std::signal(SIGUSR1, SIG_DFL);
    EXPECT_THAT(vaultd.paths(), ElementsAre("/wids/enabled", "/interface/wlan0/wlan/wds/enabled",
                                            "/interface/wlan0/wlan/radio/country"));
}

}  // namespace
