// The core of the RRM worker: dispatch, version check, subscription, parked messages, driver
// events.
#include "rrm_worker_fixture.h"

namespace {

using testing::_;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;
using testing::SizeIs;
using testing::StrEq;

constexpr const char* factory =
    R"("factory":{"board":"WEP-3ax","hw":"1v2","serial":"WP42000017","mac":"00:11:22:33:44:50"})";

constexpr const char* unlink_message =
    R"({"version":"2.4","service":"internal-ipc","cmd":"unlink"})";

std::string unsubscribe_request() {
    return std::string{R"({"version":"2.4","service":"rrm","cmd":"unsubscribe-request",)"} +
           R"("ap-mac":"00:11:22:33:44:50","domain":"site-1",)" + factory + "}";
}

class RrmWorkerCoreTest : public RrmWorkerTest {
  protected:
    void answer_503() { service_commands("subscribe-response", R"("status":"busy","code":503)"); }

    std::size_t subscribe_requests() { return reports_of("subscribe-request").size(); }

    // A generic survey of five passes that is in its first one.
    void begin_survey() {
        service_commands("rrm-update", R"("rrm-scan-channels":"1 6 11")");
        ASSERT_TRUE(driver.in_progress);
        forget_reports();
    }

    void send_event(driver_event event, int radio = 0) {
        rrm_sta_s sta;
        sta.mac = "aa:bb:cc:00:00:01";
        driver.events.push_back({event, radio, sta});
        worker->execute();
    }

    // With 802.11v steering on.
    void subscribe_steering() { subscribe(R"({"use-80211v":1})"); }
};

// --- Construction and destruction ---

TEST_F(RrmWorkerCoreTest, ConstructionRemovesStaleFilesAndNoOther) {
    for (const char* path : {notify, notify_hostapd_started, notify_guardd_started,
                             notify_config_updated, notify_timezone, connected_flag})
        touch(path);
    start_worker();
    EXPECT_FALSE(exists(notify_config_updated));
    EXPECT_FALSE(exists(notify_timezone));
    EXPECT_FALSE(exists(connected_flag));
    EXPECT_TRUE(exists(notify));
    EXPECT_TRUE(exists(notify_hostapd_started));
    EXPECT_TRUE(exists(notify_guardd_started));
}

TEST_F(RrmWorkerCoreTest, ConstructionSetsTheDefaults) {
    EXPECT_FALSE(peer().subscribed());
    EXPECT_FALSE(peer().subscribing());
    EXPECT_EQ(peer().subscribe_timeout(), 30);
    EXPECT_EQ(peer().rrm_response_timeout(), 0);
    EXPECT_EQ(peer().scan_count(), 0U);
    EXPECT_EQ(peer().fbt_reassoc_deadline(), 1000);
    EXPECT_TRUE(peer().fbt_over_ds());
    EXPECT_FALSE(peer().disable_vexor_rrm_scanning());
    EXPECT_FALSE(peer().send_assoc_prohibited());
    EXPECT_FALSE(peer().blacklist_enabled());
    EXPECT_FALSE(peer().no_balance_enterprise());
    EXPECT_FALSE(peer().orvanta_use_80211v());
    EXPECT_FALSE(peer().orvanta_use_80211r());
    EXPECT_EQ(peer().ap_location(), "site-1");
    EXPECT_THAT(peer().sta_environment(), SizeIs(2));
    EXPECT_THAT(peer().sta_block(), SizeIs(2));
}

TEST_F(RrmWorkerCoreTest, NegativeRadioCountGivesNoTables) {
    ON_CALL(driver, get_max_radios).WillByDefault(Return(-1));
    start_worker();
    EXPECT_THAT(peer().sta_environment(), IsEmpty());
    link("connected");
    EXPECT_THAT(last_report(), HasSubstr(R"("radios":[]})"));
}

TEST_F(RrmWorkerCoreTest, DestructionClearsNeighboursThenResetsTheDriver) {
    subscribe();
    ASSERT_TRUE(exists(connected_flag));
    {
        const InSequence order;
        EXPECT_CALL(driver, clear_rrm_nbr_ap_list(StrEq("wlan0-va0")));
        EXPECT_CALL(driver, clear_rrm_nbr_ap_list(StrEq("wlan1-va0")));
        EXPECT_CALL(driver, init());
        EXPECT_CALL(driver, close_vapcontext());
    }
    worker.reset();
    EXPECT_FALSE(exists(connected_flag));
    EXPECT_TRUE(log.contains("rrm_worker: stop"));
}

// --- Version check ---

class VersionTest : public RrmWorkerCoreTest, public testing::WithParamInterface<const char*> {};

class AcceptedVersionTest : public VersionTest {};

TEST_P(AcceptedVersionTest, CommandIsExecuted) {
    service_sends(std::string{R"({"service":"rrm","cmd":"rrm-request-mode","version":)"} +
                  GetParam() + "}");
    EXPECT_THAT(reports_of("rrm-mode-response"), SizeIs(1));
    EXPECT_THAT(reports(), SizeIs(1));
}

INSTANTIATE_TEST_SUITE_P(Versions, AcceptedVersionTest,
                         testing::Values(R"("2.4")", R"("2.5")", R"("2.10")", R"("3.0")",
                                         R"("2.4.1")", R"(" 2.4")", R"("2.65536")", "2.4"));

class RefusedVersionTest : public VersionTest {};

TEST_P(RefusedVersionTest, UnsubscribesUnlinksAndDoesNotExecute) {
    subscribe();
    service_sends(std::string{R"({"service":"rrm","cmd":"rrm-request-mode")"} + GetParam() + "}");
    EXPECT_THAT(reports(), ElementsAre(unsubscribe_request(), unlink_message));
    EXPECT_TRUE(log.contains("Unsubscribe from RRM service: incorrect version"));
    EXPECT_FALSE(exists(connected_flag));
    EXPECT_TRUE(peer().subscribed()) << "until the link is reported down";
}

INSTANTIATE_TEST_SUITE_P(
    Versions, RefusedVersionTest,
    testing::Values("", R"(,"version":"2.3")", R"(,"version":"1.12")", R"(,"version":"2")",
                    R"(,"version":"2.")", R"(,"version":".4")", R"(,"version":"")",
                    R"(,"version":"two.four")", R"(,"version":"2,4")", R"(,"version":"-3.0")",
                    R"(,"version":null)", R"(,"version":{})", R"(,"version":[2,4])",
                    R"(,"version":2)", R"(,"version":"99999999999999999999999.1")"));

TEST_F(RrmWorkerCoreTest, RefusedVersionStopsAllTimers) {
    link("connected");
    service_sends(R"({"version":"1.0","service":"rrm","cmd":"rrm-info"})");
    forget_reports();
    advance(31);
    EXPECT_EQ(subscribe_requests(), 0U);
}

TEST_F(RrmWorkerCoreTest, RefusedVersionAfterAScanLeavesNoScanRunning) {
    subscribe();
    begin_survey();
    service_sends(R"({"version":"2.3","service":"rrm","cmd":"rrm-update"})");
    EXPECT_FALSE(driver.in_progress);
    EXPECT_THAT(driver.scans, SizeIs(1));
    EXPECT_THAT(reports(), ElementsAre(unsubscribe_request(), unlink_message));
}

// --- Subscription ---

TEST_F(RrmWorkerCoreTest, ConnectedSendsTheSubscribeRequest) {
    vaultd.set("/orvanta/dca", "true");
    vaultd.set("/orvanta/tpc", "true");
    vaultd.set("/orvanta/load-balance-80211v", "true");
    driver.add_station(0, 1, "aa:bb:cc:00:00:01", -61);
    driver.radios[1].up = false;
    link("connected");
    EXPECT_THAT(
        reports(),
        ElementsAre(
            std::string{R"({"version":"2.4","service":"rrm","cmd":"subscribe-request",)"} +
            R"("ap-mac":"00:11:22:33:44:50","domain":"site-1","ap-mac-count":16,)" +
            R"("use-wildcard-80211r":1,)" + factory +
            R"(,"radios":[{"id":0,"status":1,"mac-offset":0,"radio-mac-count":8,)" +
            R"("locked-for-dca":0,"locked-for-tpc":0,"locked-for-balancer":1,)" +
            R"("locked-for-80211v":0,"power":14,"power-max":20,"power-min":5,"eirp":16,)" +
            R"("eirp-max":23,"eirp-min":8,)" +
            R"("antenna-configuration":{"antenna-gain":3,"cable-loss":1},"channel":6,"band":2,)" +
            R"("bandwidth":20,"primary-channel":"none","available-channels":"1 6 11 ",)" +
            R"("vaps":[{"id":0,"ssid":"home","mac":"00:11:22:33:44:51","802dot11k":1,)" +
            R"("802dot11r":0},{"id":1,"ssid":"guest","mac":"00:11:22:33:44:52",)" +
            R"("802dot11k":0,"802dot11r":0}],)" +
            R"("assoclist":[{"mac":"aa:bb:cc:00:00:01","ssid":"guest","rssi":-61}]},)" +
            R"({"id":1,"status":0,"mac-offset":8,"radio-mac-count":8,)" +
            R"("locked-for-dca":1,"locked-for-tpc":1,"locked-for-balancer":1,)" +
            R"("locked-for-80211v":1,"power":16,"power-max":16,"power-min":11,"eirp":18,)" +
            R"("eirp-max":100,"eirp-min":0,)" +
            R"("antenna-configuration":{"antenna-gain":3,"cable-loss":1},"channel":36,"band":5,)" +
            R"("bandwidth":80,"primary-channel":"none"}]})"));
    EXPECT_TRUE(log.contains("Subscribe to RRM service"));
    EXPECT_TRUE(peer().subscribing());
}

TEST_F(RrmWorkerCoreTest, RequestIsRepeatedAfter30Then60Then120SecondsForEver) {
    link("connected");
    EXPECT_EQ(subscribe_requests(), 1U);
    std::size_t expected = 1;
    for (const int wait : {30, 60, 120, 120, 120}) {
        advance(wait - 1);
        EXPECT_EQ(subscribe_requests(), expected) << wait;
        advance(1);
        EXPECT_EQ(subscribe_requests(), ++expected) << wait;
    }
}

TEST_F(RrmWorkerCoreTest, ResponseEndsTheRepetition) {
    link("connected");
    service_commands("subscribe-response", R"("status":"SUCCESS")");
    EXPECT_TRUE(peer().subscribed());
    EXPECT_FALSE(peer().subscribing());
    EXPECT_TRUE(exists(connected_flag));
    advance(200);
    EXPECT_EQ(subscribe_requests(), 1U);
}

TEST_F(RrmWorkerCoreTest, ResponseWithoutStatusIsIgnored) {
    link("connected");
    service_commands("subscribe-response", R"("code":200,"domain":"elsewhere")");
    EXPECT_FALSE(peer().subscribed());
    EXPECT_TRUE(peer().subscribing());
    EXPECT_EQ(peer().ap_location(), "site-1");
    advance(30);
    EXPECT_EQ(subscribe_requests(), 2U);
}

TEST_F(RrmWorkerCoreTest, Two503ResponsesGive60Then120SecondsAndAThird120Again) {
    link("connected");
    std::size_t expected = 1;
    for (const int wait : {60, 120, 120}) {
        answer_503();
        EXPECT_TRUE(peer().subscribing());
        EXPECT_EQ(peer().subscribe_timeout(), wait);
        EXPECT_TRUE(log.contains("Reconnect after " + std::to_string(wait) + " sec"));
    }
    advance(119);
    EXPECT_EQ(subscribe_requests(), expected);
    advance(1);
    EXPECT_EQ(subscribe_requests(), ++expected);
}

TEST_F(RrmWorkerCoreTest, OtherRefusalEndsTheAttemptsUntilTheNextLink) {
    link("connected");
    service_commands("subscribe-response", R"("status":"error","code":403)");
    EXPECT_FALSE(peer().subscribed());
    EXPECT_FALSE(peer().subscribing());
    advance(600);
    EXPECT_EQ(subscribe_requests(), 1U);
    link("connected");
    EXPECT_EQ(subscribe_requests(), 2U);
}

TEST_F(RrmWorkerCoreTest, ConnectedPutsTheRetryPeriodBackTo30Seconds) {
    link("connected");
    answer_503();
    link("connected");
    EXPECT_EQ(peer().subscribe_timeout(), 30);
    advance(30);
    EXPECT_EQ(subscribe_requests(), 3U);
}

TEST_F(RrmWorkerCoreTest, SuccessDoesNotResetTheRetryPeriod) {
    link("connected");
    answer_503();
    service_commands("subscribe-response", R"("status":"success")");
    EXPECT_EQ(peer().subscribe_timeout(), 60);
}

TEST_F(RrmWorkerCoreTest, SuccessTakesDomainAndConfigAndForgetsSteeringOptions) {
    link("connected");
    peer().blacklist_enabled() = true;
    peer().no_balance_enterprise() = true;
    service_commands("subscribe-response",
                     R"("status":"success","domain":"site-2","config":{"use-80211v":1})");
    EXPECT_EQ(peer().ap_location(), "site-2");
    EXPECT_TRUE(peer().orvanta_use_80211v());
    EXPECT_FALSE(peer().blacklist_enabled());
    EXPECT_FALSE(peer().no_balance_enterprise());
    peer().post_disassoc_all();
    EXPECT_EQ(last_report(),
              std::string{R"({"version":"2.4","service":"rrm","cmd":"rrm-disassoc-all-clients",)"} +
                  R"("ap-mac":"00:11:22:33:44:50","domain":"site-2",)" + factory + "}");
    EXPECT_TRUE(log.contains("Send disassoc all clients to server"));
}

TEST_F(RrmWorkerCoreTest, SuccessWithoutConfigAppliesNothing) {
    link("connected");
    peer().orvanta_use_80211v() = true;
    service_commands("subscribe-response", R"("status":"success","config":null)");
    EXPECT_TRUE(peer().orvanta_use_80211v());
}

TEST_F(RrmWorkerCoreTest, WithoutHostapdTheRequestWaitsForItsStart) {
    driver.hostapd_up = false;
    link("connected");
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_TRUE(log.contains("Waiting for hostapd to start before sending subscribe-request"));
    EXPECT_TRUE(peer().subscribing());
    advance(600);
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(RrmWorkerCoreTest, SentryModeSubscribesWithoutHostapd) {
    driver.hostapd_up = false;
    driver.sentry_mode = true;
    link("connected");
    EXPECT_EQ(subscribe_requests(), 1U);
}

TEST_F(RrmWorkerCoreTest, RetryWithoutHostapdSendsNothingAndTriesAgain) {
    link("connected");
    driver.hostapd_up = false;
    advance(30);
    EXPECT_EQ(subscribe_requests(), 1U);
    EXPECT_TRUE(log.contains("Not sending subscribe-request because hostapd is not running"));
    driver.hostapd_up = true;
    advance(60);
    EXPECT_EQ(subscribe_requests(), 2U);
}

TEST_F(RrmWorkerCoreTest, DisconnectedStopsTheRequestsAndClearsTheSubscription) {
    subscribe();
    link("disconnected");
    EXPECT_FALSE(peer().subscribed());
    EXPECT_FALSE(peer().subscribing());
    EXPECT_FALSE(exists(connected_flag));
    EXPECT_TRUE(log.contains("Disconnected from RRM service - stop all timers"));

    link("connected");
    link("disconnected");
    forget_reports();
    advance(600);
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(RrmWorkerCoreTest, AtMostThreeRadiosAreReported) {
    ON_CALL(driver, get_max_radios).WillByDefault(Return(5));
    start_worker();
    link("connected");
    EXPECT_THAT(last_report(), HasSubstr(R"("id":2,)"));
    EXPECT_THAT(last_report(), testing::Not(HasSubstr(R"("id":3,)")));
}

TEST_F(RrmWorkerCoreTest, EmptyAndMissingMacLeaveTheHeaderWithoutApMac) {
    ON_CALL(driver, get_mac).WillByDefault(Return(nullptr));
    peer().post_disassoc_all();
    EXPECT_THAT(last_report(), HasSubstr(R"("cmd":"rrm-disassoc-all-clients","domain":"site-1")"));
}

TEST_F(RrmWorkerCoreTest, FactoryFieldWithoutTerminatorEndsAtItsLastCharacter) {
    std::fill(std::begin(driver.factory.hw), std::end(driver.factory.hw), 'x');
    peer().post_disassoc_all();
    EXPECT_THAT(last_report(), HasSubstr(R"("hw":")" + std::string(32, 'x') + R"(","serial")"));
}

TEST_F(RrmWorkerCoreTest, StopDuringAReportAsksTheStoreNoMore) {
    ON_CALL(driver, is_wids_enabled).WillByDefault([this](int radio) {
        run_flag = run_flag && radio == 0;
        return false;
    });
    link("connected");
    EXPECT_THAT(vaultd.paths(),
                ElementsAre("/orvanta/dca", "/orvanta/tpc", "/orvanta/load-balance-80211v"))
        << "of the first radio alone";
}

// --- Dispatch ---

class RefusedCommandTest : public RrmWorkerCoreTest,
                           public testing::WithParamInterface<const char*> {};

TEST_P(RefusedCommandTest, LeavesOneLineAndNoAnswer) {
    service_commands(GetParam());
    EXPECT_EQ(log.count("Ignoring"), 1);
    EXPECT_TRUE(log.contains(std::string{"Ignoring "} + GetParam() +
                             " because load balancer is not yet supported"));
    EXPECT_THAT(reports(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Commands, RefusedCommandTest,
                         testing::Values("rrm-blacklist", "rrm-probe-request",
                                         "rrm-disassoc-request", "rrm-client-assoc-ack"));

TEST_F(RrmWorkerCoreTest, CommandAndServiceNamesIgnoreCase) {
    service_sends(R"({"version":"2.4","service":"RRM","cmd":"RRM-Request-Mode"})");
    EXPECT_THAT(reports_of("rrm-mode-response"), SizeIs(1));
    service_sends(R"({"service":"Internal-IPC","cmd":"CONNECTED"})");
    EXPECT_EQ(subscribe_requests(), 1U);
}

TEST_F(RrmWorkerCoreTest, EveryCommandReachesItsHandler) {
    driver.hostapd_up = false;
    for (const char* cmd : {"rrm-info", "rrm-update", "rrm-request-mode"}) {
        service_commands(cmd);
        EXPECT_TRUE(
            log.contains(std::string{"Ignoring "} + cmd + " because hostapd is not running"));
    }
    service_commands("fbt-info");
    EXPECT_THAT(driver.fbt_resets, ElementsAre(UNKNOWN));
    service_commands("rrm-sta-overload", R"("radios":[{"id":0,"roam-count":1}])");
    EXPECT_TRUE(log.contains("is overloaded"));
}

TEST_F(RrmWorkerCoreTest, TrapEventsComeFromTheBusWithoutService) {
    subscribe_steering();
    bus_sends(
        R"({"command":"WiFi-Client-Trap","event":{"type":"auth","mac":"aa:bb:cc:00:00:01"}})");
    EXPECT_THAT(reports_of("rrm-client-assoc"), SizeIs(1));
}

class DroppedMessageTest : public RrmWorkerCoreTest,
                           public testing::WithParamInterface<std::string> {};

TEST_P(DroppedMessageTest, HasNoEffectFromTheServiceNorFromTheBus) {
    subscribe_steering();
    const auto lines = log.lines().size();
    service_sends(GetParam());
    bus_sends(GetParam());
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_EQ(log.lines().size(), lines);
    EXPECT_TRUE(peer().subscribed());
    EXPECT_TRUE(exists(connected_flag));
    EXPECT_THAT(driver.scans, IsEmpty());

    service_commands("rrm-request-mode");
    EXPECT_THAT(reports(), SizeIs(1)) << "and the worker goes on";
}

INSTANTIATE_TEST_SUITE_P(
    Messages, DroppedMessageTest,
    testing::Values(
        "", " ", "rrm", "{", "{]", "\"rrm\"", "null", "true", "42", "1e999", "[]",
        R"([{"service":"rrm","cmd":"rrm-request-mode","version":"2.4"}])", "{}",
        R"({"service":null,"cmd":"connected"})", R"({"service":{"rrm":1},"cmd":"rrm-info"})",
        R"({"service":["rrm"],"cmd":"rrm-info"})", R"({"service":1,"cmd":"rrm-info"})",
        R"({"version":"2.4","service":"rrm"})", R"({"version":"2.4","service":"rrm","cmd":null})",
        R"({"version":"2.4","service":"rrm","cmd":"rrm-unheard-of"})",
        R"({"version":"2.4","service":"rrm","cmd":{}})",
        R"({"version":"2.4","service":"rrm","cmd":"subscribe-response"})",
        R"({"version":"2.4","service":"wids-mac-service","cmd":"rrm-info"})",
        R"({"service":"internal-ipc"})", R"({"service":"internal-ipc","cmd":"status"})",
        R"({"service":"internal-ipc","cmd":7})", R"({"command":"get-response"})",
        R"({"command":{"wifi-client-trap":1}})", R"({"command":"wifi-client-trap"})",
        R"({"command":"wifi-client-trap","event":[]})",
        R"({"command":"wifi-client-trap","event":{"type":["auth"]}})",
        std::string{"{\"version\":\"2.4\",\0\"service\":\"rrm\"}", 34}, std::string{"\0", 1},
        std::string(100, '['), "{\"a\":" + std::string(100, '[') + std::string(100, ']') + "}"));

class OddMessageTest : public RrmWorkerCoreTest, public testing::WithParamInterface<std::string> {};

// What these do is settled elsewhere; here they must leave the worker alive and at work.
TEST_P(OddMessageTest, LeavesTheWorkerAtWork) {
    subscribe(R"({"use-80211v":1,"use-80211r":1})");
    for (const char* cmd : {"rrm-info", "rrm-update", "rrm-request-mode", "subscribe-response",
                            "fbt-info", "rrm-sta-overload"}) {
        service_commands(cmd, GetParam());
        EXPECT_TRUE(pass()) << cmd;
    }
    bus_sends(R"({"command":"wifi-client-trap",)" + GetParam() + "}");
    link("disconnected");
    link("connected");
    EXPECT_GE(subscribe_requests(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    Fields, OddMessageTest,
    testing::Values(
        R"("radios":1)", R"("radios":{})", R"("radios":[1,null,"x",[],{}])",
        R"("radios":[{"id":-1},{"id":99999999999999999999},{"id":2147483647},{"id":"1"}])",
        R"("radios":[{"id":{},"channel":[],"power":{},"bandwidth":"x"}],"use-tpc":1,"use-dca":1)",
        R"("radios":[{"id":0,"channel":-2147483648,"bandwidth":1e300,"power":99999999999}],)"
        R"("use-tpc":1,"use-dca":1)",
        R"("radios":[{"id":0,"roam-count":-5},{"id":1,"roam-count":99999999999}])",
        R"("rrm-scan-delay":-1,"rrm-scan-channels":{})",
        R"("rrm-scan-delay":99999999999,"rrm-scan-channels":"99999999999999999999 -5 x  ")",
        R"("status":[],"code":{},"domain":{},"config":[])",
        R"("status":"success","domain":["x"],"config":"config")",
        R"("status":"success","status":"error","code":503)",
        R"("vaps":[1,null,{"vap_id":-1,"radio_id":-1},{"vap_id":99999999999,"radio_id":7}])",
        R"("vaps":[{"vap_id":0,"radio_id":0,"r0-key-holder-id":{},"r1-key-holder-id":[],)"
        R"("remotes":{}}])",
        R"("802dot11k":[null,{"neighbour-mac":1,"vaps":[null,{},{"mac":7,"ssid":{}}]}])",
        R"("event":{"type":"auth","mac":{},"ssid":[],"dev":7,"rssi":"x","client-info":1})",
        "\"domain\":\"\xff\xfe\",\"status\":\"success\"",
        R"("domain":"a\u0000b","status":"success")"));

TEST_F(RrmWorkerCoreTest, TextBehindANulIsNotRead) {
    service_sends(std::string{"{\"service\":\"internal-ipc\",\"cmd\":\"connected\"}\0garbage", 50});
    EXPECT_EQ(subscribe_requests(), 1U);
}

TEST_F(RrmWorkerCoreTest, LastOfSeveralEqualKeysStands) {
    service_sends(
        R"({"version":"1.0","version":"2.4","service":"x","service":"rrm","cmd":"rrm-request-mode"})");
    EXPECT_THAT(reports_of("rrm-mode-response"), SizeIs(1));
}

TEST_F(RrmWorkerCoreTest, OnePassTakesOneMessageOfEachQueue) {
    for (safe_queue* queue : {&from_websocket, &from_ipc}) {
        for (int i = 0; i < 2; ++i) {
            const auto buffer = std::make_shared<buffer_info_t>();
            const std::string text =
                R"({"version":"2.4","service":"rrm","cmd":"rrm-request-mode"})";
            buffer->append(text.data(), static_cast<unsigned>(text.size()));
            queue->enqueue(buffer);
        }
    }
    worker->execute();
    EXPECT_THAT(reports(), SizeIs(2));
    worker->execute();
    EXPECT_THAT(reports(), SizeIs(4));
}

// --- Messages during a scan ---

TEST_F(RrmWorkerCoreTest, RrmInfoDuringAScanIsHandledAfterIt) {
    subscribe();
    begin_survey();
    service_commands("rrm-info", R"("use-80211v":1)");
    EXPECT_TRUE(log.contains("Pending message for delayed processing"));
    EXPECT_FALSE(peer().orvanta_use_80211v());
    worker->execute();
    EXPECT_FALSE(peer().orvanta_use_80211v()) << "the scan still runs";
    driver.in_progress = false;
    worker->execute();
    EXPECT_TRUE(log.contains("From pended"));
    EXPECT_TRUE(peer().orvanta_use_80211v());
}

TEST_F(RrmWorkerCoreTest, ParkedMessagesAreTakenOnePerPass) {
    subscribe();
    begin_survey();
    service_commands("fbt-info");
    service_commands("fbt-info");
    driver.in_progress = false;
    worker->execute();
    EXPECT_THAT(driver.fbt_resets, SizeIs(1));
    worker->execute();
    EXPECT_THAT(driver.fbt_resets, SizeIs(2));
}

TEST_F(RrmWorkerCoreTest, MessageDeferredASecondTimeIsDropped) {
    subscribe();
    begin_survey();
    service_commands("fbt-info");
    // The scan seems over when the worker takes the message, and runs when it looks at it.
    EXPECT_CALL(driver, is_in_progress)
        .WillOnce(Return(false))
        .WillRepeatedly(Return(true))
        .RetiresOnSaturation();
    worker->execute();
    EXPECT_TRUE(log.contains("From pended"));
    testing::Mock::VerifyAndClearExpectations(&driver);
    ON_CALL(driver, is_in_progress).WillByDefault([this] { return driver.in_progress; });
    driver.in_progress = false;
    worker->execute();
    EXPECT_THAT(driver.fbt_resets, IsEmpty());
}

TEST_F(RrmWorkerCoreTest, InternalAndTrapMessagesAreNotParked) {
    subscribe_steering();
    begin_survey();
    bus_sends(R"({"command":"wifi-client-trap","event":{"type":"auth"}})");
    EXPECT_THAT(reports_of("rrm-client-assoc"), SizeIs(1));
    link("disconnected");
    EXPECT_FALSE(peer().subscribed());
}

class AbortingCommandTest : public RrmWorkerCoreTest,
                            public testing::WithParamInterface<const char*> {};

TEST_P(AbortingCommandTest, StopsTheScanEmptiesTheTablesAndCancelsItsTimers) {
    subscribe();
    driver.radios[0].neighbours.emplace_back();
    begin_survey();
    advance(driver.scan_duration);
    ASSERT_THAT(peer().environment()[0], SizeIs(1));
    EXPECT_CALL(driver, stop(true)).Times(testing::AtLeast(1));

    service_commands(GetParam(), R"("rrm-scan-delay":100)");
    EXPECT_TRUE(log.contains(std::string{"Got "} + GetParam() + ". turning off the current scan."));
    EXPECT_THAT(peer().environment()[0], IsEmpty());
    EXPECT_FALSE(driver.in_progress);
    const auto scans = driver.scans.size();
    advance(99);
    EXPECT_THAT(driver.scans, SizeIs(scans)) << "timer 1 of the old survey is gone";
    EXPECT_THAT(reports_of("rrm-response"), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Commands, AbortingCommandTest,
                         testing::Values("rrm-update", "RRM-Request-Mode"));

TEST_F(RrmWorkerCoreTest, AbortedScanTakesADueReportOfAnEarlierOneWithIt) {
    subscribe();
    service_commands("rrm-update", R"("rrm-scan-delay":5,"vexor-rrm-scanning":1)");
    advance(5);
    advance(driver.scan_duration);
    ASSERT_FALSE(driver.in_progress) << "the report waits for 5 seconds";
    service_commands("rrm-update");
    ASSERT_TRUE(driver.in_progress);
    service_commands("rrm-request-mode");
    advance(5);
    EXPECT_THAT(reports_of("rrm-response"), IsEmpty());
}

TEST_F(RrmWorkerCoreTest, AbortedScanTakesAWaitingOneWithIt) {
    subscribe();
    service_commands("rrm-update", R"("rrm-scan-delay":5)");
    driver.in_progress = true;
    service_commands("rrm-request-mode");
    advance(5);
    EXPECT_THAT(driver.scans, IsEmpty());
}

TEST_F(RrmWorkerCoreTest, NewLinkCancelsTheDueReport) {
    subscribe();
    service_commands("rrm-update", R"("rrm-scan-delay":5,"vexor-rrm-scanning":1)");
    advance(5);
    advance(driver.scan_duration);
    subscribe();
    advance(5);
    EXPECT_THAT(reports_of("rrm-response"), IsEmpty());
}

TEST_F(RrmWorkerCoreTest, LinkLostDuringAScanDoesNotLeaveTheWorkerDeaf) {
    subscribe();
    driver.radios[0].neighbours.emplace_back();
    begin_survey();
    advance(driver.scan_duration);
    ASSERT_THAT(peer().environment()[0], SizeIs(1));

    link("disconnected");
    EXPECT_FALSE(driver.in_progress);
    EXPECT_THAT(peer().environment()[0], IsEmpty());
    link("connected");
    service_commands("subscribe-response", R"("status":"success")");
    EXPECT_TRUE(peer().subscribed());
    EXPECT_FALSE(log.contains("Pending message"));

    advance(100);
    EXPECT_THAT(reports_of("rrm-response"), IsEmpty()) << "nobody asked on this connection";
}

TEST_F(RrmWorkerCoreTest, LinkLostBeforeTheScanCancelsIt) {
    subscribe();
    service_commands("rrm-update", R"("rrm-scan-delay":5)");
    link("disconnected");
    advance(10);
    EXPECT_THAT(driver.scans, IsEmpty());
}

TEST_F(RrmWorkerCoreTest, LinkLostBeforeTheReportForgetsTheResult) {
    subscribe();
    driver.radios[0].neighbours.emplace_back();
    service_commands("rrm-update", R"("rrm-scan-delay":5,"vexor-rrm-scanning":1)");
    advance(5);
    advance(driver.scan_duration);
    ASSERT_THAT(peer().environment()[0], SizeIs(1));
    link("disconnected");
    EXPECT_THAT(peer().environment()[0], IsEmpty());
    forget_reports();
    advance(10);
    EXPECT_THAT(reports(), IsEmpty());
}

// --- Driver events ---

TEST_F(RrmWorkerCoreTest, EventsReachNoHandlerWhileNotSubscribed) {
    peer().orvanta_use_80211v() = true;
    send_event(RRM_STA_ROAM);
    send_event(RRM_CHANSPEC_ACSD);
    advance(20);
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(RrmWorkerCoreTest, RoamEventIsReportedWhenSteeringOrBlacklistingIsOn) {
    subscribe();
    send_event(RRM_STA_ROAM);
    EXPECT_THAT(reports(), IsEmpty());
    peer().blacklist_enabled() = true;
    send_event(RRM_STA_ROAM);
    EXPECT_THAT(reports_of("rrm-sta-roam"), SizeIs(1));
    peer().blacklist_enabled() = false;
    peer().orvanta_use_80211v() = true;
    send_event(RRM_STA_ROAM);
    EXPECT_THAT(reports_of("rrm-sta-roam"), SizeIs(2));
}

TEST_F(RrmWorkerCoreTest, AssociationAndUnknownEventsAreIgnored) {
    subscribe_steering();
    send_event(RRM_ASSOC_STATE_CHANGED);
    send_event(RRM_UNDEFINED_EVENT);
    send_event(static_cast<driver_event>(77));
    advance(20);
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(RrmWorkerCoreTest, ThreeChannelChangesFourSecondsApartGiveOneReportTenSecondsAfterTheThird) {
    subscribe();
    send_event(RRM_CHANSPEC_ACSD, 0);
    advance(4);
    send_event(RRM_CHANSPEC_ACSD, 1);
    advance(4);
    send_event(RRM_CHANSPEC_ACSD, 0);
    advance(9);
    EXPECT_THAT(reports(), IsEmpty());
    advance(1);
    EXPECT_THAT(reports_of("rrm-config-changed"), SizeIs(1));
    advance(60);
    EXPECT_THAT(reports(), SizeIs(1));
}

TEST_F(RrmWorkerCoreTest, LinkLossCancelsTheChannelChangeReport) {
    subscribe();
    send_event(RRM_CHANSPEC_ACSD);
    link("disconnected");
    subscribe();
    advance(20);
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(RrmWorkerCoreTest, ProbeAndBlacklistTablesDoNotAge) {
    const auto mac = libhubd::MacAddr::from_str("aa:bb:cc:00:00:01");
    peer().sta_environment()[0][mac] = {-60, 5, 0};
    peer().sta_block()[0][mac] = 5;
    subscribe_steering();
    for (int second = 0; second < 10; ++second)
        advance(1);
    EXPECT_EQ(peer().sta_environment()[0][mac].timeout, 5);
    EXPECT_EQ(peer().sta_block()[0][mac], 5);
    EXPECT_THAT(driver.unblocked, IsEmpty());
}

}  // namespace
