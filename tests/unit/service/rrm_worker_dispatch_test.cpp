// Which message reaches which handler, and which waits for the end of a scan.
#include "rrm_worker_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;
using testing::SizeIs;

class RrmWorkerDispatchTest : public RrmWorkerTest {
  protected:
    // A message whose effect shows at the driver.
    static std::string power_command(int power) {
        return command("rrm-info",
                       R"("use-tpc":1,"radios":[{"id":0,"power":)" + std::to_string(power) + "}]");
    }
    [[nodiscard]] std::vector<int> powers_set() const {
        std::vector<int> powers;
        for (const IfnameValue& call : driver.power_calls)
            powers.push_back(call.second);
        return powers;
    }
};

// --- Dispatch ---

class RefusedCommandTest : public RrmWorkerDispatchTest,
                           public testing::WithParamInterface<const char*> {};

TEST_P(RefusedCommandTest, LeavesOneLineAndNoAnswer) {
    service_commands(GetParam());
    EXPECT_EQ(log.count("Ignoring"), 1);
    EXPECT_TRUE(log.contains(std::string{"info: Ignoring "} + GetParam() +
                             " because load balancer is not yet supported"));
    EXPECT_THAT(reports(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Commands, RefusedCommandTest,
                         testing::Values("rrm-blacklist", "rrm-probe-request",
                                         "rrm-disassoc-request", "rrm-client-assoc-ack"));

TEST_F(RrmWorkerDispatchTest, CommandAndServiceNamesIgnoreCase) {
    service_sends(R"({"version":"2.4","service":"RRM","cmd":"RRM-Request-Mode"})");
    EXPECT_THAT(reports_of("rrm-mode-response"), SizeIs(1));
    service_sends(R"({"service":"Internal-IPC","cmd":"CONNECTED"})");
    EXPECT_EQ(subscribe_requests(), 1U);
}

TEST_F(RrmWorkerDispatchTest, EveryCommandReachesItsHandler) {
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

TEST_F(RrmWorkerDispatchTest, TrapEventsComeFromTheBusWithoutService) {
    subscribe_steering();
    bus_sends(
        R"({"command":"WiFi-Client-Trap","event":{"type":"auth","mac":"aa:bb:cc:00:00:01"}})");
    EXPECT_THAT(reports_of("rrm-client-assoc"), SizeIs(1));
}

class DroppedMessageTest : public RrmWorkerDispatchTest,
                           public testing::WithParamInterface<std::string> {};

TEST_P(DroppedMessageTest, HasNoEffectFromTheServiceNorFromTheBus) {
    subscribe_steering();
    const auto lines = log.lines().size();
    service_sends(GetParam());
    bus_sends(GetParam());
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_EQ(log.lines().size(), lines);
    EXPECT_TRUE(is_subscribed());
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

class OddMessageTest : public RrmWorkerDispatchTest,
                       public testing::WithParamInterface<std::string> {};

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

TEST_F(RrmWorkerDispatchTest, TextBehindANulIsNotRead) {
    service_sends(std::string{"{\"service\":\"internal-ipc\",\"cmd\":\"connected\"}\0garbage", 50});
    EXPECT_EQ(subscribe_requests(), 1U);
}

TEST_F(RrmWorkerDispatchTest, LastOfSeveralEqualKeysStands) {
    service_sends(
        R"({"version":"1.0","version":"2.4","service":"x","service":"rrm","cmd":"rrm-request-mode"})");
    EXPECT_THAT(reports_of("rrm-mode-response"), SizeIs(1));
}

TEST_F(RrmWorkerDispatchTest, OnePassTakesOneMessageOfEachQueue) {
    for (safe_queue* queue : {&from_websocket, &from_ipc}) {
        for (int i = 0; i < 2; ++i)
            put(*queue, command("rrm-request-mode"));
    }
    worker->execute();
    EXPECT_THAT(reports(), SizeIs(2));
    worker->execute();
    EXPECT_THAT(reports(), SizeIs(4));
}

// --- The order of one pass ---

TEST_F(RrmWorkerDispatchTest, DueTimersComeBeforeMessages) {
    link("connected");
    clock.advance(30);
    put(from_websocket, command("subscribe-response", R"("status":"success")"));
    worker->execute();
    EXPECT_EQ(subscribe_requests(), 2U);
}

TEST_F(RrmWorkerDispatchTest, TheServicesMessageComesBeforeThatOfTheBus) {
    put(from_ipc, power_command(2));
    put(from_websocket, power_command(1));
    worker->execute();
    EXPECT_THAT(powers_set(), ElementsAre(1, 2));
}

TEST_F(RrmWorkerDispatchTest, AParkedMessageComesAfterTheNewOnes) {
    subscribe();
    begin_survey();
    service_sends(power_command(3));
    driver.in_progress = false;
    put(from_ipc, power_command(2));
    put(from_websocket, power_command(1));
    worker->execute();
    EXPECT_THAT(powers_set(), ElementsAre(1, 2, 3));
}

TEST_F(RrmWorkerDispatchTest, TheDriversEventsComeLast) {
    subscribe();
    begin_survey();
    switch_steering(true);
    driver.in_progress = false;
    send_event(RRM_STA_ROAM);
    EXPECT_THAT(reports_of("rrm-sta-roam"), SizeIs(1)) << "steering is on since this pass";

    put(from_websocket, R"({"service":"internal-ipc","cmd":"disconnected"})");
    send_event(RRM_STA_ROAM);
    EXPECT_THAT(reports_of("rrm-sta-roam"), SizeIs(1));
}

// --- Messages during a scan ---

TEST_F(RrmWorkerDispatchTest, RrmInfoDuringAScanIsHandledAfterIt) {
    subscribe();
    begin_survey();
    switch_steering(true);
    EXPECT_TRUE(log.contains("Pending message for delayed processing"));
    EXPECT_FALSE(is_steering());
    worker->execute();
    EXPECT_FALSE(is_steering()) << "the scan still runs";
    driver.in_progress = false;
    worker->execute();
    EXPECT_TRUE(log.contains("From pended"));
    EXPECT_TRUE(is_steering());
}

TEST_F(RrmWorkerDispatchTest, MessageOfTheBusIsParkedLikeThatOfTheService) {
    subscribe();
    begin_survey();
    bus_sends(power_command(7));
    EXPECT_TRUE(log.contains("Pending message for delayed processing"));
    EXPECT_THAT(powers_set(), IsEmpty());
    driver.in_progress = false;
    worker->execute();
    EXPECT_THAT(powers_set(), ElementsAre(7));
}

TEST_F(RrmWorkerDispatchTest, MessageWithoutCommandIsParkedAndThenDropped) {
    subscribe();
    begin_survey();
    service_sends(R"({"version":"2.4","service":"rrm"})");
    EXPECT_TRUE(log.contains("Pending message for delayed processing"));
    driver.in_progress = false;
    worker->execute();
    EXPECT_TRUE(log.contains("From pended"));
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(RrmWorkerDispatchTest, VersionOfAParkedMessageIsLookedAtAfterTheScan) {
    subscribe();
    begin_survey();
    service_sends(R"({"version":"1.0","service":"rrm","cmd":"rrm-info"})");
    EXPECT_TRUE(log.contains("Pending message for delayed processing"));
    EXPECT_THAT(reports(), IsEmpty());
    driver.in_progress = false;
    worker->execute();
    EXPECT_THAT(reports_of("unsubscribe-request"), SizeIs(1));
}

TEST_F(RrmWorkerDispatchTest, ParkedMessagesAreTakenOnePerPass) {
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

TEST_F(RrmWorkerDispatchTest, MessageDeferredASecondTimeIsDropped) {
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

TEST_F(RrmWorkerDispatchTest, InternalAndTrapMessagesAreNotParked) {
    subscribe_steering();
    begin_survey();
    bus_sends(R"({"command":"wifi-client-trap","event":{"type":"auth"}})");
    EXPECT_THAT(reports_of("rrm-client-assoc"), SizeIs(1));
    link("disconnected");
    EXPECT_FALSE(is_subscribed());
}

class AbortingCommandTest : public RrmWorkerDispatchTest,
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

TEST_F(RrmWorkerDispatchTest, AbortedScanTakesADueReportOfAnEarlierOneWithIt) {
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

TEST_F(RrmWorkerDispatchTest, AbortedScanTakesAWaitingOneWithIt) {
    subscribe();
    service_commands("rrm-update", R"("rrm-scan-delay":5)");
    driver.in_progress = true;
    service_commands("rrm-request-mode");
    advance(5);
    EXPECT_THAT(driver.scans, IsEmpty());
}

TEST_F(RrmWorkerDispatchTest, NewLinkCancelsTheDueReport) {
    subscribe();
    service_commands("rrm-update", R"("rrm-scan-delay":5,"vexor-rrm-scanning":1)");
    advance(5);
    advance(driver.scan_duration);
    subscribe();
    advance(5);
    EXPECT_THAT(reports_of("rrm-response"), IsEmpty());
}

TEST_F(RrmWorkerDispatchTest, LinkLostDuringAScanDoesNotLeaveTheWorkerDeaf) {
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
    EXPECT_TRUE(is_subscribed());
    EXPECT_FALSE(log.contains("Pending message"));

    advance(100);
    EXPECT_THAT(reports_of("rrm-response"), IsEmpty()) << "nobody asked on this connection";
}

TEST_F(RrmWorkerDispatchTest, LinkLostBeforeTheScanCancelsIt) {
    subscribe();
    service_commands("rrm-update", R"("rrm-scan-delay":5)");
    link("disconnected");
    advance(10);
    EXPECT_THAT(driver.scans, IsEmpty());
}

TEST_F(RrmWorkerDispatchTest, LinkLostBeforeTheReportForgetsTheResult) {
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

}  // namespace
