#include "hostapd_config.h"

#include <gmock/gmock.h>

#include "apd_support.h"

namespace apd {
namespace {

using testing::HasSubstr;
using testing::Not;

class ApdHostapdConfig : public testing::Test {
  protected:
    void put(const std::string& path, const std::string& value) {
        put_path(tree.get(), path, text_node(value));
    }
    // The file of an access point of the tree.
    [[nodiscard]] std::string file(std::size_t radio, std::size_t vap) {
        std::string reason;
        const std::optional<AccessPoint> all = read_access_point(tree.get(), reason);
        EXPECT_TRUE(all) << reason;
        if (!all)
            return "";
        const RadioConfig& config = *(*all)[radio];
        return '\n' + hostapd_config(config, config.vaps[vap], Mac{2, 0, 0, 0, 1, 0x51}, vap == 0,
                                     *kernel.ability(radio_name(static_cast<int>(radio))),
                                     {"/run/hostapd", "/run/apd/black-list"});
    }

    const Json tree = parse_json(kTwoRadios);
    FakeKernel kernel;
};

TEST_F(ApdHostapdConfig, NamesInterfaceChannelAndSsid) {
    const std::string text = file(0, 0);
    EXPECT_THAT(text, HasSubstr("\ninterface=wlan0-va0\n"));
    EXPECT_THAT(text, HasSubstr("\nctrl_interface=/run/hostapd\n"));
    EXPECT_THAT(text, HasSubstr("\ncountry_code=DE\n"));
    EXPECT_THAT(text, HasSubstr("\nhw_mode=g\nchannel=6\n"));
    EXPECT_THAT(text, HasSubstr("\nssid2=6f6666696365\n"));
    EXPECT_THAT(text, HasSubstr("\nwpa=2\nwpa_key_mgmt=WPA-PSK FT-PSK\n"));
    EXPECT_THAT(text, HasSubstr("\ndeny_mac_file=/run/apd/black-list\n"));
}

TEST_F(ApdHostapdConfig, GivesAnAddressToAllButTheFirst) {
    EXPECT_THAT(file(0, 0), Not(HasSubstr("bssid=")));
    EXPECT_THAT(file(0, 1), HasSubstr("\nbssid=02:00:00:00:01:51\n"));
}

TEST_F(ApdHostapdConfig, TellsThe80MhzOf5Ghz) {
    const std::string text = file(1, 0);
    EXPECT_THAT(text, HasSubstr("\nhw_mode=a\nieee80211h=1\nchannel=36\n"));
    EXPECT_THAT(text, HasSubstr("\nht_capab=[HT40+]\n"));
    EXPECT_THAT(text, HasSubstr("\nvht_oper_chwidth=1\nvht_oper_centr_freq_seg0_idx=42\n"));
}

TEST_F(ApdHostapdConfig, TellsTheSideOf40Mhz) {
    put("/interface/wlan0/wlan/radio/bandwidth", "40");
    put("/interface/wlan0/wlan/radio/control-sideband", "upper");
    EXPECT_THAT(file(0, 0), HasSubstr("\nht_capab=[HT40-]\n"));
    EXPECT_THAT(file(0, 0), Not(HasSubstr("vht")));
}

TEST_F(ApdHostapdConfig, LeavesTheChannelToHostapd) {
    put("/interface/wlan0/wlan/radio/auto-channel", "true");
    EXPECT_THAT(file(0, 0), HasSubstr("\nchannel=acs_survey\n"));
}

TEST_F(ApdHostapdConfig, HasTheKeyManagementOfEachMode) {
    const std::string mode = "/interface/wlan0-va0/vap/ap-security/mode";
    put(mode, "WPA3_SAE");
    EXPECT_THAT(file(0, 0), HasSubstr("\nwpa_key_mgmt=SAE FT-SAE\n"));
    EXPECT_THAT(file(0, 0), HasSubstr("\nieee80211w=2\n"));
    put(mode, "WPA2_WPA3_PSK");
    EXPECT_THAT(file(0, 0), HasSubstr("\nwpa_key_mgmt=WPA-PSK FT-PSK SAE FT-SAE\n"));
    EXPECT_THAT(file(0, 0), HasSubstr("\nieee80211w=1\n"));
    put(mode, "WPA_WPA2_PSK");
    EXPECT_THAT(file(0, 0), HasSubstr("\nwpa=3\nwpa_key_mgmt=WPA-PSK\n"));
    put(mode, "OPEN");
    EXPECT_THAT(file(0, 0), Not(HasSubstr("\nwpa")));
    put(mode, "WPA2_1X");
    put("/interface/wlan0-va0/vap/ap-security/radius-server", "192.0.2.1");
    put("/interface/wlan0-va0/vap/ap-security/radius-secret", "hush");
    EXPECT_THAT(file(0, 0), HasSubstr("\nwpa_key_mgmt=WPA-EAP FT-EAP\n"));
    EXPECT_THAT(file(0, 0), HasSubstr("\nauth_server_addr=192.0.2.1\nauth_server_port=1812\n"));
}

TEST_F(ApdHostapdConfig, TakesAnySsidWithoutAFurtherLine) {
    put("/interface/wlan0-va0/vap/ssid", "a\nchannel=1");
    EXPECT_THAT(file(0, 0), HasSubstr("\nssid2=610a6368616e6e656c3d31\n"));
}

TEST_F(ApdHostapdConfig, EndsWithTheOperatorsOwnLines) {
    put("/interface/wlan0-va0/vap/hostapd/dtim_period", "3");
    EXPECT_THAT(file(0, 0), testing::EndsWith("\ndtim_period=3\n"));
}

}  // namespace
}  // namespace apd
