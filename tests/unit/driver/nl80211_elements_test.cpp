#include "platform-specific/nl80211_elements.h"

#include <gmock/gmock.h>

#include <numeric>
#include <vector>

#include "driver_interface.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr int kHeardOn = 36;

Bytes element(std::uint8_t id, const Bytes& content) {
    Bytes result{id, static_cast<std::uint8_t>(content.size())};
    result.insert(result.end(), content.begin(), content.end());
    return result;
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// HT Operation with a primary channel and a secondary channel offset.
Bytes ht(std::uint8_t primary, std::uint8_t offset) {
    Bytes content(22);
    content[0] = primary;
    content[1] = offset;
    return element(61, content);
}

Bytes vht(std::uint8_t width, std::uint8_t first, std::uint8_t second) {
    return element(192, {width, first, second, 0, 0});
}

// HE Operation with parameters, and what they announce.
Bytes he(std::uint32_t parameters, const Bytes& parts) {
    return element(255, Bytes{36, static_cast<std::uint8_t>(parameters),
                              static_cast<std::uint8_t>(parameters >> 8),
                              static_cast<std::uint8_t>(parameters >> 16), 0, 0, 0} +
                            parts);
}

constexpr std::uint32_t kHeHasVht = 1U << 14;
constexpr std::uint32_t kHeHasCoHosted = 1U << 15;
constexpr std::uint32_t kHeHas6GHz = 1U << 17;

bss_channel channel_of(const Bytes& elements) {
    return bss_elements::parse(elements, kHeardOn).channel;
}

std::optional<int> power_of(const Bytes& elements) {
    return bss_elements::parse(elements, kHeardOn).tx_power;
}

TEST(BssElements, WithoutElementsTheChannelIsTheOneHeardOn) {
    EXPECT_EQ(channel_of({}), (bss_channel{kHeardOn, 20, 0}));
    EXPECT_EQ(power_of({}), std::nullopt);
}

TEST(BssElements, TheDsssParameterSetNamesTheChannel) {
    EXPECT_EQ(channel_of(element(3, {11})), (bss_channel{11, 20, 0}));
}

TEST(BssElements, HtTellsTheSecondaryChannelAboveOrBelow) {
    EXPECT_EQ(channel_of(ht(6, 0)), (bss_channel{6, 20, 0}));
    EXPECT_EQ(channel_of(ht(6, 1)), (bss_channel{6, 40, LWLIO_CHANSPEC_CTL_SB_LOWER}));
    EXPECT_EQ(channel_of(ht(11, 3)), (bss_channel{11, 40, LWLIO_CHANSPEC_CTL_SB_UPPER}));
}

TEST(BssElements, VhtTells80MHzAndThePrimaryChannelsPlace) {
    EXPECT_EQ(channel_of(ht(36, 1) + vht(1, 42, 0)), (bss_channel{36, 80, 0}));
    EXPECT_EQ(channel_of(ht(40, 3) + vht(1, 42, 0)), (bss_channel{40, 80, 0x100}));
    EXPECT_EQ(channel_of(ht(44, 1) + vht(1, 42, 0)), (bss_channel{44, 80, 0x200}));
    EXPECT_EQ(channel_of(ht(48, 3) + vht(1, 42, 0)), (bss_channel{48, 80, 0x300}));
}

TEST(BssElements, VhtOfWidthZeroLeavesTheWidthToHt) {
    EXPECT_EQ(channel_of(ht(36, 1) + vht(0, 0, 0)), (bss_channel{36, 40, 0}));
}

TEST(BssElements, Vht160MHzIsToldInTwoWays) {
    EXPECT_EQ(channel_of(ht(44, 1) + vht(2, 50, 0)), (bss_channel{44, 160, 0x200}));
    EXPECT_EQ(channel_of(ht(44, 1) + vht(1, 42, 50)), (bss_channel{44, 160, 0x200}));
    EXPECT_EQ(channel_of(ht(60, 1) + vht(1, 58, 50)), (bss_channel{60, 160, 0x600}));
}

TEST(BssElements, Of80And80MHzTheHalfWithThePrimaryChannelCounts) {
    EXPECT_EQ(channel_of(ht(36, 1) + vht(1, 42, 155)), (bss_channel{36, 80, 0}));
    EXPECT_EQ(channel_of(ht(36, 1) + vht(3, 42, 155)), (bss_channel{36, 80, 0}));
}

TEST(BssElements, APrimaryChannelOutsideOfTheWideOneIs20MHz) {
    EXPECT_EQ(channel_of(ht(52, 1) + vht(1, 42, 0)), (bss_channel{52, 20, 0}));
    EXPECT_EQ(channel_of(ht(37, 1) + vht(1, 42, 0)), (bss_channel{37, 20, 0}));
}

TEST(BssElements, HeRepeatsTheVhtWidth) {
    EXPECT_EQ(channel_of(ht(48, 3) + he(kHeHasVht, {1, 42, 0})), (bss_channel{48, 80, 0x300}));
    EXPECT_EQ(channel_of(ht(48, 3) + he(0, {}) + vht(1, 42, 0)), (bss_channel{48, 80, 0x300}));
}

TEST(BssElements, He6GHzInformationNamesTheChannel) {
    const Bytes place = {37, 2, 39, 0, 0};
    EXPECT_EQ(channel_of(he(kHeHas6GHz, place)), (bss_channel{37, 80, 0x100}));
    EXPECT_EQ(channel_of(he(kHeHasCoHosted | kHeHas6GHz, Bytes{9} + place)),
              (bss_channel{37, 80, 0x100}));
    EXPECT_EQ(channel_of(he(kHeHas6GHz, {1, 3, 7, 15, 0})), (bss_channel{1, 160, 0}));
    EXPECT_EQ(channel_of(he(kHeHas6GHz, {1, 0, 1, 0, 0})), (bss_channel{1, 20, 0}));
    EXPECT_EQ(channel_of(he(kHeHas6GHz, {5, 1, 3, 0, 0})), (bss_channel{5, 40, 0x100}));
    EXPECT_EQ(channel_of(he(kHeHas6GHz, {37, 2, 39, 47, 0})), (bss_channel{37, 80, 0x100}));
}

TEST(BssElements, He6GHzInformationTells160MHzInTwoWaysAndTheHalfOf80And80) {
    EXPECT_EQ(channel_of(he(kHeHas6GHz, {17, 3, 15, 0, 0})), (bss_channel{17, 160, 0x400}));
    EXPECT_EQ(channel_of(he(kHeHas6GHz, {17, 3, 23, 15, 0})), (bss_channel{17, 160, 0x400}));
    EXPECT_EQ(channel_of(he(kHeHas6GHz, {1, 3, 7, 71, 0})), (bss_channel{1, 80, 0}));
}

TEST(BssElements, HePartsThatAreNotAnnouncedAreNotRead) {
    EXPECT_EQ(channel_of(ht(48, 3) + he(1, {1, 42, 0, 0, 0})), (bss_channel{48, 40, 0x100}));
    EXPECT_EQ(channel_of(ht(48, 3) + he(kHeHasVht | 1, {1, 42, 0, 37, 2, 39, 0, 0})),
              (bss_channel{48, 80, 0x300}));
    EXPECT_EQ(channel_of(he(kHeHas6GHz | 1, {37, 2, 39, 0, 0})), (bss_channel{37, 80, 0x100}));
}

TEST(BssElements, OtherExtensionsAreNotHe) {
    EXPECT_EQ(channel_of(ht(48, 3) + element(255, {35, 0, 0x40, 0, 0, 0, 0, 1, 42, 0})),
              (bss_channel{48, 40, 0x100}));
    EXPECT_EQ(channel_of(element(255, {}) + element(3, {11})), (bss_channel{11, 20, 0}));
}

TEST(BssElements, VhtOfAnUnknownWidthLeavesTheWidthToHt) {
    EXPECT_EQ(channel_of(ht(36, 1) + vht(4, 42, 0)), (bss_channel{36, 40, 0}));
}

TEST(BssElements, VhtOf80MHzNeedsASecondCentreNextToItsOwnFor160) {
    EXPECT_EQ(channel_of(ht(2, 1) + vht(1, 8, 0)), (bss_channel{2, 80, 0})) << "none is no centre";
    EXPECT_EQ(channel_of(ht(36, 1) + vht(3, 42, 50)), (bss_channel{36, 80, 0}));
}

TEST(BssElements, HePartsThatAreAnnouncedButMissingAreLeftOut) {
    EXPECT_EQ(channel_of(ht(36, 1) + he(kHeHasVht | kHeHas6GHz, {1, 42})),
              (bss_channel{36, 40, 0}));
}

TEST(BssElements, ATruncatedElementEndsTheList) {
    const Bytes cut = element(3, {11}) + Bytes{61, 22, 1};
    EXPECT_EQ(channel_of(cut), (bss_channel{11, 20, 0}));
    EXPECT_EQ(channel_of(Bytes{3, 200, 11}), (bss_channel{kHeardOn, 20, 0}));
}

TEST(BssElements, AnElementThatIsTooShortDoesNotCount) {
    EXPECT_EQ(channel_of(element(61, {6, 1})), (bss_channel{kHeardOn, 20, 0}));
    EXPECT_EQ(power_of(element(35, {20})), std::nullopt);
    EXPECT_EQ(power_of(element(7, {'D'}) + element(7, {'D', 'E', ' ', 36, 4, 23})), 23);
}

TEST(BssElements, TheTpcReportIsTheTransmitPower) {
    EXPECT_EQ(power_of(element(35, {17, 0})), 17);
    EXPECT_EQ(power_of(element(35, {0xFE, 0})), -2);
    EXPECT_EQ(power_of(element(7, {'D', 'E', ' ', 36, 4, 23}) + element(35, {17, 0})), 17);
}

TEST(BssElements, ACountryLimitsThePowerLessTheConstraint) {
    const Bytes country = element(7, {'D', 'E', ' ', 36, 4, 23, 52, 4, 20});
    EXPECT_EQ(power_of(ht(48, 0) + country), 23);
    EXPECT_EQ(power_of(ht(52, 0) + country), 20);
    EXPECT_EQ(power_of(ht(48, 0) + country + element(32, {3})), 20);
    EXPECT_EQ(power_of(ht(100, 0) + country), std::nullopt);
    EXPECT_EQ(power_of(ht(13, 0) + element(7, {'D', 'E', ' ', 201, 1, 0, 1, 13, 20})), 20);
    EXPECT_EQ(power_of(ht(13, 0) + element(7, {'D', 'E', ' ', 1, 12, 20})), std::nullopt);
    EXPECT_EQ(power_of(ht(14, 0) + element(7, {'J', 'P', ' ', 14, 1, 10})), 10);
    EXPECT_EQ(power_of(ht(18, 0) + element(7, {'J', 'P', ' ', 14, 2, 10})), std::nullopt);
    EXPECT_EQ(power_of(ht(201, 0) + element(7, {'D', 'E', ' ', 201, 1, 30})), std::nullopt)
        << "an operating class, no channel";
    EXPECT_EQ(power_of(ht(36, 0) + element(7, {'D', 'E'})), std::nullopt);
}

TEST(BssElements, EveryCutOfEverythingIsHarmless) {
    const Bytes whole =
        ht(36, 1) + vht(1, 42, 50) +
        he(kHeHasVht | kHeHasCoHosted | kHeHas6GHz, {1, 42, 0, 9, 37, 3, 39, 47, 0}) +
        element(7, {'D', 'E', ' ', 36, 4, 23}) + element(35, {17, 0});
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        const Bytes cut{whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)};
        EXPECT_GE(bss_elements::parse(cut, kHeardOn).channel.bw, 20);
    }
}

TEST(BssChannel, ReadsBackFromItsChanspec) {
    EXPECT_EQ((bss_channel{6, 20, 0}.chanspec()), LWLIO_CHANSPEC_BW_20 | 6U);
    EXPECT_EQ((bss_channel{36, 40, 0}.chanspec()), LWLIO_CHANSPEC_BW_40 | 38U);
    EXPECT_EQ((bss_channel{40, 40, 0x100}.chanspec()), LWLIO_CHANSPEC_BW_40 | 0x100U | 38U);
    EXPECT_EQ((bss_channel{48, 80, 0x300}.chanspec()), LWLIO_CHANSPEC_BW_80 | 0x300U | 42U);
}

TEST(BssChannel, AChanspecOf160MHzIsThe80MHzAroundThePrimaryChannel) {
    EXPECT_EQ((bss_channel{60, 160, 0x600}.chanspec()), LWLIO_CHANSPEC_BW_80 | 0x200U | 58U);
}

}  // namespace
