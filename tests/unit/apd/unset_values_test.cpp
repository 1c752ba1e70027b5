#include "unset_values.h"

#include <gtest/gtest.h>

#include "config_rules.h"

namespace apd {
namespace {

// Of a radio with these settings.
std::string radio_value(const std::string& settings, const std::string& name) {
    const Json tree =
        parse_json(R"({"interface": {"wlan1": {"wlan": {"radio": )" + settings + "}}}}");
    return scalar_text(unset_value(tree.get(), "/interface/wlan1/wlan/radio/" + name).get());
}

std::string value(const std::string& path) {
    return scalar_text(unset_value(nullptr, path).get());
}

TEST(ApdUnsetValues, AreFalseForWhatIsTrueOrFalse) {
    EXPECT_EQ(value("/orvanta/tpc"), "false");
    EXPECT_EQ(value("/interface/wlan0-wds7/common/enabled"), "false");
    EXPECT_EQ(value("/interface/wlan1-va6/vap/captive-portal/enabled"), "false");
    EXPECT_EQ(value("/interface/wlan0-va0/vap/ft-config/ft-psk-generate-local"), "true");
}

TEST(ApdUnsetValues, AreKnownByTheAgentsOtherNames) {
    EXPECT_EQ(value("/interface/wlan0-vap2/vap/ft-config/enabled"), "false");
    EXPECT_EQ(value("/interface/wlan0-vap2/vap/ap-security/mode"), "OPEN");
}

TEST(ApdUnsetValues, AreWhatHostapdIsTold) {
    EXPECT_EQ(radio_value("{}", "bandwidth"), "20");
    EXPECT_EQ(radio_value(R"({"channel": "6"})", "control-sideband"), "lower");
    EXPECT_EQ(radio_value(R"({"channel": 36, "bandwidth": 40})", "control-sideband"), "lower");
    EXPECT_EQ(radio_value(R"({"channel": 40, "bandwidth": 40})", "control-sideband"), "upper");
}

TEST(ApdUnsetValues, LeaveLeastPowerBelowMost) {
    EXPECT_EQ(radio_value("{}", "tx-power-min"), "11");
    EXPECT_EQ(radio_value("{}", "tx-power-max"), "16");
    EXPECT_EQ(radio_value(R"({"tx-power-max": "10"})", "tx-power-min"), "10");
    EXPECT_EQ(radio_value(R"({"tx-power-min": "18"})", "tx-power-max"), "18");
    EXPECT_EQ(radio_value(R"({"tx-power-max": "20"})", "tx-power-min"), "11");
}

TEST(ApdUnsetValues, HaveAnAntennaWithoutGain) {
    const Json antenna = unset_value(nullptr, "/interface/wlan0/wlan/radio/antenna-configuration");
    EXPECT_EQ(member_text(antenna.get(), "antenna-gain"), "0");
    EXPECT_EQ(member_text(antenna.get(), "cable-loss"), "0");
}

TEST(ApdUnsetValues, AreNoneWhereOnlyTheOperatorKnows) {
    for (const char* path : {"/interface/wlan0/wlan/radio/country", "/interface/wlan0-va0/vap/ssid",
                             "/interface/wlan0-va0/vap/ap-security/passphrase",
                             "/interface/wlan0/wlan/radio/channel", "/interface/wlan0/wlan/radio",
                             "/interface/wlan7/wlan/radio/bandwidth", "/nothing", "/", ""})
        EXPECT_EQ(unset_value(nullptr, path), nullptr) << path;
}

// A default that would be refused could not be stored by hand.
TEST(ApdUnsetValues, CouldBeSet) {
    for (const KnownSetting& known : known_settings()) {
        std::string path = known.path;
        for (const auto& [pattern, name] :
             {std::pair{"/R/", "/wlan0/"}, std::pair{"/V/", "/wlan0-va0/"},
              std::pair{"/W/", "/wlan0-wds0/"}})
            if (const std::size_t at = path.find(pattern); at != std::string::npos)
                path.replace(at, std::string_view{pattern}.size(), name);
        const Json value = unset_value(nullptr, path);
        EXPECT_TRUE(!value || why_refused(path, value.get()).empty()) << path;
    }
}

}  // namespace
}  // namespace apd
