#include "access_point.h"

#include <gmock/gmock.h>

#include "apd_support.h"

namespace apd {
namespace {

using testing::HasSubstr;

class ApdAccessPoint : public testing::Test {
  protected:
    void put(const std::string& path, const std::string& value) {
        put_path(tree.get(), path, text_node(value));
    }
    [[nodiscard]] std::string refusal() const {
        std::string reason;
        EXPECT_FALSE(read_access_point(tree.get(), reason));
        return reason;
    }
    [[nodiscard]] AccessPoint read() const {
        std::string reason;
        const std::optional<AccessPoint> result = read_access_point(tree.get(), reason);
        EXPECT_TRUE(result) << reason;
        return result.value_or(AccessPoint{});
    }

    const Json tree = parse_json(kTwoRadios);
};

TEST_F(ApdAccessPoint, HasTheEnabledAccessPointsOfEachRadio) {
    const AccessPoint all = read();
    ASSERT_TRUE(all[0] && all[1]);
    ASSERT_EQ(all[0]->vaps.size(), 2U);
    EXPECT_EQ(all[0]->vaps[1].id, (VapId{0, 2}));
    EXPECT_EQ(all[0]->vaps[1].ssid, "guests");
    EXPECT_EQ(all[1]->channel, (Channel{36, 80}));
    EXPECT_TRUE(all[1]->five_ghz);
}

TEST_F(ApdAccessPoint, LeavesOutARadioWithoutOne) {
    put("/interface/wlan1-va0/common/enabled", "false");
    EXPECT_FALSE(read()[1]);
}

TEST_F(ApdAccessPoint, HasFastTransitionWithWpa2AndWpa3Alone) {
    EXPECT_TRUE(read()[0]->vaps[0].ft.enabled);
    put("/interface/wlan0-va0/vap/ap-security/mode", "WPA_WPA2_PSK");
    EXPECT_FALSE(read()[0]->vaps[0].ft.enabled);
    put("/interface/wlan0-va2/vap/ft-config/enabled", "true");
    EXPECT_FALSE(read()[0]->vaps[1].ft.enabled);
}

TEST_F(ApdAccessPoint, SaysWhatIsMissingAndWhere) {
    put_path(tree.get(), "/interface/wlan1/wlan/radio/channel", nullptr);
    EXPECT_THAT(refusal(), HasSubstr("/interface/wlan1/wlan/radio: channel is missing"));
    put("/interface/wlan1/wlan/radio/auto-channel", "true");
    EXPECT_THAT(refusal(), HasSubstr("band is missing"));
    put("/interface/wlan1/wlan/radio/band", "5GHz");
    EXPECT_TRUE(read()[1]->auto_channel);
    put("/interface/wlan0-va0/vap/ap-security/mode", "WPA2_1X");
    EXPECT_THAT(refusal(), HasSubstr("/interface/wlan0-va0: ap-security/radius-server"));
}

TEST_F(ApdAccessPoint, SaysWhatIsAtOdds) {
    put("/interface/wlan0/wlan/radio/bandwidth", "80");
    EXPECT_THAT(refusal(), HasSubstr("no 80 MHz at 2.4 GHz"));
    put("/interface/wlan0/wlan/radio/bandwidth", "20");
    put("/interface/wlan0/wlan/radio/band", "5GHz");
    EXPECT_THAT(refusal(), HasSubstr("channel 6 is not at 5GHz"));
    put("/interface/wlan0/wlan/radio/band", "2.4GHz");
    put("/interface/wlan0/wlan/radio/tx-power", "20");
    put("/interface/wlan0/wlan/radio/tx-power-max", "17");
    EXPECT_THAT(refusal(), HasSubstr("outside tx-power-min and tx-power-max"));
}

}  // namespace
}  // namespace apd
