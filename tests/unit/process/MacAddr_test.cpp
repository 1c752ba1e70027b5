#include "MacAddr.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <unordered_set>

using libhubd::MacAddr;

namespace {

const MacAddr::bytes_type example = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};

void expect_parsed(const char* text) {
    const MacAddr address = MacAddr::from_str(text);
    EXPECT_TRUE(address.is_valid()) << text;
    EXPECT_EQ(address.bytes(), example) << text;
}

void expect_refused(const char* text) {
    const MacAddr address = MacAddr::from_str(text);
    EXPECT_FALSE(address.is_valid()) << text;
    EXPECT_EQ(address.bytes(), MacAddr::bytes_type{}) << text;
}

void expect_valid_zero(const char* text) {
    const MacAddr address = MacAddr::from_str(text);
    EXPECT_TRUE(address.is_valid()) << text;
    EXPECT_EQ(address.bytes(), MacAddr::bytes_type{}) << text;
}

TEST(MacAddr, StartsInvalidAndZero) {
    EXPECT_FALSE(MacAddr().is_valid());
    EXPECT_EQ(MacAddr().str(), "00:00:00:00:00:00");
}

TEST(MacAddr, ParsesPairsWithColonsOrHyphensInAnyCase) {
    for (const char* text : {"00:1a:2b:3c:4d:5e", "00-1A-2b-3C-4d-5E", "00:1A-2B:3C-4D:5E"})
        expect_parsed(text);
}

TEST(MacAddr, ParsesTwelveDigits) {
    for (const char* text : {"001a2b3c4d5e", "001A2B3C4D5E"})
        expect_parsed(text);
}

TEST(MacAddr, ParsesEveryDigitInBothCases) {
    EXPECT_EQ(MacAddr::from_str("0123456789ab").str(), "01:23:45:67:89:ab");
    EXPECT_EQ(MacAddr::from_str("cdefABCDEF09").str(), "cd:ef:ab:cd:ef:09");
}

TEST(MacAddr, RefusesWhatStandsBesideTheDigits) {
    for (const char neighbour : {'/', ':', '@', 'G', '`', 'g'})
        expect_refused((std::string(11, '0') + neighbour).c_str());
}

TEST(MacAddr, RefusesABadSeparator) {
    for (const char* text :
         {"00:1a:2b:3c:4d5e0", "00:1a_2b:3c:4d:5e", "00:1a:2b.3c:4d:5e", "00:1a:2b:3c 4d:5e"})
        expect_refused(text);
}

TEST(MacAddr, RefusesABadDigit) {
    for (const char* text : {"0g:1a:2b:3c:4d:5e", "00:1a:2b:3c:4d:5g", "x0:1a:2b:3c:4d:5e",
                             "00:1a:2b: c:4d:5e", "001a2b3c4d5g", "x01a2b3c4d5e", "00:1a:2b:3c:"})
        expect_refused(text);
}

TEST(MacAddr, AnyOtherTextIsAValidZeroAddress) {
    for (const char* text : {"", "00_1a_2b_3c_4d_5e", "nonsense", "00:1a:2b:3c:4d:5e:6f",
                             "00:1a:2b:3c:4d", "001a2b3c4d5", "this is 17 chars!"})
        expect_valid_zero(text);
}

TEST(MacAddr, NullReadsAsTheEmptyText) {
    expect_valid_zero(nullptr);
}

TEST(MacAddr, WritesBothTextForms) {
    for (const char* text : {"001a2b3c4d5e", "00-1A-2B-3C-4D-5E"}) {
        EXPECT_EQ(MacAddr::from_str(text).str(), "00:1a:2b:3c:4d:5e");
        EXPECT_EQ(MacAddr::from_str(text).str_solid(), "001a2b3c4d5e");
    }
    EXPECT_EQ(MacAddr({0xff, 0xf0, 0x0f, 0x80, 0x08, 0x00}).str(), "ff:f0:0f:80:08:00");
}

TEST(MacAddr, ComparesAndHashesByAddressAlone) {
    EXPECT_EQ(MacAddr::from_str("00:1a:2b:3c:4d:5e"), MacAddr(example));
    EXPECT_NE(MacAddr::from_str("00:1a:2b:3c:4d:5f"), MacAddr(example));
    EXPECT_EQ(MacAddr(), MacAddr::from_str(""));
    EXPECT_EQ(std::hash<MacAddr>{}(MacAddr()), std::hash<MacAddr>{}(MacAddr::from_str("")));
}

TEST(MacAddr, ServesAsAKeyOfHashMaps) {
    std::unordered_set<MacAddr> set;
    for (const char* text : {"00:1a:2b:3c:4d:5e", "00:1a:2b:3c:4d:5f", "001a2b3c4d5e"})
        set.insert(MacAddr::from_str(text));
    EXPECT_EQ(set.size(), 2u);
    EXPECT_TRUE(set.contains(MacAddr(example)));
}

TEST(MacAddr, EveryByteCountsInTheHash) {
    std::unordered_set<std::size_t> hashes;
    for (std::size_t i = 0; i < example.size(); ++i) {
        MacAddr::bytes_type bytes{};
        bytes[i] = 1;
        hashes.insert(std::hash<MacAddr>{}(MacAddr(bytes)));
    }
    // A 32-bit hash may fold bytes, but not all of them.
    EXPECT_GT(hashes.size(), 1u);
}

}  // namespace
