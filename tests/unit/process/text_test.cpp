#include "text.h"

#include <gtest/gtest.h>

#include <limits>
#include <optional>

namespace {

constexpr int least = std::numeric_limits<int>::min();
constexpr int most = std::numeric_limits<int>::max();

TEST(Text, NullReadsAsTheEmptyText) {
    EXPECT_STREQ("", text_of(nullptr));
    EXPECT_STREQ("wlan0", text_of("wlan0"));
}

TEST(Text, ComparesWholeTextsWithoutRegardToCase) {
    EXPECT_TRUE(equals_ignoring_case("RRM-Update", "rrm-update"));
    EXPECT_TRUE(equals_ignoring_case("", ""));
    EXPECT_FALSE(equals_ignoring_case("rrm-update ", "rrm-update"));
    EXPECT_FALSE(equals_ignoring_case("rrm", "rrm-update"));
}

TEST(Text, NullEqualsNothing) {
    EXPECT_FALSE(equals_ignoring_case(nullptr, "rrm"));
    EXPECT_FALSE(equals_ignoring_case(nullptr, ""));
}

TEST(Text, ContainsAPartAnywhere) {
    EXPECT_TRUE(contains("WPA2_1X", "WPA2"));
    EXPECT_TRUE(contains("WPA2_1X", "1X"));
    EXPECT_TRUE(contains("", ""));
    EXPECT_FALSE(contains("WPA2_1x", "1X"));
    EXPECT_FALSE(contains("WPA", "WPA2"));
}

TEST(Text, ScansANumberAndStopsBehindIt) {
    const char* text = " -2.4";
    EXPECT_EQ(-2, scan_int(text));
    EXPECT_STREQ(".4", text);
}

TEST(Text, WithoutANumberScanningStaysWhereItIs) {
    for (const char* given : {"", "x1", "-", ".5"}) {
        const char* text = given;
        EXPECT_EQ(std::nullopt, scan_int(text)) << given;
        EXPECT_EQ(given, text);
    }
}

TEST(Text, ReadsTheNumberThatATextBeginsWith) {
    EXPECT_EQ(36, to_int("36"));
    EXPECT_EQ(36, to_int("  +36abc"));
    EXPECT_EQ(-1, to_int("-1"));
    EXPECT_EQ(10, to_int("010"));
}

TEST(Text, ATextThatBeginsWithNoNumberIsZero) {
    EXPECT_EQ(0, to_int(""));
    EXPECT_EQ(0, to_int("auto"));
}

TEST(Text, ANumberThatDoesNotFitIsTheNearestInt) {
    EXPECT_EQ(most, to_int("2147483648"));
    EXPECT_EQ(least, to_int("-2147483649"));
    EXPECT_EQ(most, to_int("99999999999999999999"));
    EXPECT_EQ(least, to_int("-99999999999999999999"));
}

}  // namespace
