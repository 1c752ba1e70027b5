#include "driver_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A ready driver and short names for the places in the configuration store.
class DriverConfigTest : public DriverTest {
  protected:
    static std::string radio_path(const std::string& key, const std::string& ifname = "wlan0") {
        return "/interface/" + ifname + "/wlan/radio/" + key;
    }
    static std::string vap_path(const std::string& key) { return "/interface/wlan0-va2" + key; }

    driver_realtek& ready = ready_driver();
};

// ---- VAPs

TEST_F(DriverConfigTest, AnSsidIsCutTo129Characters) {
    vaultd.set(vap_path("/vap/ssid"), std::string(200, 's'));
    EXPECT_EQ(ready.get_ssid("wlan0-va2"), std::string(129, 's'));
}

TEST_F(DriverConfigTest, VapSwitchesAreOnForTheTextTrueAlone) {
    for (const char* value : {"true", "false", "True", "1", ""}) {
        const bool expected = std::string{value} == "true";
        vaultd.set(vap_path("/common/enabled"), value);
        vaultd.set(vap_path("/vap/w80211kv-config/enabled"), value);
        vaultd.set(vap_path("/vap/captive-portal/enabled"), value);
        EXPECT_EQ(ready.get_vap_enabled_state("wlan0-va2"), expected) << value;
        EXPECT_EQ(ready.get_802dot11k_vap("wlan0-va2"), expected) << value;
        EXPECT_EQ(ready.get_captive_portal_state("wlan0-va2"), expected) << value;
    }
}

TEST_F(DriverConfigTest, EnterpriseSecurityHas1xInItsMode) {
    vaultd.set(vap_path("/vap/ap-security/mode"), "WPA2_1X");
    EXPECT_TRUE(ready.get_enterprise_vap("wlan0-va2"));
    vaultd.set(vap_path("/vap/ap-security/mode"), "WPA2_PSK");
    EXPECT_FALSE(ready.get_enterprise_vap("wlan0-va2"));
}

TEST_F(DriverConfigTest, VapQuestionsWithoutAValueAreAnsweredOff) {
    EXPECT_EQ(ready.get_ssid("wlan0-va2"), "");
    EXPECT_FALSE(ready.get_vap_enabled_state("wlan0-va2"));
    EXPECT_FALSE(ready.get_802dot11k_vap("wlan0-va2"));
    EXPECT_FALSE(ready.get_enterprise_vap("wlan0-va2"));
    EXPECT_FALSE(ready.get_captive_portal_state("wlan0-va2"));
    EXPECT_FALSE(ready.is_wpa23_vap("wlan0-va2"));
    EXPECT_TRUE(log.contains("error: <getconf_vap:"));
    EXPECT_TRUE(log.contains("> cannot take  value of the wlan0-va2 interface"));
}

TEST_F(DriverConfigTest, VapQuestionsAreNotReadWithoutANameOrUnlessLive) {
    EXPECT_EQ(ready.get_ssid(""), "");
    EXPECT_FALSE(ready.get_vap_enabled_state(""));
    EXPECT_FALSE(ready.get_enterprise_vap(""));
    ready.set_hostapd_initialized(false);
    EXPECT_EQ(ready.get_ssid("wlan0-va2"), "");
    EXPECT_FALSE(ready.get_802dot11k_vap("wlan0-va2"));
    EXPECT_FALSE(ready.get_captive_portal_state("wlan0-va2"));
    EXPECT_FALSE(ready.get_enterprise_vap("wlan0-va2"));
    EXPECT_THAT(bus.requests(VAULTDMOD), IsEmpty());
}

TEST_F(DriverConfigTest, EveryReadIsLoggedWithItsPathAndValue) {
    vaultd.set(vap_path("/vap/ssid"), "lobby");
    vaultd.set(radio_path("eirp-max"), "30");
    ready.get_ssid("wlan0-va2");
    int min = 0;
    int max = 0;
    ready.get_min_max_eirp("wlan0", &min, &max);
    EXPECT_TRUE(log.contains("debug: <getconf_vap:"));
    EXPECT_TRUE(
        log.contains("> ifname == wlan0-va2 path == /interface/wlan0-va2/vap/ssid value lobby"));
    EXPECT_TRUE(log.contains("debug: <getconf_radio:"));
    EXPECT_TRUE(
        log.contains("> ifname == wlan0 path == /interface/wlan0/wlan/radio/eirp-max value 30"));
    EXPECT_TRUE(log.contains("error: <getconf_radio:"));
    EXPECT_TRUE(log.contains("> cannot take  value of the wlan0 interface"));
}

TEST_F(DriverConfigTest, MixedSecurityIsNotWpa2OrWpa3) {
    const std::map<std::string, bool> modes{
        {"WPA_WPA2_PSK", false}, {"WPA2_PSK", true}, {"WPA3_SAE", true}, {"OPEN", false},
        {"WPA_WPA3_SAE", false}, {"WPA_PSK", false}, {"WPA2", true},     {"WPA3", true}};
    for (const auto& [mode, expected] : modes) {
        vaultd.set(vap_path("/vap/ap-security/mode"), mode);
        EXPECT_EQ(ready.is_wpa23_vap("wlan0-va2"), expected) << mode;
    }
}

TEST_F(DriverConfigTest, FastTransitionNeedsTheSwitchAndWpa2OrWpa3OnAVapThatIsUp) {
    vaultd.set(vap_path("/vap/ft-config/enabled"), "true");
    vaultd.set(vap_path("/vap/ap-security/mode"), "WPA2_PSK");
    EXPECT_FALSE(ready.is_fbt_enabled(0, 2)) << "the VAP is down";
    EXPECT_THAT(bus.requests(VAULTDMOD), IsEmpty());
    add_vap("wlan0-va2", "lobby");
    ready.set_vapcontext();
    EXPECT_TRUE(ready.is_fbt_enabled(0, 2));
    vaultd.set(vap_path("/vap/ap-security/mode"), "WPA_WPA2_PSK");
    EXPECT_FALSE(ready.is_fbt_enabled(0, 2));
    vaultd.set(vap_path("/vap/ap-security/mode"), "WPA2_PSK");
    vaultd.set(vap_path("/vap/ft-config/enabled"), "false");
    EXPECT_FALSE(ready.is_fbt_enabled(0, 2));
    EXPECT_FALSE(ready.is_fbt_enabled(0, 9));
}

// ---- bandwidth and side

TEST_F(DriverConfigTest, BandwidthsReadAsChanspecBits) {
    const std::map<std::string, unsigned> widths{{"20", 0x1000}, {"40", 0x1800}, {"80", 0x2000}};
    for (const auto& [width, bits] : widths) {
        vaultd.set(radio_path("bandwidth"), width);
        EXPECT_EQ(ready.get_config_bandwidth("wlan0"), bits) << width;
    }
}

TEST_F(DriverConfigTest, AnotherBandwidthIsRefusedAndReadsAs20Mhz) {
    for (const char* width : {"160", "wide", "99999999999999999999"}) {
        vaultd.set(radio_path("bandwidth"), width);
        EXPECT_EQ(ready.get_config_bandwidth("wlan0"), 0x1000U) << width;
        EXPECT_TRUE(log.contains("> cannot handle bandwidth of the wlan0 interface(value == " +
                                 std::string{width} + ")"));
    }
    EXPECT_TRUE(log.contains("error: <get_config_bandwidth_cb:"));
}

TEST_F(DriverConfigTest, SidesReadAsSubBandBits) {
    vaultd.set(radio_path("control-sideband"), "upper");
    EXPECT_EQ(ready.get_config_primary("wlan0"), 0x100U);
    vaultd.set(radio_path("control-sideband"), "lower");
    EXPECT_EQ(ready.get_config_primary("wlan0"), 0U);
}

TEST_F(DriverConfigTest, AMissingOrUnknownSideReadsAsThe20MhzBits) {
    EXPECT_EQ(ready.get_config_primary("wlan0"), 0x1000U);
    vaultd.set(radio_path("control-sideband"), "middle");
    EXPECT_EQ(ready.get_config_primary("wlan0"), 0x1000U);
    EXPECT_TRUE(log.contains("error: <get_config_primary_cb:"));
    EXPECT_TRUE(
        log.contains("> cannot handle control sideband of the wlan0 interface(value == middle)"));
}

TEST_F(DriverConfigTest, BandwidthAndSideAreZeroUnlessLive) {
    run_flag = false;
    EXPECT_EQ(ready.get_config_bandwidth("wlan0"), 0U);
    EXPECT_EQ(ready.get_config_primary("wlan0"), 0U);
}

TEST_F(DriverConfigTest, ANameThatBelongsToNoRadioIsNotAskedFor) {
    EXPECT_EQ(ready.get_config_bandwidth("eth0"), 0x1000U);
    EXPECT_EQ(ready.get_config_bandwidth("wlan7"), 0x1000U);
    EXPECT_EQ(ready.get_config_bandwidth(nullptr), 0x1000U);
    EXPECT_THAT(bus.requests(VAULTDMOD), IsEmpty());
}

// ---- power, EIRP, antenna

struct range {
    int min = -1;
    int max = -1;
    bool operator==(const range&) const = default;
};

class PowerRangeTest : public DriverConfigTest {
  protected:
    range tx_power(rrm_band_t band, const char* ifname = "wlan0") const {
        range result;
        ready.get_min_max_tx_power(ifname, &result.min, &result.max, band);
        return result;
    }
    range eirp(const char* ifname) const {
        range result;
        ready.get_min_max_eirp(ifname, &result.min, &result.max);
        return result;
    }
};

TEST_F(PowerRangeTest, ThePowerRangeIsChosenByBandWhateverTheName) {
    vaultd.set(radio_path("tx-power-max", "wlan1"), "23");
    vaultd.set(radio_path("tx-power-min", "wlan1"), "-2");
    EXPECT_EQ(tx_power(BAND_5G, "wlan0"), (range{-2, 23}));
    EXPECT_EQ(tx_power(BAND_5G, nullptr), (range{-2, 23}));
    EXPECT_EQ(tx_power(BAND_2G, "wlan1"), (range{11, 16}));
    EXPECT_TRUE(log.contains("debug: <get_min_max_tx_power:"));
    EXPECT_TRUE(log.contains("> tx_power_min == -2 tx_power_max == 23"));
}

TEST_F(PowerRangeTest, HalfAPowerRangeIsNone) {
    vaultd.set(radio_path("tx-power-max"), "20");
    EXPECT_EQ(tx_power(BAND_2G), (range{11, 16}));
    vaultd.erase(radio_path("tx-power-max"));
    vaultd.set(radio_path("tx-power-min"), "5");
    EXPECT_EQ(tx_power(BAND_2G), (range{11, 16}));
}

TEST_F(PowerRangeTest, ThePowerRangeIsThatOfTheFirstRadioOfTheBand) {
    vaultd.set(radio_path("tx-power-max", "wlan0"), "20");
    vaultd.set(radio_path("tx-power-min", "wlan0"), "5");
    vaultd.set(radio_path("tx-power-max", "wlan1"), "23");
    vaultd.set(radio_path("tx-power-min", "wlan1"), "-2");
    tools.set_mib("wlan1", "chanspec", LWLIO_CHANSPEC_BW_20 | 11);
    ready.set_vapcontext();
    EXPECT_EQ(tx_power(BAND_2G, "wlan1"), (range{5, 20}));
    set_down("wlan0");
    ready.set_vapcontext();
    EXPECT_EQ(tx_power(BAND_2G, "wlan1"), (range{-2, 23}));
}

TEST_F(PowerRangeTest, ABandThatNoRadioWorksOnHasTheDefaultPowerRange) {
    EXPECT_EQ(tx_power(BAND_6G), (range{11, 16}));
    EXPECT_THAT(bus.requests(VAULTDMOD), IsEmpty());
    EXPECT_TRUE(log.contains("> tx_power_min == 11 tx_power_max == 16"));
}

TEST_F(PowerRangeTest, TheEirpRangeIsReadOfTheInterface) {
    vaultd.set(radio_path("eirp-max", "wlan1"), "30");
    vaultd.set(radio_path("eirp-min", "wlan1"), "10");
    EXPECT_EQ(eirp("wlan1"), (range{10, 30}));
    EXPECT_EQ(eirp("wlan0"), (range{0, 100}));
    EXPECT_TRUE(log.contains("debug: <get_min_max_eirp:"));
    EXPECT_TRUE(log.contains("> eirp_min == 10 eirp_max == 30"));
}

TEST_F(PowerRangeTest, HalfAnEirpRangeIsNone) {
    vaultd.set(radio_path("eirp-max"), "30");
    EXPECT_EQ(eirp("wlan0"), (range{0, 100}));
    vaultd.erase(radio_path("eirp-max"));
    vaultd.set(radio_path("eirp-min"), "10");
    EXPECT_EQ(eirp("wlan0"), (range{0, 100}));
}

TEST_F(PowerRangeTest, RangesAreTheDefaultsUnlessLive) {
    ready.set_hostapd_initialized(false);
    EXPECT_EQ(tx_power(BAND_2G), (range{11, 16}));
    EXPECT_EQ(eirp("wlan0"), (range{0, 100}));
    EXPECT_THAT(bus.requests(VAULTDMOD), IsEmpty());
}

TEST_F(PowerRangeTest, NullPointersAreAnErrorLine) {
    int value = 77;
    ready.get_min_max_tx_power("wlan0", nullptr, &value, BAND_2G);
    ready.get_min_max_tx_power("wlan0", &value, nullptr, BAND_2G);
    ready.get_min_max_eirp("wlan0", nullptr, &value);
    ready.get_min_max_eirp("wlan0", &value, nullptr);
    EXPECT_EQ(value, 77);
    EXPECT_EQ(log.count("> no pointer to tx_power_min or tx_power_max"), 2);
    EXPECT_EQ(log.count("> no pointer to eirp_min or eirp_max"), 2);
}

class AntennaTest : public DriverConfigTest {
  protected:
    // Gain and loss in dB, as one text.
    std::string antenna(const char* ifname) const {
        const std::optional<antenna_config_t> found = ready.get_antenna_description(ifname);
        return found ? std::to_string(found->ant_gain) + "/" + std::to_string(found->cable_loss)
                     : "none";
    }
};

TEST_F(AntennaTest, AFixedAntennaHasItsGainAndNoLoss) {
    EXPECT_EQ(antenna("wlan0"), "3/0");
    EXPECT_THAT(bus.requests(VAULTDMOD), IsEmpty());
    EXPECT_TRUE(log.contains("debug: <get_antenna_description:"));
    EXPECT_TRUE(log.contains("> ant_type == fixed ant_gain == 3 cable_loss == 0"));
}

TEST_F(AntennaTest, AConfiguredAntennasTenthsAreTruncatedTowardZero) {
    vaultd.set_json(radio_path("antenna-configuration", "wlan1"),
                    R"({"name": "custom", "antenna-gain": 25, "cable-loss": -15})");
    EXPECT_EQ(antenna("wlan1"), "2/-1");
    EXPECT_TRUE(log.contains("> ant_type == configurable ant_gain == 2 cable_loss == -1"));
}

TEST_F(AntennaTest, AConfiguredAntennaMayBeAKnownOne) {
    platform.write("antennas.json",
                   R"({"antennas": [{"name": "dish", "antenna-gain": 120, "cable-loss": 19}]})");
    vaultd.set(radio_path("antenna-configuration", "wlan1"), R"({"name": "dish"})");
    EXPECT_EQ(antenna("wlan1"), "12/1");
}

TEST_F(AntennaTest, AConfigurationWithoutANameIsACustomOne) {
    platform.write("antennas.json",
                   R"({"antennas": [{"name": "", "antenna-gain": 120, "cable-loss": 19}]})");
    vaultd.set(radio_path("antenna-configuration", "wlan1"),
               R"({"antenna-gain": 47, "cable-loss": 29})");
    EXPECT_EQ(antenna("wlan1"), "4/2");
}

TEST_F(AntennaTest, WithoutAConfigurationTheFiguresAreZero) {
    EXPECT_EQ(antenna("wlan1"), "0/0");
    vaultd.set(radio_path("antenna-configuration", "wlan1"), "no tree");
    EXPECT_EQ(antenna("wlan1"), "0/0");
}

TEST_F(AntennaTest, ARadioWithoutAntennaDataHasZeroFigures) {
    platform.radios(R"({"ifname": "wlan0", "driver": "g6", "bands": ["2.4GHz"],
                        "antenna-gain": {"type": "none", "value": 5}})");
    EXPECT_EQ(antenna("wlan0"), "0/0");
    EXPECT_TRUE(log.contains("> ant_type == configurable ant_gain == 0 cable_loss == 0"));
}

TEST_F(AntennaTest, ARadioThatIsNotDescribedHasNoAntenna) {
    EXPECT_EQ(antenna("wlan4"), "none");
    EXPECT_TRUE(log.contains("error: <get_antenna_description:"));
    EXPECT_TRUE(log.contains("> no radio description"));
}

TEST_F(AntennaTest, ThereIsNoAnswerUnlessLive) {
    run_flag = false;
    EXPECT_EQ(antenna("wlan0"), "none");
}

// ---- WIDS

TEST_F(DriverConfigTest, TheWidsRadioIsANumberAllOfThemOrUnknown) {
    EXPECT_EQ(ready.get_config_wids_interface(), -1);
    vaultd.set("/wids/scan-interface", "wlan1");
    EXPECT_EQ(ready.get_config_wids_interface(), 1);
    vaultd.set("/wids/scan-interface", "all");
    EXPECT_EQ(ready.get_config_wids_interface(), 2);
    vaultd.set("/wids/scan-interface", "eth0");
    EXPECT_EQ(ready.get_config_wids_interface(), -1);
    EXPECT_TRUE(log.contains("debug: getconf '/wids/scan-interface'"));
}

}  // namespace
