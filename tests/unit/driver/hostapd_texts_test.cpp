#include "platform-specific/hostapd_texts.h"

#include <gmock/gmock.h>

namespace {

using libhubd::MacAddr;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const MacAddr kTarget = MacAddr::from_str("02:00:00:00:12:00");
const MacAddr kClient = MacAddr::from_str("02:00:00:00:04:00");

// As hostapd 2.10 wrote it.
constexpr char kSta[] =
    "02:00:00:00:04:00\nflags=[AUTH][ASSOC][AUTHORIZED][SHORT_PREAMBLE][WMM][HT]\naid=1\n"
    "capability=0x1431\nsignal=-30\nht_caps_info=0x107e\next_capab=04004a0201404040000120\n";

TEST(HostapdTexts, ANeighbourIsItsElementByteByByte) {
    EXPECT_EQ(hostapd_texts::set_neighbour({kTarget, 11, 81, 0}, "air"),
              "SET_NEIGHBOR 02:00:00:00:12:00 ssid=616972 nr=020000001200af080000510b07");
    EXPECT_EQ(hostapd_texts::set_neighbour({kTarget, 44, 115, 0}, "a\n\""),
              "SET_NEIGHBOR 02:00:00:00:12:00 ssid=610a22 nr=020000001200af180000732c09");
    EXPECT_EQ(hostapd_texts::set_neighbour({kTarget, 14, 82, 0}, ""),
              "SET_NEIGHBOR 02:00:00:00:12:00 ssid= nr=020000001200af080000520e07");
    EXPECT_EQ(hostapd_texts::remove_neighbour(kTarget), "REMOVE_NEIGHBOR 02:00:00:00:12:00");
}

TEST(HostapdTexts, AnUnknownOperatingClassIsThatOfTheChannel) {
    for (const auto& [last, operating_class] :
         {std::pair{13, 81}, {14, 82}, {48, 115}, {64, 118}, {144, 121}, {161, 124}, {177, 125}})
        EXPECT_EQ(hostapd_texts::operating_class_of(255, last), operating_class);
    for (const auto& [first, operating_class] :
         {std::pair{1, 81}, {36, 115}, {52, 118}, {100, 121}, {149, 124}, {165, 125}, {181, 255}})
        EXPECT_EQ(hostapd_texts::operating_class_of(255, first), operating_class);
    EXPECT_EQ(hostapd_texts::operating_class_of(128, 36), 128);
}

TEST(HostapdTexts, ATransitionRequestNamesThePreferredCandidatesFirst) {
    std::size_t left_out = 9;
    EXPECT_EQ(
        hostapd_texts::transition_request(
            kClient, {{kTarget, 11, 81, 0}, {MacAddr::from_str("02:00:00:00:13:00"), 44, 115, 300}},
            left_out),
        "BSS_TM_REQ 02:00:00:00:04:00 pref=1 abridged=1 "
        "neighbor=02:00:00:00:13:00,0x18af,115,44,9,0301ff "
        "neighbor=02:00:00:00:12:00,0x8af,81,11,7,030101");
    EXPECT_EQ(left_out, 0U);
}

TEST(HostapdTexts, CandidatesThatArePreferredAlikeKeepTheirOrder) {
    std::size_t left_out = 0;
    const std::string request = hostapd_texts::transition_request(
        kClient, {{kTarget, 11, 81, 5}, {kClient, 6, 81, 5}, {kTarget, 1, 81, 5}}, left_out);
    EXPECT_LT(request.find(",81,11,"), request.find(",81,6,"));
    EXPECT_LT(request.find(",81,6,"), request.find(",81,1,"));
}

TEST(HostapdTexts, ATransitionRequestWithoutCandidatesLeavesTheChoiceToTheClient) {
    std::size_t left_out = 0;
    EXPECT_EQ(hostapd_texts::transition_request(kClient, {}, left_out),
              "BSS_TM_REQ 02:00:00:00:04:00");
}

TEST(HostapdTexts, MoreCandidatesThanHostapdTakesAreLeftOut) {
    std::size_t left_out = 0;
    const std::string request = hostapd_texts::transition_request(
        kClient, std::vector<hostapd_neighbour>(40, {kTarget, 11, 81, 1}), left_out);
    EXPECT_EQ(left_out, 8U);
    std::size_t named = 0;
    for (std::size_t at = request.find(" neighbor="); at != std::string::npos;
         at = request.find(" neighbor=", at + 1))
        ++named;
    EXPECT_EQ(named, 32U);
    EXPECT_LT(request.size(), 4096U);
}

TEST(HostapdTexts, NeighboursAreTheLinesThatBeginWithAnAddress) {
    EXPECT_THAT(hostapd_texts::neighbours("02:00:00:00:10:00 ssid=616972 nr=0200\n"
                                          "02:00:00:00:12:00 ssid=61 nr=02 lci=01\n"
                                          "FAIL\n\n02:00:00:0"),
                ElementsAre(MacAddr::from_str("02:00:00:00:10:00"), kTarget));
    EXPECT_THAT(hostapd_texts::neighbours(""), IsEmpty());
    EXPECT_THAT(hostapd_texts::neighbours(std::string(4096, 'x')), IsEmpty());
    EXPECT_THAT(hostapd_texts::neighbours(std::string{"02:00:\0\0:00:10:00", 17}), IsEmpty());
}

TEST(HostapdTexts, TransitionSupportIsABitOfTheExtendedCapabilities) {
    EXPECT_TRUE(hostapd_texts::supports_transition(kSta));
    EXPECT_FALSE(hostapd_texts::supports_transition("ext_capab=0400420201\n"));
    EXPECT_FALSE(hostapd_texts::supports_transition("ext_capab=0400\n"));
    EXPECT_FALSE(hostapd_texts::supports_transition("ext_capab=04\n"));
    EXPECT_FALSE(hostapd_texts::supports_transition("ext_capab=0400zz\n"));
    EXPECT_FALSE(hostapd_texts::supports_transition("ext_capab=00008z\n"));
    EXPECT_FALSE(hostapd_texts::supports_transition("ext_capab=000001\n"));
    EXPECT_TRUE(hostapd_texts::supports_transition("ext_capab=000008\n"));
    EXPECT_FALSE(hostapd_texts::supports_transition("FAIL\n"));
    EXPECT_FALSE(hostapd_texts::supports_transition(""));
}

TEST(HostapdTexts, AValueStandsBehindItsWholeName) {
    EXPECT_EQ(hostapd_texts::value_of(kSta, "signal"), "-30");
    EXPECT_EQ(hostapd_texts::value_of(kSta, "sig"), "");
    EXPECT_EQ(hostapd_texts::value_of(kSta, "none"), "");
    EXPECT_EQ(hostapd_texts::value_of("state=UP\nstate=DOWN\n", "state"), "UP") << "the first";
}

TEST(HostapdTexts, AClientsAnswerIsRead) {
    const auto response = hostapd_texts::read_transition_response(
        "BSS-TM-RESP 02:00:00:00:04:00 status_code=0 bss_termination_delay=0 "
        "target_bssid=02:00:00:00:12:00");
    ASSERT_TRUE(response);
    EXPECT_EQ(response->station, "02:00:00:00:04:00");
    EXPECT_EQ(response->status, 0U);
    EXPECT_EQ(response->target, "02:00:00:00:12:00");
}

TEST(HostapdTexts, ARefusalHasNoTarget) {
    const auto response = hostapd_texts::read_transition_response(
        "BSS-TM-RESP 02:00:00:00:04:00 status_code=7 bss_termination_delay=0");
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 7U);
    EXPECT_THAT(response->target, IsEmpty());
}

TEST(HostapdTexts, OtherEventsAndBrokenAnswersAreNone) {
    for (const char* const text :
         {"", "AP-STA-CONNECTED 02:00:00:00:04:00", "BSS-TM-RASP 02:00:00:00:04:00 status_code=0",
          "BSS-TM-RESP ", "BSS-TM-RESP 02:00:00:00:04:00",
          "BSS-TM-RESP 02:00:00:00:04:00 status_code=",
          "BSS-TM-RESP 02:00:00:00:04:00 status_code=x",
          "BSS-TM-RESP 02:zz:00:00:04:00 status_code=0"})
        EXPECT_FALSE(hostapd_texts::read_transition_response(text)) << text;
}

TEST(HostapdTexts, AnEventOfTheGlobalSocketNamesItsInterface) {
    std::string_view event = "IFNAME=wlan0-va0 AP-ENABLED ";
    EXPECT_EQ(hostapd_texts::take_interface(event), "wlan0-va0");
    EXPECT_EQ(event, "AP-ENABLED ");
    std::string_view bare = "AP-ENABLED ";
    EXPECT_EQ(hostapd_texts::take_interface(bare), "");
    EXPECT_EQ(bare, "AP-ENABLED ");
    std::string_view cut = "IFNAME=wlan0";
    EXPECT_EQ(hostapd_texts::take_interface(cut), "wlan0");
    EXPECT_EQ(cut, "");
}

}  // namespace
