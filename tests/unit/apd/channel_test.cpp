#include "channel.h"

#include <gmock/gmock.h>

namespace apd {
namespace {

using testing::HasSubstr;

std::optional<Channel> completed(Channel channel) {
    std::string reason;
    return complete(channel, reason);
}

std::string refusal(Channel channel) {
    std::string reason;
    EXPECT_FALSE(complete(channel, reason));
    return reason;
}

TEST(ApdChannel, HasTheSidebandThat5GhzPrescribes) {
    EXPECT_EQ(completed({36, 40})->sideband, Sideband::kLower);
    EXPECT_EQ(completed({40, 40})->sideband, Sideband::kUpper);
    EXPECT_EQ(completed({157, 40})->sideband, Sideband::kLower);
    EXPECT_THAT(refusal({36, 40, Sideband::kUpper}), HasSubstr("the lower half"));
}

TEST(ApdChannel, LeavesTheSidebandOpenAt24Ghz) {
    EXPECT_EQ(completed({6, 40, Sideband::kUpper})->sideband, Sideband::kUpper);
    EXPECT_EQ(completed({6, 40, Sideband::kLower})->sideband, Sideband::kLower);
    EXPECT_EQ(completed({1, 40})->sideband, Sideband::kLower);
    EXPECT_EQ(completed({13, 40})->sideband, Sideband::kUpper);
    EXPECT_THAT(refusal({1, 40, Sideband::kUpper}), HasSubstr("upper half"));
}

TEST(ApdChannel, IsRefusedWhereThereIsNone) {
    EXPECT_THAT(refusal({6, 80}), HasSubstr("2.4 GHz"));
    EXPECT_THAT(refusal({37, 20}), HasSubstr("no channel 37"));
    EXPECT_THAT(refusal({0, 20}), HasSubstr("no channel 0"));
    EXPECT_THAT(refusal({-5, 20}), HasSubstr("no channel -5"));
    EXPECT_THAT(refusal({2147483647, 20}), HasSubstr("no channel 2147483647"));
    EXPECT_THAT(refusal({36, 30}), HasSubstr("none of 20, 40 and 80"));
}

TEST(ApdChannel, IsAnnouncedWithItsFrequencies) {
    EXPECT_EQ(switch_command({11, 20}, "ht"), "CHAN_SWITCH 5 2462 bandwidth=20 ht");
    EXPECT_EQ(switch_command(*completed({44, 80}), "ht vht"),
              "CHAN_SWITCH 5 5220 sec_channel_offset=1 center_freq1=5210 bandwidth=80 ht vht");
    EXPECT_EQ(switch_command(*completed({6, 40, Sideband::kUpper}), "ht"),
              "CHAN_SWITCH 5 2437 sec_channel_offset=-1 center_freq1=2427 bandwidth=40 ht");
}

TEST(ApdChannel, ComesBackFromItsFrequencies) {
    for (const Channel channel :
         {Channel{1, 20}, Channel{14, 20}, Channel{6, 40, Sideband::kUpper},
          Channel{40, 40, Sideband::kUpper}, Channel{64, 80}, Channel{149, 80}, Channel{165, 20}}) {
        const Frequencies at = frequencies_of(channel);
        EXPECT_EQ(channel_of(at.primary, channel.width, at.center), channel) << to_text(channel);
    }
    EXPECT_FALSE(channel_of(5955, 20, 5955));
    EXPECT_FALSE(channel_of(0, 20, 0));
    EXPECT_FALSE(channel_of(2438, 20, 2438));
}

}  // namespace
}  // namespace apd
