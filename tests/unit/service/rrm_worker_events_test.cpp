// What the radios tell of their own.
#include "rrm_worker_fixture.h"

namespace {

using testing::IsEmpty;
using testing::SizeIs;

using RrmWorkerEventsTest = RrmWorkerTest;

TEST_F(RrmWorkerEventsTest, EventsReachNoHandlerWhileNotSubscribed) {
    switch_steering(true);
    send_event(RRM_STA_ROAM);
    send_event(RRM_CHANSPEC_ACSD);
    advance(20);
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(RrmWorkerEventsTest, RoamEventIsReportedWhenSteeringOrBlacklistingIsOn) {
    subscribe();
    send_event(RRM_STA_ROAM);
    EXPECT_THAT(reports(), IsEmpty());
    peer().blacklist_enabled() = true;
    send_event(RRM_STA_ROAM);
    EXPECT_THAT(reports_of("rrm-sta-roam"), SizeIs(1));
    peer().blacklist_enabled() = false;
    switch_steering(true);
    send_event(RRM_STA_ROAM);
    EXPECT_THAT(reports_of("rrm-sta-roam"), SizeIs(2));
    advance(20);
    EXPECT_THAT(reports(), SizeIs(2)) << "a roam changes no channel";
}

TEST_F(RrmWorkerEventsTest, AssociationAndUnknownEventsAreIgnored) {
    subscribe_steering();
    send_event(RRM_ASSOC_STATE_CHANGED);
    send_event(RRM_UNDEFINED_EVENT);
    send_event(static_cast<driver_event>(77));
    advance(20);
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(RrmWorkerEventsTest,
       ThreeChannelChangesFourSecondsApartGiveOneReportTenSecondsAfterTheThird) {
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

TEST_F(RrmWorkerEventsTest, LinkLossCancelsTheChannelChangeReport) {
    subscribe();
    send_event(RRM_CHANSPEC_ACSD);
    link("disconnected");
    subscribe();
    advance(20);
    EXPECT_THAT(reports(), IsEmpty());
}

}  // namespace
