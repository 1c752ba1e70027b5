// How an RRM worker begins and ends.
#include <chrono>
#include <future>
#include <thread>

#include "pause_log.h"
#include "rrm_worker_fixture.h"
#include "thread_name.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;
using testing::SizeIs;
using testing::StrEq;

TEST_F(RrmWorkerTest, ConstructionRemovesStaleFilesAndNoOther) {
    worker.reset();
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

TEST_F(RrmWorkerTest, ConstructionSetsTheDefaults) {
    EXPECT_EQ(peer().rrm_response_timeout(), 0);
    EXPECT_EQ(peer().scan_count(), 0U);
    EXPECT_EQ(peer().fbt_reassoc_deadline(), 1000);
    EXPECT_TRUE(peer().fbt_over_ds());
    EXPECT_FALSE(peer().disable_vexor_rrm_scanning());
    EXPECT_FALSE(peer().blacklist_enabled());
    EXPECT_FALSE(peer().no_balance_enterprise());
    EXPECT_THAT(peer().sta_environment(), SizeIs(2));
    EXPECT_THAT(peer().sta_block(), SizeIs(2));
}

TEST_F(RrmWorkerTest, BeginsWithoutASubscription) {
    EXPECT_EQ(answer_to_hostapds_start(), "");
    EXPECT_EQ(domain(), "site-1");
}

TEST_F(RrmWorkerTest, BeginsWithSteeringAndFastTransitionOff) {
    EXPECT_FALSE(takes_fast_transition());
    subscribe();
    EXPECT_FALSE(is_steering());
}

TEST_F(RrmWorkerTest, BeginsWithARetryPeriodOf30Seconds) {
    answer_503();
    EXPECT_TRUE(log.contains("Reconnect after 60 sec"));
}

TEST_F(RrmWorkerTest, ReportsClientsFromTheBeginning) {
    subscribe_steering();
    EXPECT_TRUE(is_steering()) << "no restart of hostapd is under way";
}

TEST_F(RrmWorkerTest, NegativeRadioCountGivesNoTables) {
    ON_CALL(driver, get_max_radios).WillByDefault(Return(-1));
    start_worker();
    EXPECT_THAT(peer().sta_environment(), IsEmpty());
    link("connected");
    EXPECT_THAT(last_report(), HasSubstr(R"("radios":[]})"));
}

TEST_F(RrmWorkerTest, DestructionClearsNeighboursThenResetsTheDriver) {
    subscribe();
    ASSERT_TRUE(exists(connected_flag));
    {
        const InSequence order;
        EXPECT_CALL(driver, clear_rrm_nbr_ap_list(StrEq("wlan0-va0")));
        EXPECT_CALL(driver, clear_rrm_nbr_ap_list(StrEq("wlan1-va0")));
        EXPECT_CALL(driver, clear_rrm_nbr_ap_list(StrEq("wlan1-va2")));
        EXPECT_CALL(driver, init());
        EXPECT_CALL(driver, close_vapcontext());
    }
    worker.reset();
    EXPECT_FALSE(exists(connected_flag));
    EXPECT_TRUE(log.contains("rrm_worker: stop"));
}

TEST_F(RrmWorkerTest, DestructionLetsTheRunningPassEndBeforeTheDriverIsReset) {
    std::promise<void> begun;
    std::promise<void> reset;
    bool reset_during_the_pass = true;
    EXPECT_CALL(driver, process_driver_events).WillOnce([&](const auto&) {
        run_flag = false;
        begun.set_value();
        reset_during_the_pass = reset.get_future().wait_for(200ms) == std::future_status::ready;
        return 0;
    });
    EXPECT_CALL(driver, close_vapcontext)
        .WillRepeatedly([&, destroyer = std::this_thread::get_id()] {
            if (std::this_thread::get_id() == destroyer)
                reset.set_value();
        });
    worker->start_on_dedicated_thread();
    begun.get_future().wait();
    worker.reset();
    EXPECT_FALSE(reset_during_the_pass);
}

TEST_F(RrmWorkerTest, RunsUnderItsName) {
    const ThreadName own;
    run_flag = false;
    worker->start_on_current_thread();
    EXPECT_EQ(ThreadName::now(), "lumd:rrm");
}

TEST_F(RrmWorkerTest, LooksForTheRadioDaemonsEvery300Milliseconds) {
    remove(hostapd_pid);
    PauseLog times{[this] { run_flag = false; }};
    worker->start_on_current_thread();
    EXPECT_THAT(times.pauses(), ElementsAre(300000));
}

TEST_F(RrmWorkerTest, PassesFollowOneAnotherWithoutAWait) {
    int passes = 0;
    ON_CALL(driver, process_driver_events).WillByDefault([&](const auto&) {
        run_flag = ++passes < 3;
        return 0;
    });
    PauseLog times{[] {}};
    worker->start_on_current_thread();
    EXPECT_EQ(passes, 3);
    EXPECT_THAT(times.waits(), IsEmpty()) << "the driver's events are what a pass waits for";
}

}  // namespace
