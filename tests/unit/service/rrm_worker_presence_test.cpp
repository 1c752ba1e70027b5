// hostapd and guardd come and go.
#include <cstdlib>
#include <ctime>

#include "rrm_worker_fixture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::InSequence;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StrEq;

class RrmWorkerPresenceTest : public RrmWorkerTest {
  protected:
    // hostapd dies, and the worker notices.
    void stop_hostapd() {
        remove(hostapd_pid);
        ASSERT_TRUE(pass());
    }
    void start_hostapd() {
        touch(hostapd_pid);
        announce(notify_hostapd_started);
    }
    bool condition() { return worker->condition(run_flag); }
};

// A time zone that the process has not read yet.
class NewTimezone {
  public:
    NewTimezone() {
        set("UTC0");
        tzset();
        set("XYZ-7");
    }
    ~NewTimezone() {
        unsetenv("TZ");
        tzset();
    }
    NewTimezone(const NewTimezone&) = delete;
    NewTimezone& operator=(const NewTimezone&) = delete;

    [[nodiscard]] static bool is_read() { return timezone == -7 * 3600; }

  private:
    static void set(const char* zone) { setenv("TZ", zone, 1); }
};

// --- Connecting ---

TEST_F(RrmWorkerPresenceTest, ConnectsToHostapdFirst) {
    touch(guardd_pid);
    EXPECT_TRUE(worker->__connect());
    EXPECT_TRUE(log.contains("Connected to hostapd"));
    EXPECT_FALSE(log.contains("Connected to guardd"));
}

TEST_F(RrmWorkerPresenceTest, ConnectsToGuarddWithoutHostapd) {
    remove(hostapd_pid);
    touch(guardd_pid);
    EXPECT_TRUE(worker->__connect());
    EXPECT_TRUE(log.contains("Connected to guardd"));
}

TEST_F(RrmWorkerPresenceTest, ConnectsToNobodyWithoutPidFiles) {
    remove(hostapd_pid);
    EXPECT_FALSE(worker->__connect());
    EXPECT_FALSE(log.contains("Connected"));
}

TEST_F(RrmWorkerPresenceTest, ConnectLetsDueTimersFire) {
    link("connected");
    forget_reports();
    clock.advance(30);
    worker->__connect();
    EXPECT_THAT(reports_of("subscribe-request"), SizeIs(1));
}

// --- Notify files ---

TEST_F(RrmWorkerPresenceTest, SpecificFilesWithoutTheGeneralOneAreLeftAlone) {
    subscribe();
    for (const char* path :
         {notify_hostapd_started, notify_guardd_started, notify_config_updated, notify_timezone})
        touch(path);
    EXPECT_CALL(driver, set_vapcontext).Times(0);
    EXPECT_TRUE(pass());
    EXPECT_TRUE(exists(notify_hostapd_started));
    EXPECT_TRUE(exists(notify_guardd_started));
    EXPECT_TRUE(exists(notify_config_updated));
    EXPECT_TRUE(exists(notify_timezone));
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(RrmWorkerPresenceTest, GeneralFileAloneIsRemovedAndMeansNothing) {
    subscribe();
    touch(notify);
    EXPECT_TRUE(pass());
    EXPECT_FALSE(exists(notify));
    EXPECT_THAT(reports(), IsEmpty());
}

// A folder stands for a file of another owner, which unlink(2) does not remove either.
TEST_F(RrmWorkerPresenceTest, GeneralFileThatCannotBeRemovedIsLookedBehind) {
    subscribe();
    std::filesystem::create_directory(root + notify);
    touch(notify_config_updated);
    EXPECT_TRUE(pass());
    EXPECT_TRUE(exists(notify));
    EXPECT_FALSE(exists(notify_config_updated));
    EXPECT_THAT(reports_of("rrm-config-changed"), SizeIs(1));
}

TEST_F(RrmWorkerPresenceTest, SpecificFileThatCannotBeRemovedHasHappened) {
    subscribe();
    std::filesystem::create_directory(root + notify_config_updated);
    touch(notify);
    EXPECT_TRUE(pass());
    EXPECT_THAT(reports_of("rrm-config-changed"), SizeIs(1));
    EXPECT_TRUE(pass());
    EXPECT_THAT(reports(), SizeIs(1)) << "once for each general file";
}

TEST_F(RrmWorkerPresenceTest, HostapdStartInitializesTheDriverInOrder) {
    driver.hostapd_up = false;
    announce(notify_hostapd_started);
    touch(notify_guardd_started);
    {
        const InSequence order;
        EXPECT_CALL(driver, set_hostapd_initialized(true));
        EXPECT_CALL(driver, close_vapcontext());
        EXPECT_CALL(driver, set_vapcontext());
        EXPECT_CALL(driver, init());
    }
    EXPECT_TRUE(condition());
    EXPECT_FALSE(exists(notify));
    EXPECT_FALSE(exists(notify_hostapd_started));
    EXPECT_FALSE(exists(notify_guardd_started)) << "hostapd's start makes guardd's moot";
    EXPECT_TRUE(log.contains("process_hostapd_started : initializing"));
    EXPECT_FALSE(log.contains("process_guardd_started"));
    testing::Mock::VerifyAndClearExpectations(&driver);
}

TEST_F(RrmWorkerPresenceTest, HostapdStartWithoutPidFileIsForgotten) {
    remove(hostapd_pid);
    announce(notify_hostapd_started);
    EXPECT_CALL(driver, set_vapcontext).Times(0);
    condition();
    EXPECT_FALSE(exists(notify_hostapd_started));
}

TEST_F(RrmWorkerPresenceTest, HostapdStartSendsTheWaitingSubscribeRequest) {
    driver.hostapd_up = false;
    link("connected");
    announce(notify_hostapd_started);
    EXPECT_TRUE(pass());
    EXPECT_THAT(reports_of("subscribe-request"), SizeIs(1));
    EXPECT_TRUE(log.contains("process_started : subscribing"));
    advance(30);
    EXPECT_THAT(reports_of("subscribe-request"), SizeIs(2)) << "and timer 2 runs";
}

TEST_F(RrmWorkerPresenceTest, HostapdStartWhileSubscribedReportsTheConfiguration) {
    subscribe();
    announce(notify_hostapd_started);
    touch(notify_config_updated);
    EXPECT_TRUE(pass());
    EXPECT_THAT(reports(), ElementsAre(HasSubstr(R"("cmd":"rrm-config-changed")")))
        << "one report covers the update as well";
    EXPECT_TRUE(log.contains("process_started : subscribed"));
    EXPECT_FALSE(exists(notify_config_updated));
}

TEST_F(RrmWorkerPresenceTest, HostapdStartPutsTheRetryPeriodBackTo30Seconds) {
    link("connected");
    answer_503();
    announce(notify_hostapd_started);
    EXPECT_TRUE(pass());
    EXPECT_EQ(subscribe_requests(), 2U);
    advance(30);
    EXPECT_EQ(subscribe_requests(), 3U);
    advance(60);
    EXPECT_EQ(subscribe_requests(), 4U);
}

TEST_F(RrmWorkerPresenceTest, HostapdStartLeavesAReportDue) {
    link("connected");
    service_commands("rrm-update", R"("rrm-scan-delay":5,"vexor-rrm-scanning":1)");
    advance(5);
    advance(driver.scan_duration);
    EXPECT_EQ(answer_to_hostapds_start(), "subscribe-request");
    advance(5);
    EXPECT_THAT(reports_of("rrm-response"), SizeIs(1));
}

TEST_F(RrmWorkerPresenceTest, HostapdStartWhileSubscribedLeavesTheRetryPeriod) {
    link("connected");
    answer_503();
    service_commands("subscribe-response", R"("status":"success")");
    announce(notify_hostapd_started);
    EXPECT_TRUE(pass());
    answer_503();
    EXPECT_TRUE(log.contains("Reconnect after 120 sec"));
}

TEST_F(RrmWorkerPresenceTest, ReportsFollowTheDriversCallsAtAStartOfHostapd) {
    subscribe();
    EXPECT_CALL(driver, init()).WillOnce([this] { EXPECT_THAT(reports(), IsEmpty()); });
    announce(notify_hostapd_started);
    EXPECT_TRUE(pass());
    testing::Mock::VerifyAndClearExpectations(&driver);
    EXPECT_THAT(reports_of("rrm-config-changed"), SizeIs(1));
}

TEST_F(RrmWorkerPresenceTest, ReportsFollowTheDriversCallAtAStartOfGuardd) {
    driver.hostapd_up = false;
    subscribe();
    EXPECT_CALL(driver, set_vapcontext()).WillOnce([this] { EXPECT_THAT(reports(), IsEmpty()); });
    announce(notify_guardd_started);
    EXPECT_TRUE(pass());
    testing::Mock::VerifyAndClearExpectations(&driver);
    EXPECT_THAT(reports_of("rrm-config-changed"), SizeIs(1));
}

TEST_F(RrmWorkerPresenceTest, HostapdStartWithoutLinkSendsNothing) {
    announce(notify_hostapd_started);
    EXPECT_TRUE(pass());
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_FALSE(log.contains("process_started"));
}

TEST_F(RrmWorkerPresenceTest, GuarddStartFirstStopsHostapd) {
    subscribe();
    announce(notify_guardd_started);
    {
        const InSequence order;
        EXPECT_CALL(driver, set_hostapd_initialized(false));
        EXPECT_CALL(driver, close_vapcontext());
        EXPECT_CALL(driver, set_vapcontext());
    }
    EXPECT_TRUE(condition());
    testing::Mock::VerifyAndClearExpectations(&driver);
    EXPECT_FALSE(exists(notify_guardd_started));
    EXPECT_THAT(reports(), ElementsAre(HasSubstr("rrm-disassoc-all-clients"),
                                       HasSubstr("rrm-config-changed")));
    EXPECT_TRUE(log.contains("process_hostapd_stopped : deinitializing"));
    EXPECT_TRUE(log.contains("process_guardd_started : initializing"));
}

TEST_F(RrmWorkerPresenceTest, GuarddStartWithoutHostapdReadsTheRadiosAlone) {
    driver.hostapd_up = false;
    EXPECT_CALL(driver, set_vapcontext()).WillOnce([this] { driver.sentry_mode = true; });
    EXPECT_CALL(driver, close_vapcontext()).Times(0);
    EXPECT_CALL(driver, init()).Times(0);
    link("connected");
    announce(notify_guardd_started);
    EXPECT_TRUE(pass());
    EXPECT_THAT(reports_of("subscribe-request"), SizeIs(1));
    testing::Mock::VerifyAndClearExpectations(&driver);
}

TEST_F(RrmWorkerPresenceTest, ConfigurationUpdateIsReportedWhenSubscribedOnly) {
    announce(notify_config_updated);
    EXPECT_TRUE(pass());
    EXPECT_FALSE(exists(notify_config_updated));
    EXPECT_THAT(reports(), IsEmpty());

    subscribe();
    announce(notify_config_updated);
    EXPECT_TRUE(pass());
    EXPECT_THAT(reports(), ElementsAre(HasSubstr(R"("cmd":"rrm-config-changed")")));
}

TEST_F(RrmWorkerPresenceTest, TimezoneChangeIsReadAnew) {
    const NewTimezone zone;
    EXPECT_TRUE(pass());
    EXPECT_EQ(timezone, 0);
    announce(notify_timezone);
    EXPECT_TRUE(pass());
    EXPECT_EQ(timezone, -7 * 3600);
    EXPECT_FALSE(exists(notify_timezone));
}

TEST_F(RrmWorkerPresenceTest, OnlyATimezoneChangeReadsTheTimezone) {
    const NewTimezone zone;
    subscribe();
    for (const char* specific :
         {notify, notify_config_updated, notify_hostapd_started, notify_guardd_started}) {
        announce(specific);
        EXPECT_TRUE(pass());
        EXPECT_FALSE(NewTimezone::is_read()) << specific;
    }
}

TEST_F(RrmWorkerPresenceTest, TimezoneChangeIsNoConfigurationUpdate) {
    const NewTimezone zone;
    subscribe();
    announce(notify_timezone);
    EXPECT_TRUE(pass());
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(RrmWorkerPresenceTest, ReportedUpdateLeavesTheTimezoneToBeRead) {
    const NewTimezone zone;
    subscribe();
    touch(notify_config_updated);
    announce(notify_timezone);
    EXPECT_TRUE(pass());
    EXPECT_THAT(reports_of("rrm-config-changed"), SizeIs(1));
    EXPECT_TRUE(NewTimezone::is_read());
}

TEST_F(RrmWorkerPresenceTest, StartsUpdatesAndTimezonesAreLookedAtInOnePass) {
    for (const char* start : {notify_hostapd_started, notify_guardd_started}) {
        const NewTimezone zone;
        touch(start);
        touch(notify_config_updated);
        announce(notify_timezone);
        EXPECT_TRUE(pass());
        EXPECT_FALSE(exists(start));
        EXPECT_FALSE(exists(notify_config_updated));
        EXPECT_FALSE(exists(notify_timezone));
        EXPECT_TRUE(NewTimezone::is_read()) << start;
    }
}

// --- Presence ---

TEST_F(RrmWorkerPresenceTest, RunFlagEndsTheConditionWithoutLookingAtFiles) {
    run_flag = false;
    touch(notify);
    EXPECT_FALSE(condition());
    EXPECT_TRUE(exists(notify));
}

TEST_F(RrmWorkerPresenceTest, StoppedHostapdIsGiven60SecondsToReturn) {
    subscribe();
    stop_hostapd();
    EXPECT_TRUE(log.contains("Hostapd is not running, waiting for restart"));
    clock.advance(60);
    EXPECT_TRUE(condition());
    EXPECT_FALSE(log.contains("Hostapd has not restarted"));
    clock.advance(1);
    EXPECT_FALSE(condition());
    EXPECT_TRUE(log.contains("Hostapd has not restarted"));
}

TEST_F(RrmWorkerPresenceTest, StoppedHostapdIsNoticedOnce) {
    subscribe();
    stop_hostapd();
    EXPECT_TRUE(pass());
    EXPECT_EQ(log.count("process_hostapd_stopped"), 1);
    EXPECT_THAT(reports_of("rrm-disassoc-all-clients"), SizeIs(1));
}

TEST_F(RrmWorkerPresenceTest, SentryModeStaysConnectedWithoutHostapd) {
    driver.sentry_mode = true;
    remove(hostapd_pid);
    for (int minute = 0; minute < 3; ++minute) {
        clock.advance(60);
        EXPECT_TRUE(condition());
    }
    EXPECT_FALSE(log.contains("Hostapd"));
    EXPECT_TRUE(driver.hostapd_up);
}

TEST_F(RrmWorkerPresenceTest, SentryModeStaysConnectedBeyondTheGrace) {
    stop_hostapd();
    driver.sentry_mode = true;
    clock.advance(61);
    EXPECT_TRUE(condition());
    EXPECT_FALSE(log.contains("Hostapd has not restarted"));
}

TEST_F(RrmWorkerPresenceTest, GuarddStartEndsTheGrace) {
    stop_hostapd();
    driver.sentry_mode = true;
    announce(notify_guardd_started);
    EXPECT_TRUE(pass());
    driver.sentry_mode = false;
    EXPECT_FALSE(condition());
    EXPECT_TRUE(log.contains("Hostapd is not init and guardd is not sentry mode"));
}

TEST_F(RrmWorkerPresenceTest, PidFileBackWithoutANotifyFileKeepsTheConnectionAlone) {
    stop_hostapd();
    touch(hostapd_pid);
    EXPECT_CALL(driver, set_hostapd_initialized).Times(0);
    clock.advance(61);
    EXPECT_TRUE(condition());
    EXPECT_FALSE(driver.hostapd_up) << "what hostapd's start announces is still to come";
    testing::Mock::VerifyAndClearExpectations(&driver);
}

TEST_F(RrmWorkerPresenceTest, NeitherHostapdNorSentryModeDisconnects) {
    driver.hostapd_up = false;
    remove(hostapd_pid);
    EXPECT_FALSE(condition());
    EXPECT_TRUE(log.contains("Hostapd is not init and guardd is not sentry mode"));
}

TEST_F(RrmWorkerPresenceTest, StopTellsTheServiceThenForgetsClientsAndTimers) {
    subscribe_steering();
    const auto mac = libhubd::MacAddr::from_str("aa:bb:cc:00:00:01");
    peer().sta_environment()[1][mac].timeout = 3;
    peer().sta_block()[0][mac] = 3;
    service_commands("rrm-update", R"("rrm-scan-delay":5)");
    stop_hostapd();
    EXPECT_THAT(reports(), ElementsAre(HasSubstr(R"("cmd":"rrm-disassoc-all-clients")")));
    EXPECT_FALSE(is_steering());
    EXPECT_FALSE(driver.hostapd_up);
    EXPECT_TRUE(peer().sta_environment()[1].empty());
    EXPECT_TRUE(peer().sta_block()[0].empty());
    advance(10);
    EXPECT_THAT(driver.scans, IsEmpty());
    EXPECT_TRUE(is_subscribed()) << "the link is as it was";
}

TEST_F(RrmWorkerPresenceTest, StopWithoutSubscriptionTellsNobody) {
    stop_hostapd();
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(RrmWorkerPresenceTest, RestartWithinTheGraceGoesOnAsBefore) {
    subscribe_steering();
    stop_hostapd();
    clock.advance(59);
    start_hostapd();
    EXPECT_TRUE(pass());
    EXPECT_TRUE(is_steering());
    EXPECT_TRUE(driver.hostapd_up);
    EXPECT_THAT(reports_of("rrm-config-changed"), SizeIs(1));

    stop_hostapd();
    clock.advance(60);
    EXPECT_TRUE(condition()) << "the next stop has its own 60 seconds";
}

// The driver does nothing that it is told after hostapd's end, the end of a scan included.
TEST_F(RrmWorkerPresenceTest, HostapdStoppedDuringAScanDoesNotLeaveTheWorkerDeaf) {
    subscribe();
    driver.radios[0].neighbours.emplace_back();
    service_commands("rrm-update");
    advance(driver.scan_duration);
    ASSERT_TRUE(driver.in_progress);
    ASSERT_THAT(peer().environment()[0], SizeIs(1));
    stop_hostapd();
    EXPECT_FALSE(driver.in_progress);
    EXPECT_THAT(peer().environment()[0], IsEmpty());

    driver.sentry_mode = true;
    link("disconnected");
    link("connected");
    service_commands("subscribe-response", R"("status":"success")");
    EXPECT_TRUE(is_subscribed());
}

// --- Disconnecting ---

TEST_F(RrmWorkerPresenceTest, DisconnectTakesBackWhatTheServiceHadSet) {
    subscribe(R"({"use-80211r":1})");
    {
        const InSequence order;
        EXPECT_CALL(driver, clear_rrm_nbr_ap_list(StrEq("wlan0-va0")));
        EXPECT_CALL(driver, clear_rrm_nbr_ap_list(StrEq("wlan1-va0")));
        EXPECT_CALL(driver, clear_rrm_nbr_ap_list(StrEq("wlan1-va2")));
        EXPECT_CALL(driver, init());
        EXPECT_CALL(driver, reset_orvanta(UNKNOWN));
        EXPECT_CALL(driver, reset_orvanta_fbt(UNKNOWN));
        EXPECT_CALL(driver, set_hostapd_initialized(false));
    }
    worker->__disconnect();
    testing::Mock::VerifyAndClearExpectations(&driver);
    EXPECT_TRUE(log.contains("Disconnected from hostapd"));
    EXPECT_THAT(reports(), ElementsAre(HasSubstr("rrm-disassoc-all-clients")));
}

TEST_F(RrmWorkerPresenceTest, DisconnectAtTheDaemonsEndNamesThatCause) {
    subscribe(R"({"use-80211r":1})");
    run_flag = false;
    worker->__disconnect();
    EXPECT_THAT(driver.resets, ElementsAre(DAEMON_STOPPED));
    EXPECT_THAT(driver.fbt_resets, ElementsAre(DAEMON_STOPPED));
}

TEST_F(RrmWorkerPresenceTest, DisconnectWithoutFastTransitionLeavesItAlone) {
    subscribe();
    worker->__disconnect();
    EXPECT_THAT(driver.resets, ElementsAre(UNKNOWN));
    EXPECT_THAT(driver.fbt_resets, IsEmpty());
}

TEST_F(RrmWorkerPresenceTest, DisconnectAfterHostapdsEndDoesNotStopItAgain) {
    driver.hostapd_up = false;
    worker->__disconnect();
    EXPECT_FALSE(log.contains("process_hostapd_stopped"));
    EXPECT_TRUE(driver.cleared_neighbour_lists.empty());
}

}  // namespace
