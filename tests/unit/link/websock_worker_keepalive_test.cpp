#include "log_capture.h"
#include "lws_calls.h"
#include "test_clock.h"
#include "websock_link_fixture.h"

namespace {

class WebsockPing : public WebsockLink {
  protected:
    void SetUp() override { establish(); }

    // Whether the next passes, well within a second, send one.
    bool ping_after(int seconds) {
        const int before = service.pings;
        clock.advance(seconds);
        for (int pass = 0; pass < 5 && service.pings == before; ++pass)
            peer.step();
        return service.pings > before;
    }

    // The socket takes nothing any more.
    void clog() {
        service.reading = false;
        peer.enqueue(std::string(32 * mebibyte, 'x'));
        peer.until([this] { return peer.from_ipc.empty(); });
        step(10);
    }

    TestClock clock;
};

TEST_F(WebsockPing, GoesOutEveryThirtySeconds) {
    clock.advance(29);
    step(5);
    EXPECT_EQ(service.pings, 0);
    const LogCapture log;
    EXPECT_TRUE(ping_after(1));
    EXPECT_TRUE(ping_after(30));
    EXPECT_FALSE(log.contains("Send msg type")) << "pings are not logged";
}

TEST_F(WebsockPing, ThirtySecondsBeginWithEachPing) {
    ASSERT_TRUE(ping_after(30));
    clock.advance(29);
    step(5);
    EXPECT_EQ(service.pings, 1);
    EXPECT_TRUE(ping_after(1));
}

TEST_F(WebsockPing, IsForgottenWithItsPong) {
    const LogCapture log;
    ASSERT_TRUE(ping_after(30));
    EXPECT_TRUE(peer.until([&] { return peer.unanswered_pings() == 0; }));
    EXPECT_TRUE(log.contains("debug: websock-rrm->process_client_receive_pong:"));
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(ping_after(30));
    EXPECT_TRUE(peer.usable());
}

TEST_F(WebsockPing, DropsTheLinkWhenTheThirdStaysUnanswered) {
    const LogCapture log;
    service.answer_pings = false;
    ASSERT_TRUE(ping_after(30));
    ASSERT_TRUE(ping_after(30));
    step(5);
    EXPECT_TRUE(peer.usable());
    EXPECT_EQ(peer.unanswered_pings(), 2);
    ASSERT_TRUE(ping_after(30));
    EXPECT_TRUE(lost());
    EXPECT_EQ(peer.unanswered_pings(), 0);
    EXPECT_TRUE(log.contains("websock-rrm->There are no 3 pong answer in a row from server"));
    peer.disconnect();
    EXPECT_TRUE(log.contains("/agent: no pong came for 3 pings"));
}

TEST_F(WebsockPing, APongInBetweenResetsTheCount) {
    service.answer_pings = false;
    ASSERT_TRUE(ping_after(30));
    ASSERT_TRUE(ping_after(30));
    service.send(RawService::PONG, "");
    ASSERT_TRUE(peer.until([&] { return peer.unanswered_pings() == 0; }));
    ASSERT_TRUE(ping_after(30));
    ASSERT_TRUE(ping_after(30));
    step(5);
    EXPECT_TRUE(peer.usable());
}

TEST_F(WebsockPing, SixtySecondsWithoutOneSentEndTheConnection) {
    peer.set_can_run();
    clog();
    const LogCapture log;
    clock.advance(59);
    peer.step();
    EXPECT_TRUE(peer.can_run());
    clock.advance(1);
    peer.step();
    EXPECT_FALSE(peer.can_run());
    EXPECT_TRUE(log.contains("debug: ping_timeout"));
    EXPECT_EQ(service.pings, 0);
    peer.disconnect();
    EXPECT_TRUE(log.contains("/agent: no ping can be sent any more"));
}

TEST_F(WebsockPing, TheSixtySecondsBeginWithEachPing) {
    peer.set_can_run();
    ASSERT_TRUE(ping_after(30));
    clog();
    clock.advance(59);
    step(1);
    EXPECT_TRUE(peer.can_run());
    clock.advance(1);
    peer.step();
    EXPECT_FALSE(peer.can_run());
}

TEST_F(WebsockPing, TheSixtySecondsEndWithTheLink) {
    peer.disconnect();
    service.drop();
    const LogCapture log;
    clock.advance(60);
    ASSERT_TRUE(peer.attempt());
    EXPECT_FALSE(log.contains("ping_timeout"));
}

// The clock goes on while a message of the service is taken, as if the process had been stopped.
class Standstill : public WebsockPing, public testing::WithParamInterface<int> {};

TEST_P(Standstill, KeepsAHealthyLink) {
    peer.set_can_run();
    const LogCapture log;
    bool stood_still = false;
    peer.to_ipc.set_user_notifier([&] {
        peer.to_ipc.unset_user_notifier();
        clock.advance(GetParam());
        stood_still = true;
    });
    service.send(RawService::TEXT, "the worker stands still here");
    ASSERT_TRUE(peer.until([&] { return stood_still; }));
    EXPECT_TRUE(peer.until([&] { return service.pings > 0; }));
    EXPECT_TRUE(peer.can_run());
    EXPECT_TRUE(peer.usable());
    EXPECT_FALSE(log.contains("ping_timeout"));
    EXPECT_TRUE(peer.until([&] { return peer.unanswered_pings() == 0; }));
    step(2);
    EXPECT_TRUE(ping_after(30)) << "and the pings go on";
}

// In minutes the library's own timers fall due as well.
INSTANTIATE_TEST_SUITE_P(Seconds, Standstill, testing::Values(55, 60, 61, 90, 600, 86400));

TEST_F(WebsockPing, MissesAreCarriedOverToTheNextLink) {
    service.answer_pings = false;
    ASSERT_TRUE(ping_after(30));
    ASSERT_TRUE(ping_after(30));
    peer.disconnect();
    service.drop();
    ASSERT_TRUE(peer.establish());
    EXPECT_EQ(peer.unanswered_pings(), 2);
    ASSERT_TRUE(ping_after(30));
    EXPECT_TRUE(lost());
}

TEST_F(WebsockPing, TheThirdMissCountsWithTheNextCallbackOfAnyKind) {
    service.answer_pings = false;
    ASSERT_TRUE(ping_after(30));
    ASSERT_TRUE(ping_after(30));
    EXPECT_EQ(peer.callback(LWS_CALLBACK_LOCK_POLL), 0);
    EXPECT_TRUE(peer.usable());
    peer.set_unanswered_pings(3);
    EXPECT_EQ(peer.callback(LWS_CALLBACK_LOCK_POLL), 0);
    EXPECT_FALSE(peer.usable());
    EXPECT_EQ(peer.unanswered_pings(), 0);
}

TEST_F(WebsockPing, ThatCannotBeSentIsNoMissButLogged) {
    const LogCapture log;
    LwsCalls calls;
    calls.refuse_writes = true;
    clock.advance(30);
    ASSERT_TRUE(peer.until([&] { return log.contains("Can't send"); }));
    EXPECT_TRUE(log.contains("error: websock-rrm->lws_send:Can't send msg type [" +
                             std::to_string(LWS_WRITE_PING) + "] to websocket"));
    EXPECT_EQ(peer.unanswered_pings(), 0);
    EXPECT_TRUE(peer.usable());
    step(5);
    EXPECT_EQ(log.count("Can't send"), 1) << "the next is due in thirty seconds";
}

TEST_F(WebsockPing, IsNotAskedForOnALinkThatHasEnded) {
    step(2);
    EXPECT_EQ(peer.callback(LWS_CALLBACK_CLIENT_CLOSED), 0);
    clock.advance(30);
    const LwsCalls calls;
    peer.execute();
    EXPECT_EQ(calls.asks, 0);
}

TEST_F(WebsockPing, DoesNotProlongThePassOnACloggedSocket) {
    clog();
    clock.advance(30);
    const LwsCalls calls;
    peer.step();
    EXPECT_LE(calls.asks, 5) << "one at its beginning, four before the timers run";
}

}  // namespace
