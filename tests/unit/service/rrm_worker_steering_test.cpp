// Steering of clients: event reports, overload commands, and the aging of the two station tables.
#include <cstdio>
#include <string>
#include <vector>

#include "rrm_worker_fixture.h"

namespace {

using testing::_;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::InSequence;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StrEq;

constexpr const char* envelope_end = R"("ap-mac":"00:11:22:33:44:50","domain":"site-1",)";

std::string report(const std::string& cmd, const std::string& fields) {
    return R"({"version":"2.4","service":"rrm","cmd":")" + cmd + R"(",)" + envelope_end + fields +
           "}";
}

std::string mac_text(int number) {
    char text[sizeof "02:00:00:00:00:00"];
    std::snprintf(text, sizeof text, "02:00:00:00:%02x:%02x",
                  static_cast<unsigned>(number >> 8) & 0xffU,
                  static_cast<unsigned>(number) & 0xffU);
    return text;
}

class RrmWorkerSteeringTest : public RrmWorkerTest {
  protected:
    // The service has accepted the access point and switched steering on.
    RrmWorkerSteeringTest() { subscribe(R"({"use-80211v":1})"); }

    void trap(const std::string& event) {
        bus_sends(R"({"command":"wifi-client-trap","event":{)" + event + "}}");
    }
    void trap_of_type(const std::string& type) {
        trap(R"("type":")" + type +
             R"(","dev":"wlan1-va2","mac":"02:00:00:00:00:01","rssi":-55,"ssid":"home",)"
             R"("target-mac":"aa:00:00:00:00:01")");
    }
    void overload(const std::string& fields) { service_commands("rrm-sta-overload", fields); }
    void overload_radio(int radio, int roam_count) {
        overload(R"("ap-mac":"00:11:22:33:44:50","radios":[{"id":)" + std::to_string(radio) +
                 R"(,"roam-count":)" + std::to_string(roam_count) + "}]");
    }
    [[nodiscard]] std::vector<std::string> roamed() const {
        std::vector<std::string> macs;
        for (const IfnameText& request : driver.transition_requests)
            macs.push_back(request.second);
        return macs;
    }
};

// --- trap events ---

TEST_F(RrmWorkerSteeringTest, EachTrapTypeHasItsReport) {
    const std::vector<std::pair<std::string, std::string>> table = {
        {"auth", "rrm-client-assoc"},
        {"8021x-success", "rrm-client-assoc"},
        {"reassoc", "rrm-client-disassoc"},
        {"send-deauth", "rrm-client-disassoc"},
        {"send-disassoc", "rrm-client-disassoc"},
        {"recv-deauth", "rrm-client-disassoc"},
        {"recv-disassoc", "rrm-client-disassoc"},
        {"auth-fail", "rrm-client-disassoc"},
        {"8021x-fail", "rrm-client-disassoc"},
        {"80211v-roam", "rrm-sta-roam"}};
    for (const auto& [type, cmd] : table) {
        forget_reports();
        trap_of_type(type);
        EXPECT_THAT(reports(), SizeIs(1)) << type;
        EXPECT_THAT(reports_of(cmd), SizeIs(1)) << type;
    }
}

TEST_F(RrmWorkerSteeringTest, AReassociationIsReportedAsADisassociation) {
    trap_of_type("reassoc");
    EXPECT_THAT(reports_of("rrm-client-disassoc"), SizeIs(1));
    EXPECT_THAT(reports_of("rrm-client-assoc"), IsEmpty());
}

TEST_F(RrmWorkerSteeringTest, AnUnknownTrapTypeIsIgnored) {
    for (const char* event : {R"("type":"assoc")", R"("type":"AUTH")", R"("type":"")",
                              R"("type":null)", R"("type":7)", R"("dev":"wlan0-va0")"})
        trap(event);
    bus_sends(R"({"command":"wifi-client-trap"})");
    bus_sends(R"({"command":"wifi-client-trap","event":"auth"})");
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(RrmWorkerSteeringTest, WritesTheAssociationReport) {
    trap(R"("type":"auth","dev":"wlan1-va2","mac":"02:00:00:00:00:01","rssi":-55,"ssid":"home",)"
         R"("client-info":{"using-802.11v":"yes"})");
    EXPECT_EQ(last_report(),
              report("rrm-client-assoc",
                     R"("radio":1,"sta-mac":"02:00:00:00:00:01","rssi":-55,"ssid":"home",)"
                     R"("no-balance":0)"));
}

TEST_F(RrmWorkerSteeringTest, WritesTheDisassociationReport) {
    trap_of_type("recv-deauth");
    EXPECT_EQ(last_report(), report("rrm-client-disassoc",
                                    R"("radio":1,"sta-mac":"02:00:00:00:00:01","ssid":"home")"));
}

TEST_F(RrmWorkerSteeringTest, WritesTheRoamReport) {
    trap_of_type("80211v-roam");
    EXPECT_EQ(last_report(),
              report("rrm-sta-roam", R"("radio":1,"sta-mac":"02:00:00:00:00:01","ssid":"home",)"
                                     R"("target-mac":"aa:00:00:00:00:01")"));
}

TEST_F(RrmWorkerSteeringTest, TheNameOfAVapGivesTheNumberOfItsRadio) {
    trap(R"("type":"auth-fail","dev":"wlan1-va2")");
    EXPECT_EQ(test_bus::member(last_report(), "radio"), "1");
    trap(R"("type":"auth-fail","dev":"wlan0-va6")");
    EXPECT_EQ(test_bus::member(last_report(), "radio"), "0");
}

TEST_F(RrmWorkerSteeringTest, TheNameOfABareRadioGivesNoRadioNumber) {
    trap(R"("type":"auth-fail","dev":"wlan1","mac":"02:00:00:00:00:01","ssid":"home")");
    EXPECT_EQ(last_report(),
              report("rrm-client-disassoc", R"("sta-mac":"02:00:00:00:00:01","ssid":"home")"));
}

TEST_F(RrmWorkerSteeringTest, AnEventWithNothingButItsTypeIsReportedBare) {
    EXPECT_CALL(driver, add_radio_id).Times(0);
    trap(R"("type":"auth")");
    EXPECT_EQ(last_report(), report("rrm-client-assoc", R"("rssi":0,"no-balance":1)"));
}

TEST_F(RrmWorkerSteeringTest, AnAssociationWithoutClientInfoReportsNoBalance) {
    trap(R"("type":"auth")");
    EXPECT_EQ(test_bus::member(last_report(), "no-balance"), "1");
}

TEST_F(RrmWorkerSteeringTest, OnlyAClientThatUses80211vMayBeBalanced) {
    const std::vector<std::pair<std::string, std::string>> table = {
        {R"(,"client-info":{})", "1"},
        {R"(,"client-info":null)", "1"},
        {R"(,"client-info":"yes")", "1"},
        {R"(,"client-info":{"using-802.11v":null})", "1"},
        {R"(,"client-info":{"using-802.11v":"no"})", "1"},
        {R"(,"client-info":{"using-802.11v":"yes "})", "1"},
        {R"(,"client-info":{"using-802.11v":"yes"})", "0"},
        {R"(,"client-info":{"using-802.11v":"YES"})", "0"}};
    for (const auto& [info, expected] : table) {
        trap(R"("type":"auth")" + info);
        EXPECT_EQ(test_bus::member(last_report(), "no-balance"), expected) << info;
    }
}

TEST_F(RrmWorkerSteeringTest, DropsTrapsWithNeitherSteeringFeatureOn) {
    switch_steering(false);
    trap_of_type("auth");
    EXPECT_THAT(reports(), IsEmpty());
    peer().blacklist_enabled() = true;
    trap_of_type("auth");
    EXPECT_THAT(reports(), SizeIs(1));
}

TEST_F(RrmWorkerSteeringTest, DropsTrapsWhileNotSubscribed) {
    link("disconnected");
    trap_of_type("auth");
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(RrmWorkerSteeringTest, DropsTrapsDuringARestartOfHostapd) {
    remove(hostapd_pid);
    ASSERT_TRUE(pass());
    forget_reports();
    trap_of_type("auth");
    EXPECT_THAT(reports(), IsEmpty());
    touch(hostapd_pid);
    touch(notify_hostapd_started);
    touch(notify);
    ASSERT_TRUE(pass());
    forget_reports();
    trap_of_type("auth");
    EXPECT_THAT(reports_of("rrm-client-assoc"), SizeIs(1));
}

// --- roam events of the driver ---

TEST_F(RrmWorkerSteeringTest, ReportsARoamThatTheDriverTells) {
    rrm_sta_s sta;
    sta.mac = "02:00:00:00:00:07";
    sta.ssid = "guest";
    sta.target_roaming_mac = "aa:00:00:00:00:02";
    driver.events.push_back({RRM_STA_ROAM, 1, sta});
    worker->execute();
    EXPECT_EQ(last_report(),
              report("rrm-sta-roam", R"("radio":1,"sta-mac":"02:00:00:00:00:07","ssid":"guest",)"
                                     R"("target-mac":"aa:00:00:00:00:02")"));
}

TEST_F(RrmWorkerSteeringTest, DropsADriversRoamWithNeitherSteeringFeatureOn) {
    switch_steering(false);
    driver.events.push_back({RRM_STA_ROAM, 1, {}});
    worker->execute();
    EXPECT_THAT(reports(), IsEmpty());
}

// --- overload ---

TEST_F(RrmWorkerSteeringTest, RoamsTheWeakestClientsFirst) {
    driver.add_station(0, 0, mac_text(80), -80);
    driver.add_station(0, 1, mac_text(60), -60);
    driver.add_station(0, 1, mac_text(70), -70);
    const InSequence order;
    EXPECT_CALL(driver, send_bsstrans_request(StrEq("wlan0-va0"), StrEq(mac_text(80)), 1));
    EXPECT_CALL(driver, send_bsstrans_request(StrEq("wlan0-va1"), StrEq(mac_text(70)), 1));
    overload_radio(0, 2);
    testing::Mock::VerifyAndClearExpectations(&driver);
}

TEST_F(RrmWorkerSteeringTest, OneDecibelDecides) {
    driver.add_station(0, 0, mac_text(1), -70);
    driver.add_station(0, 0, mac_text(2), -71);
    overload_radio(0, 1);
    EXPECT_THAT(roamed(), ElementsAre(mac_text(2)));
}

TEST_F(RrmWorkerSteeringTest, NumbersTheRequestsFromOne) {
    driver.add_station(0, 0, mac_text(1), -80);
    driver.add_station(0, 0, mac_text(2), -70);
    overload_radio(0, 2);
    EXPECT_TRUE(log.contains("info: #1 " + mac_text(1)));
    EXPECT_TRUE(log.contains("info: #2 " + mac_text(2)));
}

TEST_F(RrmWorkerSteeringTest, TheFirstReadingAloneDecides) {
    rrm_sta_s& strong_at_first = driver.add_station(0, 0, mac_text(1), -90);
    strong_at_first.rssi[0] = -40;
    driver.add_station(0, 0, mac_text(2), -50);
    overload_radio(0, 1);
    EXPECT_THAT(roamed(), ElementsAre(mac_text(2)));
}

TEST_F(RrmWorkerSteeringTest, RoamsAsManyClientsAsTheServiceAsksFor) {
    for (int i = 0; i < 3; ++i)
        driver.add_station(0, 0, mac_text(i), -70 + i);
    const std::vector<std::pair<int, std::size_t>> table = {{0, 0}, {1, 1},          {3, 3},
                                                            {4, 3}, {2147483647, 3}, {-1, 0}};
    for (const auto& [roam_count, expected] : table) {
        driver.transition_requests.clear();
        overload_radio(0, roam_count);
        EXPECT_THAT(driver.transition_requests, SizeIs(expected)) << roam_count;
    }
}

TEST_F(RrmWorkerSteeringTest, NeverRoamsAClientTriedBeforeOrWithout80211v) {
    driver.add_station(0, 0, mac_text(1), -90).roam_attempt = true;
    driver.add_station(0, 0, mac_text(2), -89).is_no_balance = true;
    rrm_sta_s& both = driver.add_station(0, 0, mac_text(3), -88);
    both.roam_attempt = true;
    both.is_no_balance = true;
    driver.add_station(0, 0, mac_text(4), -40);
    overload_radio(0, 10);
    EXPECT_THAT(roamed(), ElementsAre(mac_text(4)));
}

TEST_F(RrmWorkerSteeringTest, ClientsWithEqualReadingsKeepTheDriversOrder) {
    trace.set_log_level(7);  // without the list after each station
    std::vector<std::string> expected;
    for (int i = 0; i < 3 * 128; ++i) {
        driver.add_station(1, i % 2, mac_text(i), -65);
        expected.push_back(mac_text(i));
    }
    overload_radio(1, 3 * 128);
    EXPECT_EQ(roamed(), expected);
}

TEST_F(RrmWorkerSteeringTest, ClientsOfThreeStrengthsKeepTheDriversOrderWithinEach) {
    trace.set_log_level(7);  // without the list after each station
    std::vector<std::string> expected;
    for (const int strength : {-80, -70, -60}) {
        for (int i = 0; i < 128; ++i)
            expected.push_back(mac_text(i * 3 + (strength + 80) / 10));
    }
    for (int i = 0; i < 3 * 128; ++i)
        driver.add_station(0, i % 2, mac_text(i), -80 + 10 * (i % 3));
    overload_radio(0, 3 * 128);
    EXPECT_EQ(roamed(), expected);
}

TEST_F(RrmWorkerSteeringTest, EachRadioHasItsOwnCandidates) {
    driver.add_station(0, 0, mac_text(1), -80);
    driver.add_station(1, 0, mac_text(2), -70);
    overload(R"("radios":[{"id":1,"roam-count":5},{"id":0,"roam-count":5}])");
    EXPECT_THAT(driver.transition_requests, ElementsAre(IfnameText{"wlan1-va0", mac_text(2)},
                                                        IfnameText{"wlan0-va0", mac_text(1)}));
}

TEST_F(RrmWorkerSteeringTest, SkipsARadioOutOfRangeSilently) {
    EXPECT_CALL(driver, get_assoclist).Times(0);
    overload(R"("radios":[{"id":2,"roam-count":5},{"id":-1,"roam-count":5},7,null,"x"])");
    EXPECT_FALSE(log.contains("is overloaded"));
    EXPECT_THAT(driver.transition_requests, IsEmpty());
}

TEST_F(RrmWorkerSteeringTest, ARadioBehindABadOneIsRoamed) {
    driver.add_station(1, 0, mac_text(1), -80);
    for (const char* bad : {R"({"id":2,"roam-count":5})", R"({"id":-1})", "7", "null", "[]"}) {
        driver.transition_requests.clear();
        overload(R"("radios":[)" + std::string{bad} + R"(,{"id":1,"roam-count":1}])");
        EXPECT_THAT(roamed(), ElementsAre(mac_text(1))) << bad;
    }
}

TEST_F(RrmWorkerSteeringTest, AMissingRoamCountRoamsNobody) {
    driver.add_station(0, 0, mac_text(1), -80);
    overload(R"("radios":[{"id":0}])");
    EXPECT_THAT(driver.transition_requests, IsEmpty());
    EXPECT_TRUE(log.contains("is overloaded - 0 clients will be roamed"));
}

TEST_F(RrmWorkerSteeringTest, ACommandWithoutTheAccessPointsMacIsCarriedOut) {
    driver.add_station(0, 0, mac_text(1), -80);
    overload(R"("radios":[{"id":0,"roam-count":1}])");
    EXPECT_TRUE(log.contains("info: AP( - wlan0) is overloaded - 1 clients will be roamed"));
    EXPECT_THAT(roamed(), SizeIs(1));
}

TEST_F(RrmWorkerSteeringTest, LogsTheCandidatesAfterEachStationAndThenTheRequests) {
    constexpr int below = MockDriver::first_chain_below;
    driver.add_station(0, 0, mac_text(1), -60 + below);
    rrm_sta_s& tried = driver.add_station(0, 0, mac_text(2), -90);
    tried.roam_attempt = true;
    tried.is_no_balance = true;
    driver.add_station(0, 0, mac_text(3), -90).is_no_balance = true;
    driver.add_station(0, 0, mac_text(4), -70 + below);
    const std::size_t before = log.lines().size();
    overload_radio(0, 1);
    std::vector<std::string> lines = log.lines();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(before));
    std::erase_if(lines, [](const std::string& line) {
        return line.find("wlan0)") == std::string::npos &&
               line.find("lient") == std::string::npos &&
               line.find("posible") == std::string::npos &&
               line.find("MAC: ") == std::string::npos && line.find('#') == std::string::npos;
    });
    EXPECT_THAT(
        lines,
        ElementsAre(
            "info: AP(00:11:22:33:44:50 - wlan0) is overloaded - 1 clients will be roamed",
            "debug: There are 1 posible sta to roam:", "debug: MAC: 02:00:00:00:00:01; RSSI: -60",
            "debug: There has already been an attempt to roam client(02:00:00:00:00:02)",
            "debug: Client(02:00:00:00:00:02) doesn`t support 802.11v",
            "debug: There are 1 posible sta to roam:", "debug: MAC: 02:00:00:00:00:01; RSSI: -60",
            "debug: Client(02:00:00:00:00:03) doesn`t support 802.11v",
            "debug: There are 1 posible sta to roam:", "debug: MAC: 02:00:00:00:00:01; RSSI: -60",
            "debug: There are 2 posible sta to roam:", "debug: MAC: 02:00:00:00:00:04; RSSI: -70",
            "debug: MAC: 02:00:00:00:00:01; RSSI: -60",
            "info: Sending BSS Trans Request to clients:", "info: #1 02:00:00:00:00:04"));
}

TEST_F(RrmWorkerSteeringTest, ReloadsTheCandidateListsBeforeItLooksAtTheRadios) {
    driver.add_station(0, 0, mac_text(1), -80);
    const InSequence order;
    EXPECT_CALL(driver, clear_vexor_nbr_ap_list(StrEq("wlan0-va0")));
    EXPECT_CALL(driver, clear_vexor_nbr_ap_list(StrEq("wlan1-va0")));
    EXPECT_CALL(driver, clear_vexor_nbr_ap_list(StrEq("wlan1-va2")));
    EXPECT_CALL(driver, set_rrm_nbr_ap_list(StrEq("aa:00:00:00:00:01"), StrEq("home"), 36, 9, 1));
    EXPECT_CALL(driver, get_assoclist(StrEq("wlan0"), _));
    EXPECT_CALL(driver, send_bsstrans_request);
    EXPECT_CALL(driver, clear_rrm_nbr_ap_list).Times(0);
    overload(R"("802dot11k":[{"neighbour-mac":"aa:00:00:00:00:00","channel":36,"priority":9,)"
             R"("vaps":[{"ssid":"home","mac":"aa:00:00:00:00:01"}]}],)"
             R"("radios":[{"id":0,"roam-count":1}])");
    testing::Mock::VerifyAndClearExpectations(&driver);
}

TEST_F(RrmWorkerSteeringTest, ClearsTheCandidateListsOfEveryVapWithDot11k) {
    std::vector<std::string> expected;
    for (FakeRadio& radio : driver.radios) {
        radio.vaps.clear();
        for (int vap = 0; vap < 7; ++vap)
            driver.add_vap(radio.ifname == "wlan0" ? 0 : 1, "home", vap % 3 == 0);
        for (const int vap : {0, 3, 6})
            expected.push_back(radio.ifname + "-va" + std::to_string(vap));
    }
    overload("");
    EXPECT_EQ(driver.cleared_candidate_lists, expected);
}

TEST_F(RrmWorkerSteeringTest, ClearsTheCandidateListsEvenWithoutRadios) {
    overload("");
    EXPECT_THAT(driver.cleared_candidate_lists, ElementsAre("wlan0-va0", "wlan1-va0", "wlan1-va2"));
}

// --- probe records ---

const libhubd::MacAddr client = libhubd::MacAddr::from_str("02:00:00:00:00:01");
const libhubd::MacAddr other_client = libhubd::MacAddr::from_str("02:00:00:00:00:02");

sta_prob_info probe(int rssi, int timeout, int vap) {
    sta_prob_info record;
    record.rssi = rssi;
    record.timeout = timeout;
    record.vap = vap;
    return record;
}

TEST_F(RrmWorkerSteeringTest, NothingAgesByItself) {
    peer().sta_environment()[0][client] = probe(-60, 3, 0);
    peer().sta_block()[0][client] = 3;
    for (int second = 0; second < 10; ++second)
        advance(1);
    EXPECT_EQ(peer().sta_environment()[0].find(client)->timeout, 3);
    EXPECT_EQ(*peer().sta_block()[0].find(client), 3);
    EXPECT_THAT(driver.unblocked, IsEmpty());
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(RrmWorkerSteeringTest, OneTablePerRadioIsThere) {
    EXPECT_THAT(peer().sta_environment(), SizeIs(2));
    EXPECT_THAT(peer().sta_block(), SizeIs(2));
}

TEST_F(RrmWorkerSteeringTest, AProbeRecordIsReportedWhenItsTimeIsOver) {
    peer().sta_environment()[1][client] = probe(-60, 3, 1);
    peer().rrm_probe_response_timeout();
    EXPECT_EQ(peer().sta_environment()[1].find(client)->timeout, 2);
    advance(1);
    EXPECT_EQ(peer().sta_environment()[1].find(client)->timeout, 1);
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_FALSE(log.contains("post_rrm_probe_response"));
    advance(1);
    EXPECT_EQ(last_report(), report("rrm-probe-response",
                                    R"("radios":[{"id":1,"probe-list":[{"mac":"02:00:00:00:00:01",)"
                                    R"("ssid":"guest","rssi":-60}]}])"));
    EXPECT_TRUE(peer().sta_environment()[1].empty());
    EXPECT_TRUE(log.contains("debug: post_rrm_probe_response: radio 1, prob_size 1"));
}

TEST_F(RrmWorkerSteeringTest, TheProbeTimerRestsOnceTheTablesAreEmpty) {
    peer().sta_environment()[0][client] = probe(-60, 0, 0);
    peer().rrm_probe_response_timeout();
    forget_reports();
    advance(1);
    peer().sta_environment()[0][client] = probe(-60, 9, 0);
    advance(1);
    EXPECT_EQ(peer().sta_environment()[0].find(client)->timeout, 9);
}

TEST_F(RrmWorkerSteeringTest, ARecordOfEitherRadioKeepsTheProbeTimerGoing) {
    for (const std::size_t radio : {0U, 1U}) {
        forget_reports();
        peer().sta_environment()[radio][client] = probe(-60, 3, 0);
        peer().rrm_probe_response_timeout();
        advance(1);
        EXPECT_THAT(reports(), IsEmpty());
        advance(1);
        EXPECT_THAT(reports_of("rrm-probe-response"), SizeIs(1)) << radio;
    }
}

TEST_F(RrmWorkerSteeringTest, ALostLinkStopsTheAging) {
    peer().sta_environment()[0][client] = probe(-60, 9, 0);
    peer().sta_block()[0][client] = 9;
    peer().rrm_probe_response_timeout();
    peer().rrm_blacklist_timeout();
    link("disconnected");
    advance(1);
    EXPECT_EQ(peer().sta_environment()[0].find(client)->timeout, 8);
    EXPECT_EQ(*peer().sta_block()[0].find(client), 8);
}

TEST_F(RrmWorkerSteeringTest, SurveysAndChannelChangesAndTheAgingLeaveEachOtherAlone) {
    peer().sta_environment()[0][client] = probe(-60, 99, 0);
    peer().sta_block()[0][client] = 99;
    service_commands("rrm-update", R"("rrm-scan-delay":1,"vexor-rrm-scanning":1)");
    send_event(RRM_CHANSPEC_ACSD);
    peer().rrm_probe_response_timeout();
    peer().rrm_blacklist_timeout();
    advance(1);
    advance(driver.scan_duration);
    advance(10);  // the aging is due before the two reports, and begins its next second before them
    advance(1);
    EXPECT_EQ(peer().sta_environment()[0].find(client)->timeout, 99 - 1 - 4);
    EXPECT_EQ(*peer().sta_block()[0].find(client), 99 - 1 - 4);
    EXPECT_THAT(reports_of("rrm-response"), SizeIs(1));
    EXPECT_THAT(reports_of("rrm-config-changed"), SizeIs(1));
}

TEST_F(RrmWorkerSteeringTest, AnEmptyProbeTableDoesNotStartTheTimer) {
    peer().rrm_probe_response_timeout();
    peer().sta_environment()[0][client] = probe(-60, 9, 0);
    advance(1);
    EXPECT_EQ(peer().sta_environment()[0].find(client)->timeout, 9);
}

TEST_F(RrmWorkerSteeringTest, AnUnknownReadingComesFromTheDriverWhenTheTimeIsOver) {
    peer().sta_environment()[0][client] = probe(0, 1, 1);
    peer().sta_environment()[0][other_client] = probe(0, 2, 1);
    EXPECT_CALL(driver, probsup_find(StrEq("wlan0-va1"), StrEq("02:00:00:00:00:01")))
        .WillOnce(testing::Return(-77));
    peer().rrm_probe_response_timeout();
    EXPECT_EQ(last_report(), report("rrm-probe-response",
                                    R"("radios":[{"id":0,"probe-list":[{"mac":"02:00:00:00:00:01",)"
                                    R"("ssid":"guest","rssi":-77}]}])"));
    ASSERT_NE(peer().sta_environment()[0].find(other_client), nullptr);
    EXPECT_EQ(peer().sta_environment()[0].find(other_client)->timeout, 1);
    EXPECT_EQ(peer().sta_environment()[0].find(other_client)->rssi, 0);
    testing::Mock::VerifyAndClearExpectations(&driver);
}

TEST_F(RrmWorkerSteeringTest, AKnownReadingIsNotAskedForAgain) {
    EXPECT_CALL(driver, probsup_find).Times(0);
    peer().sta_environment()[0][client] = probe(-60, 1, 0);
    peer().sta_environment()[0][other_client] = probe(0, 1, 6);  // a VAP that does not exist
    peer().rrm_probe_response_timeout();
    testing::Mock::VerifyAndClearExpectations(&driver);
}

TEST_F(RrmWorkerSteeringTest, ARecordOfAVapWithoutAnSsidIsErasedSilently) {
    peer().sta_environment()[0][client] = probe(-60, 1, 6);
    peer().rrm_probe_response_timeout();
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_TRUE(peer().sta_environment()[0].empty());
}

TEST_F(RrmWorkerSteeringTest, ARadioWhoseRecordsAreNotDueReportsAnEmptyList) {
    peer().sta_environment()[0][client] = probe(-60, 9, 0);
    peer().sta_environment()[1][other_client] = probe(-50, 1, 0);
    peer().rrm_probe_response_timeout();
    EXPECT_EQ(last_report(), report("rrm-probe-response",
                                    R"("radios":[{"id":0,"probe-list":[]},{"id":1,"probe-list":[)"
                                    R"({"mac":"02:00:00:00:00:02","ssid":"home","rssi":-50}]}])"));
    EXPECT_EQ(peer().sta_environment()[0].size(), 1U);
}

TEST_F(RrmWorkerSteeringTest, ANegativeTimeIsOver) {
    peer().sta_environment()[0][client] = probe(-60, -5, 0);
    peer().rrm_probe_response_timeout();
    EXPECT_THAT(reports_of("rrm-probe-response"), SizeIs(1));
}

// --- blocked stations ---

TEST_F(RrmWorkerSteeringTest, ABlockedStationIsUnblockedWhenItsTimeIsOver) {
    peer().sta_block()[1][client] = 3;
    peer().rrm_blacklist_timeout();
    EXPECT_EQ(*peer().sta_block()[1].find(client), 2);
    advance(1);
    EXPECT_EQ(*peer().sta_block()[1].find(client), 1);
    EXPECT_THAT(driver.unblocked, IsEmpty());
    advance(1);
    EXPECT_THAT(driver.unblocked, ElementsAre(IfnameText{"wlan1", "02:00:00:00:00:01"}));
    EXPECT_TRUE(peer().sta_block()[1].empty());
    advance(1);
    EXPECT_THAT(driver.unblocked, SizeIs(1));
}

TEST_F(RrmWorkerSteeringTest, AStationBlockedOnEitherRadioKeepsTheBlacklistTimerGoing) {
    for (const std::size_t radio : {0U, 1U}) {
        driver.unblocked.clear();
        peer().sta_block()[radio][client] = 3;
        peer().rrm_blacklist_timeout();
        advance(1);
        EXPECT_THAT(driver.unblocked, IsEmpty());
        advance(1);
        EXPECT_THAT(driver.unblocked, SizeIs(1)) << radio;
    }
}

TEST_F(RrmWorkerSteeringTest, TheBlacklistTimerRestsOnceTheTablesAreEmpty) {
    peer().sta_block()[0][client] = 1;
    peer().rrm_blacklist_timeout();
    advance(1);
    peer().sta_block()[0][client] = 9;
    advance(1);
    EXPECT_EQ(*peer().sta_block()[0].find(client), 9);
}

TEST_F(RrmWorkerSteeringTest, StationsBlockedOnSeveralRadiosAgeTogether) {
    peer().sta_block()[0][client] = 1;
    peer().sta_block()[0][other_client] = 2;
    peer().sta_block()[1][client] = 0;
    peer().rrm_blacklist_timeout();
    EXPECT_THAT(driver.unblocked, ElementsAre(IfnameText{"wlan0", "02:00:00:00:00:01"},
                                              IfnameText{"wlan1", "02:00:00:00:00:01"}));
    EXPECT_EQ(*peer().sta_block()[0].find(other_client), 1);
}

TEST_F(RrmWorkerSteeringTest, BlockedStationsOfARadioWithoutANameAreLeftAlone) {
    ON_CALL(driver, get_max_radios).WillByDefault(testing::Return(5));
    start_worker();
    ASSERT_THAT(peer().sta_block(), SizeIs(5));
    for (auto& table : peer().sta_block())
        table[client] = 1;
    peer().rrm_blacklist_timeout();
    EXPECT_THAT(driver.unblocked, SizeIs(3));
    EXPECT_EQ(driver.unblocked.back().first, "wlan2");
}

}  // namespace
