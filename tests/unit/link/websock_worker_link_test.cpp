#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "log_capture.h"
#include "test_clock.h"
#include "websock_worker.h"
#include "websock_worker_peer.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::size_t mebibyte = 1024 * 1024;

class WebsockLink : public testing::Test {
  protected:
    void establish() {
        ASSERT_TRUE(peer.establish());
        ASSERT_THAT(peer.received(), ElementsAre(connected_text));
    }
    bool lost() {
        return peer.until([this] { return !peer.usable(); });
    }

    websock_worker_peer peer;
    RawService& service = peer.service;
};

// --- the connection ---

TEST_F(WebsockLink, AsksForTheServicesPathAndSubprotocol) {
    establish();
    EXPECT_THAT(service.request, HasSubstr("GET /agent HTTP/1.1\r\n"));
    EXPECT_EQ(service.header("Sec-WebSocket-Protocol"), "websock-rrm");
    EXPECT_THAT(service.header("Host"), HasSubstr("127.0.0.1"));
    EXPECT_THAT(service.header("Origin"), HasSubstr("127.0.0.1"));
}

TEST(WebsockLinkPath, AnEmptyPathConnectsToTheRootAlone) {
    websock_worker_peer peer{WS_INSTANCE_RRM, 1, 1, "/"};
    ASSERT_TRUE(peer.establish());
    EXPECT_THAT(peer.service.request, HasSubstr("GET / HTTP/1.1\r\n"));
}

TEST_F(WebsockLink, IsNotEstablishedBeforeTheHandshake) {
    service.reading = false;
    ASSERT_TRUE(peer.connect());
    for (int i = 0; i < 3; ++i)
        peer.step();
    EXPECT_TRUE(peer.usable());
    EXPECT_FALSE(peer.established());
    EXPECT_THAT(peer.received(), IsEmpty());
    service.reading = true;
    EXPECT_TRUE(peer.until([&] { return peer.established(); }));
}

TEST_F(WebsockLink, TakesUpTheRunFlag) {
    establish();
    EXPECT_TRUE(peer.usable());
    peer.run = false;
    EXPECT_FALSE(peer.usable());
}

TEST_F(WebsockLink, EndsWhenTheServiceCloses) {
    establish();
    const LogCapture log;
    service.drop();
    EXPECT_TRUE(lost());
    EXPECT_TRUE(log.contains("websock-rrm->process_closed:"));
}

TEST_F(WebsockLink, EndsWithACloseFrame) {
    establish();
    service.send(RawService::CLOSE, std::string("\x03\xe8", 2));
    ASSERT_TRUE(peer.until([&] { return service.sent(); }));
    service.drop();
    EXPECT_TRUE(lost());
}

TEST_F(WebsockLink, EndsTheAttemptWhenNobodyListens) {
    const LogCapture log;
    volatile bool run = true;
    safe_queue from_ipc;
    safe_queue to_ipc;
    websock_worker worker(from_ipc, to_ipc, "127.0.0.1", "/", 1, run, 1, 1, WS_INSTANCE_RRM);
    if (worker.__connect()) {
        for (int i = 0; i < 50 && worker.condition(run); ++i)
            worker.execute();
        EXPECT_FALSE(worker.condition(run));
        EXPECT_TRUE(log.contains("websock-rrm->process_client_connection_error:"));
        worker.__disconnect();
    }
    EXPECT_TRUE(
        log.contains("websock-rrm-> _connect: Try to establish connect with server 127.0.0.1:1/"));
}

TEST_F(WebsockLink, DisconnectTellsThePartnerAndForgetsTheContext) {
    establish();
    const LogCapture log;
    peer.disconnect();
    EXPECT_THAT(peer.received(), ElementsAre(disconnected_text));
    EXPECT_FALSE(peer.established());
    EXPECT_FALSE(peer.has_context());
    EXPECT_TRUE(log.contains("websock-rrm->Stopping"));
    peer.enqueue("no notifier is left to touch the context");
    EXPECT_EQ(lws_callback_obj.call(nullptr, LWS_CALLBACK_USER, nullptr, nullptr, 0), 0);
    EXPECT_TRUE(log.contains("No function to process lws callback("));
}

TEST_F(WebsockLink, NamesReasonsThatItDoesNotHandle) {
    const LogCapture log;
    establish();
    EXPECT_TRUE(log.contains("websock-rrm->worker_lws_callback:"));
    EXPECT_TRUE(log.contains(" reason = LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER (24)"));
    EXPECT_FALSE(log.contains("POLL_FD"));
}

// --- from the service ---

TEST_F(WebsockLink, QueuesAWholeMessage) {
    establish();
    const LogCapture log;
    service.send(RawService::TEXT, "hello");
    EXPECT_THAT(peer.wait_received(1), ElementsAre("hello"));
    EXPECT_TRUE(log.contains(
        "websock-rrm->process_client_receive: Recieve final msg len 5 from websocket"));
    EXPECT_TRUE(log.contains("websock-rrm->Send to Queue"));
}

TEST_F(WebsockLink, QueuesAFragmentedMessageOnceAfterItsLastFragment) {
    establish();
    service.send(RawService::TEXT, "one ", false);
    service.send(RawService::CONTINUATION, "two ", false);
    const LogCapture log;
    ASSERT_TRUE(
        peer.until([&] { return log.count("Get incomplete packet, beginning len 4") == 2; }));
    EXPECT_THAT(peer.received(), IsEmpty());
    service.send(RawService::CONTINUATION, "three");
    EXPECT_THAT(peer.wait_received(1), ElementsAre("one two three"));
}

TEST_F(WebsockLink, PutsALargeMessageTogether) {
    establish();
    std::string text(5 * mebibyte, 'a');
    for (std::size_t i = 0; i < text.size(); i += 1000)
        text[i] = static_cast<char>('b' + i / 1000 % 20);
    service.send(RawService::TEXT, text);
    const std::vector<std::string> got = peer.wait_received(1);
    ASSERT_EQ(got.size(), 1U);
    EXPECT_TRUE(got[0] == text);
}

TEST_F(WebsockLink, QueuesAnEmptyMessage) {
    establish();
    service.send(RawService::TEXT, "");
    service.send(RawService::TEXT, "next");
    EXPECT_THAT(peer.wait_received(2), ElementsAre("", "next"));
}

TEST_F(WebsockLink, KeepsEmbeddedZeroBytes) {
    establish();
    const std::string text("a\0b", 3);
    service.send(RawService::TEXT, text);
    EXPECT_THAT(peer.wait_received(1), ElementsAre(text));
}

TEST_F(WebsockLink, DropsAMessageThatTheLinkCutsOff) {
    establish();
    const LogCapture log;
    service.send(RawService::TEXT, "cut ", false);
    ASSERT_TRUE(peer.until([&] { return log.contains("Get incomplete packet"); }));
    service.drop();
    ASSERT_TRUE(lost());
    peer.disconnect();
    ASSERT_TRUE(peer.establish());
    service.send(RawService::TEXT, "whole");
    EXPECT_THAT(peer.wait_received(3), ElementsAre(disconnected_text, connected_text, "whole"));
}

TEST_F(WebsockLink, RefusesANullFinalPiece) {
    establish();
    service.send(RawService::TEXT, "first");
    ASSERT_THAT(peer.wait_received(1), ElementsAre("first"));
    const LogCapture log;
    EXPECT_EQ(peer.receive(nullptr, 0), -1);
    EXPECT_TRUE(log.contains("process_client_receive: Bad Input data"));
    EXPECT_THAT(peer.received(), IsEmpty());
}

// --- to the service ---

TEST_F(WebsockLink, SendsEachMessageAsOneText) {
    establish();
    const LogCapture log;
    peer.enqueue("hello");
    ASSERT_TRUE(peer.until([&] { return !service.texts.empty(); }));
    EXPECT_THAT(service.texts, ElementsAre("hello"));
    EXPECT_TRUE(log.contains("debug: websock-rrm->From queue"));
    EXPECT_TRUE(
        log.contains("info: websock-rrm->lws_send:Send msg type [0] len [5/5]  to websocket"));
}

TEST_F(WebsockLink, SendsAnEmptyMessage) {
    establish();
    peer.enqueue("");
    peer.enqueue("next");
    ASSERT_TRUE(peer.until([&] { return service.texts.size() >= 2; }));
    EXPECT_THAT(service.texts, ElementsAre("", "next"));
}

TEST_F(WebsockLink, KeepsTheOrderOfAFlood) {
    establish();
    constexpr int count = 5000;
    for (int i = 0; i < count; ++i)
        peer.enqueue(std::to_string(i) + std::string(1000, 'x'));
    ASSERT_TRUE(peer.until([&] { return service.texts.size() == count; }));
    for (int i = 0; i < count; ++i)
        ASSERT_EQ(std::stoi(service.texts[static_cast<std::size_t>(i)]), i);
}

TEST_F(WebsockLink, KeepsTheStreamWholeWhenWritesStayPartial) {
    establish();
    service.reading = false;
    for (const char fill : {'a', 'b', 'c'})
        peer.enqueue(std::string(4 * mebibyte, fill));
    peer.enqueue("short");
    for (int i = 0; i < 200; ++i)
        peer.step();
    service.reading = true;
    ASSERT_TRUE(peer.until([&] { return service.texts.size() == 4; }));
    for (const std::size_t i : {0U, 1U, 2U})
        EXPECT_TRUE(service.texts[i] == std::string(4 * mebibyte, static_cast<char>('a' + i)));
    EXPECT_EQ(service.texts[3], "short");
}

// The partner's thread enqueues, and so notifies, while the link comes and goes.
TEST_F(WebsockLink, StandsAPartnerThatSendsWhileTheLinkComesAndGoes) {
    std::atomic<bool> over = false;
    std::thread partner([&] {
        while (!over) {
            peer.enqueue("to the service");
            std::this_thread::yield();
        }
    });
    for (int i = 0; i < 10; ++i) {
        const std::size_t before = service.texts.size();
        EXPECT_TRUE(peer.establish());
        EXPECT_TRUE(peer.until([&] { return service.texts.size() > before + 20; }));
        peer.disconnect();
        service.drop();
    }
    over = true;
    partner.join();
}

// --- pings ---

class WebsockPing : public WebsockLink {
  protected:
    void SetUp() override { establish(); }

    bool ping_after(int seconds) {
        const int before = service.pings;
        clock.advance(seconds);
        return peer.until([&] { return service.pings > before; });
    }

    TestClock clock;
};

TEST_F(WebsockPing, GoesOutEveryThirtySeconds) {
    clock.advance(29);
    for (int i = 0; i < 5; ++i)
        peer.step();
    EXPECT_EQ(service.pings, 0);
    const LogCapture log;
    EXPECT_TRUE(ping_after(1));
    EXPECT_TRUE(ping_after(30));
    EXPECT_FALSE(log.contains("Send msg type")) << "pings are not logged";
}

TEST_F(WebsockPing, IsForgottenWithItsPong) {
    ASSERT_TRUE(ping_after(30));
    EXPECT_TRUE(peer.until([&] { return peer.unanswered_pings() == 0; }));
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(ping_after(30));
    EXPECT_TRUE(peer.usable());
}

TEST_F(WebsockPing, DropsTheLinkWhenTheThirdStaysUnanswered) {
    const LogCapture log;
    service.answer_pings = false;
    ASSERT_TRUE(ping_after(30));
    ASSERT_TRUE(ping_after(30));
    for (int i = 0; i < 5; ++i)
        peer.step();
    EXPECT_TRUE(peer.usable());
    EXPECT_EQ(peer.unanswered_pings(), 2);
    ASSERT_TRUE(ping_after(30));
    EXPECT_TRUE(lost());
    EXPECT_EQ(peer.unanswered_pings(), 0);
    EXPECT_TRUE(log.contains("websock-rrm->There are no 3 pong answer in a row from server"));
}

TEST_F(WebsockPing, APongInBetweenResetsTheCount) {
    service.answer_pings = false;
    ASSERT_TRUE(ping_after(30));
    ASSERT_TRUE(ping_after(30));
    service.send(RawService::PONG, "");
    ASSERT_TRUE(peer.until([&] { return peer.unanswered_pings() == 0; }));
    ASSERT_TRUE(ping_after(30));
    ASSERT_TRUE(ping_after(30));
    for (int i = 0; i < 5; ++i)
        peer.step();
    EXPECT_TRUE(peer.usable());
}

TEST_F(WebsockPing, SixtySecondsWithoutOneSentEndTheConnection) {
    peer.set_can_run();
    service.reading = false;
    peer.enqueue(std::string(32 * mebibyte, 'x'));  // more than the socket takes
    for (int i = 0; i < 50; ++i)
        peer.step();
    const LogCapture log;
    clock.advance(59);
    peer.step();
    EXPECT_TRUE(peer.can_run());
    clock.advance(1);
    EXPECT_TRUE(peer.until([&] { return !peer.can_run(); }));
    EXPECT_TRUE(log.contains("debug: ping_timeout"));
    EXPECT_EQ(service.pings, 0);
}

}  // namespace
