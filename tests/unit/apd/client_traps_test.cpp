#include "client_traps.h"

#include <gmock/gmock.h>

namespace apd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kStation = "02:00:00:00:02:00";

class ApdClientTraps : public testing::Test {
  protected:
    // The messages for one line of hostapd.
    std::vector<std::string> hear(const std::string& text, const TrapVap& vap) {
        std::vector<std::string> result;
        const std::optional<HostapdEvent> event = read_event(text);
        if (event)
            for (const Json& message :
                 traps.take(*event, vap, [this](const Mac&) { return read_station(facts); }))
                result.push_back(compact(member(message.get(), "event")));
        return result;
    }
    // Their types.
    std::vector<std::string> types(const std::string& text, const TrapVap& vap) {
        std::vector<std::string> result;
        for (const std::string& message : hear(text, vap))
            result.push_back(member_text(parse_json(message).get(), "type"));
        return result;
    }

    const TrapVap office{"wlan0-va0", "office", false};
    const TrapVap upstairs{"wlan1-va0", "office", false};
    const TrapVap staff{"wlan0-va1", "staff", true};
    std::string facts = "signal=-42\next_capab=0000080000000040";
    ClientTraps traps;
};

TEST_F(ApdClientTraps, TellWhoComesWithSignalAndAbility) {
    EXPECT_THAT(
        hear("AP-STA-CONNECTED 02:00:00:00:02:00 auth_alg=ft", office),
        ElementsAre(R"({"type":"auth","dev":"wlan0-va0","mac":"02:00:00:00:02:00",)"
                    R"("ssid":"office","rssi":-42,"client-info":{"using-802.11v":"yes"}})"));
    facts = "FAIL";
    EXPECT_THAT(hear("AP-STA-CONNECTED 02:00:00:00:02:00", office),
                ElementsAre(R"({"type":"auth","dev":"wlan0-va0","mac":"02:00:00:00:02:00",)"
                            R"("ssid":"office","client-info":{"using-802.11v":"no"}})"));
}

TEST_F(ApdClientTraps, TellTheSuccessOf8021xOnceItsKeysAreThere) {
    EXPECT_THAT(types("CTRL-EVENT-EAP-SUCCESS2 02:00:00:00:02:00", staff), IsEmpty());
    EXPECT_THAT(types("AP-STA-CONNECTED 02:00:00:00:02:00", staff), ElementsAre("8021x-success"));
}

TEST_F(ApdClientTraps, TellWhoFails) {
    EXPECT_THAT(types("CTRL-EVENT-EAP-FAILURE2 02:00:00:00:02:00", staff),
                ElementsAre("8021x-fail"));
    EXPECT_THAT(types("CTRL-EVENT-EAP-TIMEOUT-FAILURE 02:00:00:00:02:00", staff),
                ElementsAre("8021x-fail"));
    EXPECT_THAT(types("AP-STA-POSSIBLE-PSK-MISMATCH 02:00:00:00:02:00", office),
                ElementsAre("auth-fail"));
    EXPECT_THAT(types("AP-REJECTED-BLOCKED-STA 02:00:00:00:02:00", office),
                ElementsAre("auth-fail"));
}

TEST_F(ApdClientTraps, TellWhoLeavesAndWhoIsPutOff) {
    types("AP-STA-CONNECTED 02:00:00:00:02:00", office);
    EXPECT_THAT(types("AP-STA-DISCONNECTED 02:00:00:00:02:00", office),
                ElementsAre("recv-disassoc"));
    types("AP-STA-CONNECTED 02:00:00:00:02:00", office);
    traps.put_off(*parse_mac(kStation));
    EXPECT_THAT(types("AP-STA-DISCONNECTED 02:00:00:00:02:00", office), ElementsAre("send-deauth"));
    EXPECT_EQ(traps.where(*parse_mac(kStation)), "");
}

TEST_F(ApdClientTraps, TellTheEndOfAnAccessPointAtOnceAndOnce) {
    types("AP-STA-CONNECTED 02:00:00:00:02:00", office);
    types("AP-STA-CONNECTED 02:00:00:00:02:01", upstairs);
    const std::vector<Json> messages = traps.end("wlan0-va0");
    ASSERT_EQ(messages.size(), 1U);
    json_object* const event = member(messages.front().get(), "event");
    EXPECT_EQ(member_text(event, "type"), "send-deauth");
    EXPECT_EQ(member_text(event, "mac"), kStation);
    EXPECT_THAT(types("AP-STA-DISCONNECTED 02:00:00:00:02:00", office), IsEmpty());
    EXPECT_EQ(traps.count("wlan1-va0"), 1U);
}

TEST_F(ApdClientTraps, TellWhoLeavesThatWasThereBeforeThem) {
    traps.expect(*parse_mac(kStation), office);
    EXPECT_EQ(traps.count("wlan0-va0"), 1U);
    EXPECT_THAT(types("AP-STA-DISCONNECTED 02:00:00:00:02:00", office),
                ElementsAre("recv-disassoc"));
}

TEST_F(ApdClientTraps, TellNobodysEndWhenHostapdHasGone) {
    types("AP-STA-CONNECTED 02:00:00:00:02:00", office);
    traps.forget_all();
    EXPECT_EQ(traps.count("wlan0-va0"), 0U);
    EXPECT_THAT(types("AP-STA-DISCONNECTED 02:00:00:00:02:00", office), IsEmpty());
}

TEST_F(ApdClientTraps, TellWhoGoesToAnotherRadioAndNotItsLateEnd) {
    types("AP-STA-CONNECTED 02:00:00:00:02:00", office);
    EXPECT_THAT(types("AP-STA-CONNECTED 02:00:00:00:02:00", upstairs),
                ElementsAre("reassoc", "auth"));
    EXPECT_THAT(types("AP-STA-DISCONNECTED 02:00:00:00:02:00", office), IsEmpty());
    EXPECT_EQ(traps.where(*parse_mac(kStation)), "wlan1-va0");
}

// The agent hears them from hostapd itself, and would report each twice.
TEST_F(ApdClientTraps, LeaveTransitionsToTheAgent) {
    EXPECT_THAT(types("BSS-TM-RESP 02:00:00:00:02:00 status_code=0 bss_termination_delay=0 "
                      "target_bssid=02:00:00:00:01:51",
                      office),
                IsEmpty());
}

TEST_F(ApdClientTraps, PassOverWhatTheyDoNotKnowAndGarbage) {
    for (const std::string text :
         {"", " ", "AP-STA-CONNECTED", "AP-STA-CONNECTED x", "AP-STA-CONNECTED 02:00:00:00:02",
          "AP-STA-CONNECTEDx 02:00:00:00:02:00", "\x01\xff", "BSS-TM-RESP status_code=0",
          "EAPOL-4WAY-HS-COMPLETED 02:00:00:00:02:00"})
        EXPECT_THAT(types(text, office), IsEmpty()) << text;
}

TEST(ApdHostapdEvent, KnowsWhatHappensToAChannel) {
    EXPECT_EQ(read_event("AP-CSA-FINISHED freq=2462 dfs=0")->frequency, 2462);
    const std::optional<HostapdEvent> start = read_event(
        "DFS-CAC-START freq=5260 chan=52 sec_chan=0, width=0, seg0=0, seg1=0, cac_time=60s");
    ASSERT_TRUE(start);
    EXPECT_EQ(start->frequency, 5260);
    EXPECT_EQ(start->seconds, 60);
    EXPECT_TRUE(read_event("DFS-CAC-COMPLETED success=1 freq=5260 ht_enabled=0")->success);
    EXPECT_FALSE(read_event("DFS-CAC-COMPLETED success=0 freq=5260")->success);
    EXPECT_EQ(read_event("AP-CSA-FINISHED freq=99999999999999999999")->frequency, 0);
}

}  // namespace
}  // namespace apd
