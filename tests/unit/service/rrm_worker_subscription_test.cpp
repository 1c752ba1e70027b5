// The subscription to the service and the check of the protocol version.
#include "rrm_worker_fixture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* factory =
    R"("factory":{"board":"WEP-3ax","hw":"1v2","serial":"WP42000017","mac":"00:11:22:33:44:50"})";

constexpr const char* unlink_message =
    R"({"version":"2.4","service":"internal-ipc","cmd":"unlink"})";

std::string unsubscribe_request() {
    return std::string{R"({"version":"2.4","service":"rrm","cmd":"unsubscribe-request",)"} +
           R"("ap-mac":"00:11:22:33:44:50","domain":"site-1",)" + factory + "}";
}

using RrmWorkerSubscriptionTest = RrmWorkerTest;

// --- Version check ---

class VersionTest : public RrmWorkerSubscriptionTest,
                    public testing::WithParamInterface<const char*> {};

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
    EXPECT_TRUE(log.contains("error: Unsubscribe from RRM service: incorrect version"));
    EXPECT_TRUE(log.contains("info: Unsubscribe from RRM service"));
    EXPECT_FALSE(exists(connected_flag));
    EXPECT_TRUE(is_subscribed()) << "until the link is reported down";
}

INSTANTIATE_TEST_SUITE_P(
    Versions, RefusedVersionTest,
    testing::Values("", R"(,"version":"2.3")", R"(,"version":"1.12")", R"(,"version":"2")",
                    R"(,"version":"2.")", R"(,"version":".4")", R"(,"version":"")",
                    R"(,"version":"two.four")", R"(,"version":"2,4")", R"(,"version":"-3.0")",
                    R"(,"version":null)", R"(,"version":{})", R"(,"version":[2,4])",
                    R"(,"version":2)", R"(,"version":"99999999999999999999999.1")"));

TEST_F(RrmWorkerSubscriptionTest, RefusedVersionStopsAllTimers) {
    link("connected");
    service_sends(R"({"version":"1.0","service":"rrm","cmd":"rrm-info"})");
    forget_reports();
    advance(31);
    EXPECT_EQ(subscribe_requests(), 0U);
}

TEST_F(RrmWorkerSubscriptionTest, RefusedVersionAfterAScanLeavesNoScanRunning) {
    subscribe();
    begin_survey();
    service_sends(R"({"version":"2.3","service":"rrm","cmd":"rrm-update"})");
    EXPECT_FALSE(driver.in_progress);
    EXPECT_THAT(driver.scans, SizeIs(1));
    EXPECT_THAT(reports(), ElementsAre(unsubscribe_request(), unlink_message));
}

TEST_F(RrmWorkerSubscriptionTest, UnknownCommandOfARefusedVersionUnsubscribes) {
    service_sends(R"({"version":"1.0","service":"rrm","cmd":"rrm-unheard-of"})");
    EXPECT_THAT(reports(), ElementsAre(unsubscribe_request(), unlink_message));
}

TEST_F(RrmWorkerSubscriptionTest, MessageWithoutCommandIsDroppedWhateverItsVersion) {
    subscribe();
    service_sends(R"({"version":"1.0","service":"rrm"})");
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_TRUE(exists(connected_flag));
}

// --- Subscription ---

TEST_F(RrmWorkerSubscriptionTest, ConnectedSendsTheSubscribeRequest) {
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
    EXPECT_EQ(answer_to_hostapds_start(), "subscribe-request");
}

TEST_F(RrmWorkerSubscriptionTest, RequestIsRepeatedAfter30Then60Then120SecondsForEver) {
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

TEST_F(RrmWorkerSubscriptionTest, ResponseEndsTheRepetition) {
    link("connected");
    service_commands("subscribe-response", R"("status":"SUCCESS")");
    EXPECT_TRUE(exists(connected_flag));
    advance(200);
    EXPECT_EQ(subscribe_requests(), 1U);
    EXPECT_EQ(answer_to_hostapds_start(), "rrm-config-changed");
}

TEST_F(RrmWorkerSubscriptionTest, ResponseToARepeatedRequestEndsTheRepetition) {
    link("connected");
    advance(30);
    service_commands("subscribe-response", R"("status":"success")");
    advance(200);
    EXPECT_EQ(subscribe_requests(), 2U);
}

TEST_F(RrmWorkerSubscriptionTest, RepeatedRequestLeavesAReportDue) {
    link("connected");
    service_commands("rrm-update", R"("rrm-scan-delay":20,"vexor-rrm-scanning":1)");
    advance(20);
    advance(driver.scan_duration);
    advance(4);
    EXPECT_EQ(subscribe_requests(), 2U);
    advance(16);
    EXPECT_THAT(reports_of("rrm-response"), SizeIs(1));
}

TEST_F(RrmWorkerSubscriptionTest, ResponseWithoutStatusIsIgnored) {
    link("connected");
    service_commands("subscribe-response", R"("code":200,"domain":"elsewhere")");
    EXPECT_FALSE(is_subscribed());
    EXPECT_EQ(domain(), "site-1");
    advance(30);
    EXPECT_EQ(subscribe_requests(), 2U);
    EXPECT_EQ(answer_to_hostapds_start(), "subscribe-request");
}

TEST_F(RrmWorkerSubscriptionTest, Two503ResponsesGive60Then120SecondsAndAThird120Again) {
    link("connected");
    std::size_t expected = 1;
    for (const int wait : {60, 120, 120}) {
        answer_503();
        EXPECT_TRUE(log.contains("Reconnect after " + std::to_string(wait) + " sec"));
    }
    advance(119);
    EXPECT_EQ(subscribe_requests(), expected);
    advance(1);
    EXPECT_EQ(subscribe_requests(), ++expected);
}

TEST_F(RrmWorkerSubscriptionTest, BusyServiceIsAskedAgainAtHostapdsStart) {
    link("connected");
    answer_503();
    EXPECT_FALSE(is_subscribed());
    EXPECT_EQ(answer_to_hostapds_start(), "subscribe-request");
}

TEST_F(RrmWorkerSubscriptionTest, OtherRefusalEndsTheAttemptsUntilTheNextLink) {
    link("connected");
    service_commands("subscribe-response", R"("status":"error","code":403)");
    EXPECT_EQ(answer_to_hostapds_start(), "");
    advance(600);
    EXPECT_EQ(subscribe_requests(), 1U);
    link("connected");
    EXPECT_EQ(subscribe_requests(), 2U);
}

TEST_F(RrmWorkerSubscriptionTest, SuccessIsSuccessWhateverItsCode) {
    link("connected");
    service_commands("subscribe-response", R"("status":"success","code":503)");
    EXPECT_TRUE(exists(connected_flag));
    advance(200);
    EXPECT_EQ(subscribe_requests(), 1U);
}

TEST_F(RrmWorkerSubscriptionTest, RefusalWhileSubscribedLeavesTheSubscription) {
    subscribe_steering();
    service_commands("subscribe-response", R"("status":"error","code":403)");
    advance(600);
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_TRUE(exists(connected_flag));
    bus_sends(trap_event("auth"));
    EXPECT_THAT(reports_of("rrm-client-assoc"), SizeIs(1));
}

TEST_F(RrmWorkerSubscriptionTest, BusyServiceIsAskedAgainAndLeavesTheSubscription) {
    subscribe_steering();
    answer_503();
    bus_sends(trap_event("auth"));
    EXPECT_THAT(reports_of("rrm-client-assoc"), SizeIs(1));
    advance(60);
    EXPECT_EQ(subscribe_requests(), 1U);
}

TEST_F(RrmWorkerSubscriptionTest, ConnectedPutsTheRetryPeriodBackTo30Seconds) {
    link("connected");
    answer_503();
    link("connected");
    advance(30);
    EXPECT_EQ(subscribe_requests(), 3U);
}

TEST_F(RrmWorkerSubscriptionTest, SuccessDoesNotResetTheRetryPeriod) {
    link("connected");
    answer_503();
    service_commands("subscribe-response", R"("status":"success")");
    answer_503();
    EXPECT_TRUE(log.contains("Reconnect after 120 sec"));
}

TEST_F(RrmWorkerSubscriptionTest, SuccessTakesDomainAndConfigAndForgetsSteeringOptions) {
    link("connected");
    peer().blacklist_enabled() = true;
    peer().no_balance_enterprise() = true;
    service_commands("subscribe-response",
                     R"("status":"success","domain":"site-2","config":{"use-80211v":1})");
    EXPECT_TRUE(is_steering());
    EXPECT_FALSE(peer().blacklist_enabled());
    EXPECT_FALSE(peer().no_balance_enterprise());
    remove(hostapd_pid);
    EXPECT_TRUE(pass());
    EXPECT_EQ(last_report(),
              std::string{R"({"version":"2.4","service":"rrm","cmd":"rrm-disassoc-all-clients",)"} +
                  R"("ap-mac":"00:11:22:33:44:50","domain":"site-2",)" + factory + "}");
    EXPECT_TRUE(log.contains("Send disassoc all clients to server"));
}

TEST_F(RrmWorkerSubscriptionTest, EmptyDomainIsADomain) {
    link("connected");
    service_commands("subscribe-response", R"("status":"success","domain":"")");
    service_commands("rrm-request-mode");
    EXPECT_THAT(last_report(), HasSubstr(R"("ap-mac":"00:11:22:33:44:50","domain":"","radios")"));
}

TEST_F(RrmWorkerSubscriptionTest, SuccessWithoutADomainKeepsTheOneThatIsKnown) {
    link("connected");
    service_commands("subscribe-response", R"("status":"success","domain":null)");
    EXPECT_EQ(domain(), "site-1");
}

TEST_F(RrmWorkerSubscriptionTest, SuccessWithoutConfigAppliesNothing) {
    switch_steering(true);
    link("connected");
    service_commands("subscribe-response", R"("status":"success","config":null)");
    EXPECT_TRUE(is_steering());
}

TEST_F(RrmWorkerSubscriptionTest, WithoutHostapdTheRequestWaitsForItsStart) {
    driver.hostapd_up = false;
    link("connected");
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_TRUE(log.contains("Waiting for hostapd to start before sending subscribe-request"));
    advance(600);
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_EQ(answer_to_hostapds_start(), "subscribe-request");
}

TEST_F(RrmWorkerSubscriptionTest, RequestThatWaitsForHostapdIsNotRepeatedMeanwhile) {
    link("connected");
    driver.hostapd_up = false;
    link("connected");
    advance(30);
    EXPECT_FALSE(log.contains("Not sending subscribe-request"));
    EXPECT_EQ(subscribe_requests(), 1U);
}

TEST_F(RrmWorkerSubscriptionTest, DisconnectedForgetsARequestThatWaitsForHostapd) {
    driver.hostapd_up = false;
    link("connected");
    link("disconnected");
    EXPECT_EQ(answer_to_hostapds_start(), "");
    EXPECT_TRUE(driver.hostapd_up);
}

TEST_F(RrmWorkerSubscriptionTest, SentryModeSubscribesWithoutHostapd) {
    driver.hostapd_up = false;
    driver.sentry_mode = true;
    link("connected");
    EXPECT_EQ(subscribe_requests(), 1U);
}

TEST_F(RrmWorkerSubscriptionTest, RetryWithoutHostapdSendsNothingAndTriesAgain) {
    link("connected");
    driver.hostapd_up = false;
    advance(30);
    EXPECT_EQ(subscribe_requests(), 1U);
    EXPECT_TRUE(log.contains("Not sending subscribe-request because hostapd is not running"));
    driver.hostapd_up = true;
    advance(60);
    EXPECT_EQ(subscribe_requests(), 2U);
}

TEST_F(RrmWorkerSubscriptionTest, DisconnectedStopsTheRequestsAndClearsTheSubscription) {
    subscribe();
    link("disconnected");
    EXPECT_FALSE(exists(connected_flag));
    EXPECT_EQ(answer_to_hostapds_start(), "");
    EXPECT_TRUE(log.contains("Disconnected from RRM service - stop all timers"));

    link("connected");
    link("disconnected");
    forget_reports();
    advance(600);
    EXPECT_THAT(reports(), IsEmpty());
}

}  // namespace
