#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <semaphore>
#include <thread>

#include "join_watch.h"
#include "log_capture.h"
#include "lws_calls.h"
#include "lws_gate.h"
#include "websock_link_fixture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// --- the connection ---

TEST_F(WebsockLink, IsNotUsableBeforeTheFirstAttempt) {
    EXPECT_FALSE(peer.usable());
}

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

TEST_F(WebsockLink, SendsWhatWasQueuedDuringTheHandshakeOnceItIsEstablished) {
    service.reading = false;
    ASSERT_TRUE(peer.connect());
    step(1);
    peer.enqueue("early");
    service.reading = true;
    EXPECT_TRUE(peer.until([&] { return !service.texts.empty(); }));
    EXPECT_THAT(service.texts, ElementsAre("early"));
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

// --- why there is none ---

class WebsockLinkTrouble : public WebsockLink {
  protected:
    // Of an attempt, or of a link, that has ended.
    bool told(const std::string& cause) {
        peer.disconnect();
        return log.contains("warning: websock-rrm->No link to 127.0.0.1:" +
                            std::to_string(service.port()) + "/agent: " + cause);
    }

    const LogCapture log;
};

TEST_F(WebsockLinkTrouble, IsTheStatusOfAServiceThatRefuses) {
    service.refusal = "404 Not Found";
    ASSERT_TRUE(peer.connect());
    ASSERT_TRUE(lost());
    EXPECT_TRUE(told("the service answers with HTTP status 404"));
}

TEST_F(WebsockLinkTrouble, IsAnotherSubprotocol) {
    service.subprotocol = "chat";
    ASSERT_TRUE(peer.connect());
    ASSERT_TRUE(lost());
    EXPECT_TRUE(told("the service does not take the subprotocol websock-rrm"));
}

TEST_F(WebsockLinkTrouble, IsAConnectionThatBreaks) {
    establish();
    service.drop();
    ASSERT_TRUE(lost());
    EXPECT_TRUE(told("the connection broke off"));
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

TEST_F(WebsockLink, TellsThePartnerOfNoLinkBeforeEveryAttempt) {
    ASSERT_TRUE(peer.attempt());
    EXPECT_THAT(peer.received(), ElementsAre(disconnected_text));
    peer.disconnect();
    EXPECT_THAT(peer.received(), ElementsAre(disconnected_text));
    service.drop();
    ASSERT_TRUE(peer.attempt());
    EXPECT_THAT(peer.received(), ElementsAre(disconnected_text));
}

TEST_F(WebsockLink, IsAttemptedAlthoughTheRunFlagFellDuringTheDelay) {
    peer.run = false;
    ASSERT_TRUE(peer.attempt());
    EXPECT_TRUE(peer.has_context());
    EXPECT_TRUE(peer.until([&] { return service.connections == 1; }));
    EXPECT_FALSE(peer.usable()) << "and then the run loop disconnects at once";
}

TEST_F(WebsockLink, LeavesNothingBehindWhenTheLibraryMakesNoContext) {
    const LogCapture log;
    LwsCalls calls;
    calls.refuse_contexts = true;
    EXPECT_FALSE(peer.connect());
    EXPECT_TRUE(log.contains("error: websock-rrm->Creating libwebsocket context failed"));
    expect_cleared_gate();
}

TEST_F(WebsockLink, LeavesNothingBehindWhenTheLibraryMakesNoConnection) {
    const LogCapture log;
    LwsCalls calls;
    calls.refuse_connects = true;
    EXPECT_FALSE(peer.connect());
    EXPECT_FALSE(peer.has_context());
    EXPECT_FALSE(log.contains("websock-rrm->Connected"));
    expect_cleared_gate();
    calls.refuse_connects = false;
    EXPECT_TRUE(peer.establish()) << "the next attempt is a whole one";
}

TEST_F(WebsockLink, AsksTheLibraryForAPlainClientContext) {
    const LwsCalls calls;
    ASSERT_TRUE(peer.connect());
    const lws_context_creation_info& info = calls.context_info;
    EXPECT_EQ(info.port, CONTEXT_PORT_NO_LISTEN);
    EXPECT_EQ(info.gid, static_cast<decltype(info.gid)>(-1));
    EXPECT_EQ(info.uid, static_cast<decltype(info.uid)>(-1));
    EXPECT_EQ(info.options, 0U);
    EXPECT_EQ(info.extensions, nullptr);
    EXPECT_STREQ(info.protocols[0].name, "websock-rrm");
    EXPECT_EQ(info.protocols[0].callback, __callback_lws_process);
    EXPECT_EQ(info.protocols[0].per_session_data_size, 0U);
    EXPECT_EQ(info.protocols[0].rx_buffer_size, 0U);
    EXPECT_EQ(info.protocols[0].id, 0U);
    EXPECT_EQ(info.protocols[0].user, peer.worker());
    EXPECT_EQ(info.protocols[1].name, nullptr);
    EXPECT_EQ(info.protocols[1].callback, nullptr);
}

TEST_F(WebsockLink, AsksTheLibraryForAPlainConnection) {
    const LogCapture log;
    const LwsCalls calls;
    ASSERT_TRUE(peer.connect());
    EXPECT_TRUE(log.contains("debug: websock-rrm->Connected"));
    EXPECT_EQ(calls.connect_info.ssl_connection, 0);
    EXPECT_EQ(calls.connect_info.port, service.port());
    EXPECT_EQ(calls.connect_info.ietf_version_or_minus_one, -1);
    EXPECT_STREQ(calls.connect_info.protocol, "websock-rrm");
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

TEST_F(WebsockLink, DisconnectEndsTheConnection) {
    establish();
    peer.disconnect();
    EXPECT_TRUE(wait_until([&] {
        service.pump();
        return service.ended;
    }));
}

TEST_F(WebsockLink, LogsThatItIsEstablished) {
    const LogCapture log;
    establish();
    EXPECT_EQ(log.count("debug: websock-rrm->process_client_established:"), 1);
}

TEST_F(WebsockLink, IgnoresReasonsThatItDoesNotHandle) {
    establish();
    EXPECT_EQ(peer.callback(LWS_CALLBACK_WS_PEER_INITIATED_CLOSE), 0);
    EXPECT_TRUE(peer.usable());
}

TEST_F(WebsockLink, NamesReasonsThatItDoesNotHandle) {
    const LogCapture log;
    establish();
    EXPECT_TRUE(log.contains("websock-rrm->worker_lws_callback:"));
    EXPECT_TRUE(log.contains(" reason = LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER (24)"));
    EXPECT_FALSE(log.contains("POLL_FD"));
}

// --- what the library says ---

TEST_F(WebsockLink, LogsEverythingThatTheLibrarySaysAtDebugLevel) {
    const LogCapture log(8);
    const LwsCalls calls;
    establish();
    EXPECT_EQ(calls.log_level, 1023);
    EXPECT_GT(log.count("debug: rrm->libwebsocket-debug> "), 0);
}

TEST_F(WebsockLink, LetsTheLibrarySayNothingWithoutDebugMessages) {
    const LogCapture log(7);
    const LwsCalls calls;
    establish();
    EXPECT_EQ(calls.log_level, 0);
    EXPECT_EQ(log.count("libwebsocket"), 0);
}

TEST_F(WebsockLink, FollowsTheLogLevelWhileTheLinkLives) {
    const LogCapture log(7);
    establish();
    const LwsCalls calls;
    trace.set_log_level(15);
    peer.step();
    EXPECT_EQ(calls.log_level, 1023);
    trace.set_log_level(7);
    peer.step();
    EXPECT_EQ(calls.log_level, 0);
}

TEST_F(WebsockLink, TellsTheLibraryTheLogLevelBeforeItMakesTheContext) {
    const LogCapture log(8);
    const LwsCalls calls;
    ASSERT_TRUE(peer.connect());
    EXPECT_EQ(calls.log_level, 1023);
}

// --- one pass ---

TEST_F(WebsockLink, APassLetsTheNextOneFollowAtOnce) {
    establish();
    while (peer.take_event()) {
    }
    EXPECT_TRUE(peer.execute());
    EXPECT_TRUE(peer.take_event());
}

// The service call is given whole milliseconds, rounded down.
TEST_F(WebsockLink, APassIsBoundedAtATenthOfASecond) {
    const LwsCalls calls;
    ASSERT_TRUE(peer.connect());
    step(1);
    EXPECT_EQ(calls.timer_us, 101 * LWS_US_PER_MS);
}

TEST_F(WebsockLink, ABoundThatIsReachedBeforeTheWaitIsSetAgain) {
    const LwsCalls calls;
    ASSERT_TRUE(peer.connect());
    step(1);
    const int before = calls.timers;
    calls.timer_reached(calls.timer);
    EXPECT_EQ(calls.timers, before + 1);
}

// --- how it ends ---

// Its thread still uses what the worker consists of; nothing of it may be gone by then.
TEST(WebsockWorkerEnd, AwaitsThePassThatRunsBeforeItTakesAnythingAway) {
    const RawService service;
    safe_queue from_ipc;
    safe_queue to_ipc;
    volatile bool run = true;
    auto worker = std::make_unique<websock_worker>(from_ipc, to_ipc, "127.0.0.1", "/agent",
                                                   service.port(), run, 1, 1, WS_INSTANCE_RRM);
    std::binary_semaphore within_a_pass{0};
    std::binary_semaphore awaited{0};
    LwsCalls calls;
    calls.on_log_level = [&, connected = false]() mutable {
        if (!std::exchange(connected, true) || !run)
            return;
        within_a_pass.release();
        awaited.acquire();
        run = false;
    };
    worker->start_on_dedicated_thread();
    within_a_pass.acquire();
    {
        const JoinWatch watch([&] { awaited.release(); });
        worker.reset();
    }
    std::vector<std::string> told;
    while (to_ipc.dequeue([&](const buffer_info_ptr& item) { told.emplace_back(item->text()); })) {
    }
    EXPECT_THAT(told, ElementsAre(disconnected_text, disconnected_text));
}

using WebsockLinkDeathTest = WebsockLink;

TEST_F(WebsockLinkDeathTest, TheLockCheckerKnowsItsLockByName) {
    const LogCapture log;
    EXPECT_EXIT(
        {
            LwsCalls calls;
            calls.on_log_level = [] {
                timespec now{};
                LockdepStorage::instance().check_expired(time_monotonic(now) + 1000);
            };
            LockdepStorage::lockdep_debug = true;
            static_cast<void>(peer.connect());
        },
        testing::KilledBySignal(SIGABRT), "");
    EXPECT_TRUE(log.contains("('ctx_mutex' by "));
}

class LinkEnd : public WebsockLink, public testing::WithParamInterface<lws_callback_reasons> {};

TEST_P(LinkEnd, MakesTheLinkUnusable) {
    establish();
    const LogCapture log;
    EXPECT_EQ(peer.callback(GetParam()), 0);
    EXPECT_FALSE(peer.usable());
    const char* const handler = GetParam() == LWS_CALLBACK_CLIENT_CONNECTION_ERROR
                                    ? "process_client_connection_error"
                                    : "process_closed";
    EXPECT_EQ(log.count(std::string("debug: websock-rrm->") + handler + ":"), 1);
}

INSTANTIATE_TEST_SUITE_P(Reasons, LinkEnd,
                         testing::Values(LWS_CALLBACK_CLIENT_CONNECTION_ERROR, LWS_CALLBACK_CLOSED,
                                         LWS_CALLBACK_CLOSED_HTTP, LWS_CALLBACK_CLOSED_CLIENT_HTTP,
                                         LWS_CALLBACK_CLIENT_CLOSED));

class SilentReason : public WebsockLink,
                     public testing::WithParamInterface<lws_callback_reasons> {};

TEST_P(SilentReason, IsIgnoredWithoutALine) {
    const LogCapture log;
    EXPECT_EQ(peer.callback(GetParam()), 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Reasons, SilentReason,
                         testing::Values(LWS_CALLBACK_GET_THREAD_ID, LWS_CALLBACK_ADD_POLL_FD,
                                         LWS_CALLBACK_DEL_POLL_FD, LWS_CALLBACK_CHANGE_MODE_POLL_FD,
                                         LWS_CALLBACK_LOCK_POLL, LWS_CALLBACK_UNLOCK_POLL));

TEST_F(WebsockLink, OnlyLogsTheEndOfTheProtocol) {
    establish();
    const LogCapture log;
    EXPECT_EQ(peer.callback(LWS_CALLBACK_PROTOCOL_DESTROY), 0);
    EXPECT_TRUE(log.contains("debug: websock-rrm->process_protocol_destroy:"));
    EXPECT_TRUE(peer.usable());
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

TEST_F(WebsockLink, LogsWhatTheServiceSaid) {
    establish();
    const LogCapture log;
    service.send(RawService::TEXT, "hello");
    ASSERT_THAT(peer.wait_received(1), ElementsAre("hello"));
    EXPECT_EQ(log.count("debug: Buffer info dump: hello"), 1);
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

TEST_F(WebsockLink, WakesThePartnerOnceForAllThatOnePassBrings) {
    establish();
    int wakeups = 0;
    peer.to_ipc.set_user_notifier([&] { ++wakeups; });
    std::vector<std::string> texts;
    for (const char fill : {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j', 'k', 'l', 'm', 'n'})
        service.send(RawService::TEXT, texts.emplace_back(1024, fill));
    EXPECT_EQ(peer.wait_received(texts.size()), texts);
    EXPECT_EQ(wakeups, 1);
}

TEST_F(WebsockLink, HandsOverWhatItHasReceivedBeforeItTellsOfTheLink) {
    establish();
    service.send(RawService::TEXT, "first");
    ASSERT_THAT(peer.wait_received(1), ElementsAre("first"));
    EXPECT_EQ(peer.receive("last", 4), 0);
    EXPECT_THAT(peer.received(), IsEmpty()) << "the pass is not over";
    peer.disconnect();
    EXPECT_THAT(peer.received(), ElementsAre("last", disconnected_text));
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
    EXPECT_EQ(log.count("debug: Buffer info dump: hello"), 1);
}

TEST_F(WebsockLink, SendsAnEmptyMessage) {
    establish();
    const LogCapture log;
    peer.enqueue("");
    peer.enqueue("next");
    ASSERT_TRUE(peer.until([&] { return service.texts.size() >= 2; }));
    EXPECT_THAT(service.texts, ElementsAre("", "next"));
    EXPECT_FALSE(log.contains("Can't send"));
}

buffer_info_ptr message(const std::string& text) {
    auto buffer = std::make_shared<buffer_info_t>();
    buffer->append(text.data(), static_cast<unsigned>(text.size()));
    return buffer;
}

TEST_F(WebsockLink, SendsATextFromWhereItLies) {
    establish();
    const LwsCalls calls;
    buffer_info_ptr hello = message("hello");
    const char* const text = hello->text().data();
    peer.from_ipc.enqueue(std::move(hello));
    ASSERT_TRUE(peer.until([&] { return !service.texts.empty(); }));
    EXPECT_EQ(reinterpret_cast<const char*>(calls.written), text);
    EXPECT_THAT(service.texts, ElementsAre("hello"));
}

TEST_F(WebsockLink, GivesALongTextToTheSocketAtOnce) {
    establish();
    const std::string text(std::size_t{48} * 1024, 'x');
    peer.enqueue(text);
    step(2);
    EXPECT_THAT(service.texts, ElementsAre(text));
}

TEST_F(WebsockLink, LeavesATextAloneThatOthersHold) {
    establish();
    const buffer_info_ptr held = message("hello");
    for (int i = 0; i < 2; ++i)
        peer.from_ipc.enqueue(held);
    ASSERT_TRUE(peer.until([&] { return service.texts.size() == 2; }));
    EXPECT_THAT(service.texts, ElementsAre("hello", "hello"));
    EXPECT_EQ(held->text(), "hello");
}

TEST_F(WebsockLink, TakesAMessageThatTheSocketRefusesForLost) {
    establish();
    const LogCapture log;
    LwsCalls calls;
    calls.refuse_writes = true;
    peer.enqueue("lost");
    ASSERT_TRUE(peer.until([&] { return log.contains("Can't send"); }));
    EXPECT_TRUE(log.contains("error: websock-rrm->lws_send:Can't send msg type [0] to websocket"));
    EXPECT_FALSE(log.contains("Send msg type"));
    EXPECT_TRUE(peer.usable());
    calls.refuse_writes = false;
    peer.enqueue("next");
    ASSERT_TRUE(peer.until([&] { return !service.texts.empty(); }));
    EXPECT_THAT(service.texts, ElementsAre("next"));
}

TEST_F(WebsockLink, AsksAgainInTheNextPassWhenTheLibraryRefusesToReportAWritableSocket) {
    establish();
    step(2);
    for (const int refusal : {-1, 0}) {
        service.texts.clear();
        LwsCalls calls;
        calls.refuse_ask = [](int ask) { return ask <= 2; };
        calls.refusal = refusal;
        peer.enqueue("hello");
        step(4);
        EXPECT_THAT(service.texts, ElementsAre("hello"));
        EXPECT_EQ(calls.asks, 3);
    }
}

TEST_F(WebsockLink, AsksAgainForTheRestOfAFloodWhenTheLibraryRefuses) {
    establish();
    step(2);
    LwsCalls calls;
    calls.refuse_ask = [](int ask) { return ask == 2; };
    constexpr std::size_t count = 600;  // more than one callback sends
    for (std::size_t i = 0; i < count; ++i)
        peer.enqueue("x");
    EXPECT_TRUE(peer.until([&] { return service.texts.size() == count; }));
    EXPECT_EQ(calls.asks, 3);
}

TEST_F(WebsockLink, IsWokenByAMessageAlsoAfterTheLibraryRefused) {
    establish();
    step(2);
    LwsCalls calls;
    calls.refuse_ask = [](int ask) { return ask == 1; };
    peer.enqueue("refused");
    step(1);
    static_cast<void>(peer.take_event());
    peer.enqueue("next");
    EXPECT_TRUE(peer.take_event());
}

TEST_F(WebsockLink, LeavesAnIdleLibraryAlone) {
    establish();
    step(2);
    const LwsCalls calls;
    step(5);
    EXPECT_EQ(calls.asks, 0);
}

// Nothing but the partner ends the wait of a service call here.
TEST_F(WebsockLink, IsWokenByAMessageOfThePartner) {
    establish();
    step(2);
    LwsCalls calls;
    calls.withhold_timers = true;
    std::thread worker([this] {
        while (peer.usable())
            peer.execute();
    });
    int asleep = 1;  // passes begun when the worker waits
    for (const std::size_t count : {1U, 2U, 3U}) {
        EXPECT_TRUE(wait_until([&] { return calls.withheld_timers >= asleep; }));
        peer.enqueue("wake up");
        EXPECT_TRUE(wait_until([&] {
            service.pump();
            return service.texts.size() == count && calls.withheld_timers >= asleep + 2;
        })) << "one pass sends it, the next one waits again";
        asleep = calls.withheld_timers;
    }
    service.drop();
    worker.join();
}

// Without timers a second service call of the same pass waits until the link ends.
TEST_F(WebsockLink, SendsAMessageThatWakesItInTheSamePass) {
    establish();
    LwsCalls calls;
    bool sent = false;
    // What the library still had to do may end a pass before there is a message: once more then.
    for (int attempt = 0; attempt < 5 && !sent; attempt++) {
        calls.withhold_timers = false;
        step(2);
        peer.set_can_run();
        calls.withhold_timers = true;
        std::atomic<bool> over = false;
        const int before = calls.withheld_timers;
        const std::size_t count = service.texts.size() + 1;
        std::thread worker([&] {
            peer.execute();
            over = true;
        });
        EXPECT_TRUE(wait_until([&] { return calls.withheld_timers > before; }));
        peer.enqueue("wake up");
        EXPECT_TRUE(wait_until([&] {
            service.pump();
            return over || service.texts.size() == count;
        }));
        sent = service.texts.size() == count;
        if (sent)
            service.drop();
        worker.join();
    }
    EXPECT_TRUE(sent);
}

TEST_F(WebsockLink, AMessageOfThePartnerAlsoEndsTheRunLoopsWait) {
    establish();
    step(2);
    while (peer.take_event()) {
    }
    peer.enqueue("wake up");
    EXPECT_TRUE(peer.take_event());
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

}  // namespace
