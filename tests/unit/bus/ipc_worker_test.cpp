#include "ipc_worker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "join_watch.h"
#include "pause_log.h"
#include "test_bus.h"
#include "thread_name.h"

class ipc_worker_peer {
  public:
    static void process(ipc_worker& worker, const message_s& frame) {
        worker.process_ipc_message(frame);
        worker.hand_over();
    }
    static ipc_module_t route(const ipc_worker& worker, const buffer_info_t& buffer) {
        return worker.route_message(buffer);
    }
};

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

buffer_info_ptr message(const std::string& text) {
    auto result = std::make_shared<buffer_info_t>();
    result->append(text.data(), static_cast<unsigned>(text.size()));
    return result;
}

std::vector<std::string> drain(safe_queue& queue) {
    std::vector<std::string> texts;
    while (queue.dequeue([&](const buffer_info_ptr& item) { texts.emplace_back(item->text()); })) {
    }
    return texts;
}

// A worker that is stepped by hand and no bus.
class IpcWorkerAlone : public testing::Test {
  protected:
    // As the signal handler does it, which ThreadSanitizer takes for a race with the loop.
    __attribute__((no_sanitize("thread"))) void stop() { run = false; }

    safe_queue to_daemon;
    safe_queue from_daemon;
    volatile bool run = true;
    ipc_worker worker{to_daemon, from_daemon, LUMDMOD, run};
};

std::unique_ptr<message_s, free_deleter> frame_of(const std::string& payload) {
    std::unique_ptr<message_s, free_deleter> frame(
        static_cast<message_s*>(std::calloc(1, sizeof(message_header_s) + payload.size())));
    frame->header.len = static_cast<std::uint32_t>(payload.size());
    std::memcpy(reinterpret_cast<char*>(frame.get()) + sizeof(message_header_s), payload.data(),
                payload.size());
    return frame;
}

TEST_F(IpcWorkerAlone, NeitherExecutesNorHoldsItsConditionWithoutAContext) {
    from_daemon.enqueue(message("stays"));
    EXPECT_FALSE(worker.condition(run));
    EXPECT_FALSE(worker.execute());
    EXPECT_THAT(drain(from_daemon), ElementsAre("stays"));
}

TEST_F(IpcWorkerAlone, DropsAFrameWhosePayloadStartsWithAZeroByte) {
    ipc_worker_peer::process(worker, *frame_of(std::string("\0{}", 3)));
    EXPECT_THAT(drain(to_daemon), IsEmpty());
}

TEST_F(IpcWorkerAlone, DropsAFrameWithoutPayload) {
    ipc_worker_peer::process(worker, *frame_of(""));
    EXPECT_THAT(drain(to_daemon), IsEmpty());
}

TEST_F(IpcWorkerAlone, TakesThePayloadByItsLengthAlone) {
    const std::string text("{\0}", 3);
    ipc_worker_peer::process(worker, *frame_of(text));
    EXPECT_THAT(drain(to_daemon), ElementsAre(text));
}

TEST_F(IpcWorkerAlone, RoutesEveryMessageToThePortal) {
    for (const char* text : {"", "no json", R"({"dst":"hubd"})"})
        EXPECT_EQ(ipc_worker_peer::route(worker, *message(text)), PORTALMOD);
}

TEST_F(IpcWorkerAlone, CannotConnectWithoutABroker) {
    setenv("MSGBUS_SOCKET", "/nonexistent/bus", 1);
    EXPECT_FALSE(worker.__connect());
    EXPECT_FALSE(worker.condition(run));
    worker.__disconnect();
    unsetenv("MSGBUS_SOCKET");
}

TEST_F(IpcWorkerAlone, PausesASecondBetweenItsAttemptsToConnect) {
    setenv("MSGBUS_SOCKET", "/nonexistent/bus", 1);
    const PauseLog log([this, attempts = 0]() mutable {
        if (++attempts == 2)
            stop();
    });
    worker.func();
    EXPECT_THAT(log.pauses(), ElementsAre(1000000u, 1000000u));
    unsetenv("MSGBUS_SOCKET");
}

// The same on a bus with a silent portal.
class IpcWorker : public testing::Test {
  protected:
    void SetUp() override {
        bus.serve(PORTALMOD, [](const std::string&) { return std::nullopt; });
        ASSERT_TRUE(worker.__connect());
    }
    void TearDown() override { worker.__disconnect(); }

    // Passes until `count` messages have come; what came in the end.
    std::vector<std::string> receive(std::size_t count) {
        std::vector<std::string> texts;
        const auto deadline = std::chrono::steady_clock::now() + test_bus::patience;
        while (texts.size() < count && std::chrono::steady_clock::now() < deadline) {
            worker.execute();
            for (std::string& text : drain(to_daemon))
                texts.push_back(std::move(text));
        }
        return texts;
    }

    TestBus bus;
    safe_queue to_daemon;
    safe_queue from_daemon;
    volatile bool run = true;
    ipc_worker worker{to_daemon, from_daemon, LUMDMOD, run};
};

TEST_F(IpcWorker, RunsWhileTheFlagAndTheModuleLoopDo) {
    EXPECT_TRUE(worker.condition(run));
    run = false;
    EXPECT_FALSE(worker.condition(run));
}

// Joins the bus as it is; what it waits for from then on is noted, and ends it.
class idle_ipc_worker : public ipc_worker {
  public:
    idle_ipc_worker(safe_queue& incoming, safe_queue& outgoing, volatile bool& flag)
        : ipc_worker(incoming, outgoing, LUMDMOD, flag), run_(flag) {}

    bool __connect() override {
        const bool joined = ipc_worker::__connect();
        log_.emplace([this] { run_ = false; });
        return joined;
    }
    [[nodiscard]] const std::vector<int>& waits() const { return log_->waits(); }

  private:
    volatile bool& run_;
    std::optional<PauseLog> log_;
};

TEST(IdleIpcWorker, WaitsATenthOfASecondForAnEvent) {
    const TestBus bus;
    safe_queue incoming;
    safe_queue outgoing;
    volatile bool run = true;
    idle_ipc_worker worker(incoming, outgoing, run);
    worker.func();
    EXPECT_THAT(worker.waits(), ElementsAre(100));
}

TEST_F(IpcWorker, PutsWhatArrivesOnItsQueueUnchanged) {
    bus.send(PORTALMOD, LUMDMOD, R"({ "any" : "text" })");
    bus.send(PORTALMOD, LUMDMOD, "not even json");
    EXPECT_THAT(receive(2), ElementsAre(R"({ "any" : "text" })", "not even json"));
}

TEST_F(IpcWorker, WakesItsPartnerOnceForFramesThatCameInOnePiece) {
    int wakeups = 0;
    to_daemon.set_user_notifier([&] { ++wakeups; });
    for (const char* text : {"one", "two", "three"})
        bus.send(PORTALMOD, LUMDMOD, text);
    // The broker keeps the order: when the portal's message to itself is back, all are there.
    bus.send(PORTALMOD, PORTALMOD, "marker");
    ASSERT_THAT(bus.wait_requests(PORTALMOD, 1), ElementsAre("marker"));
    EXPECT_THAT(receive(3), ElementsAre("one", "two", "three"));
    EXPECT_EQ(wakeups, 1);
}

// What a module has not taken when it leaves comes back as undeliverable, which is no message.
TEST_F(IpcWorker, AFrameThatIsNoMessageAtTheEndOfAPieceKeepsNothingBack) {
    bus.drop(PORTALMOD);
    auto deaf = std::make_unique<test_bus::Connection>(bus.socket_path(), PORTALMOD);
    ASSERT_TRUE(deaf->attached());
    from_daemon.enqueue(message(std::string(1024 * 1024, 'x')));
    while (!worker.execute()) {
    }
    test_bus::Connection other(bus.socket_path(), HUBDMOD);
    ASSERT_TRUE(other.attached() && other.send(LUMDMOD, "hello", 1));
    ASSERT_TRUE(other.send(HUBDMOD, "marker", 2) && other.read());
    deaf.reset();
    bus.serve(PORTALMOD, [](const std::string&) { return std::nullopt; });
    bus.send(PORTALMOD, PORTALMOD, "marker");
    ASSERT_THAT(bus.wait_requests(PORTALMOD, 1), ElementsAre("marker"));
    from_daemon.enqueue(message("next"));
    EXPECT_FALSE(worker.execute());
    EXPECT_FALSE(worker.execute());
    EXPECT_THAT(drain(to_daemon), ElementsAre("hello"));
}

TEST_F(IpcWorker, HandsOverWhatItHasTakenWhenItLeaves) {
    for (const char* text : {"taken", "not taken"})
        bus.send(PORTALMOD, LUMDMOD, text);
    bus.send(PORTALMOD, PORTALMOD, "marker");
    ASSERT_THAT(bus.wait_requests(PORTALMOD, 1), ElementsAre("marker"));
    EXPECT_FALSE(worker.execute());
    worker.__disconnect();
    EXPECT_THAT(drain(to_daemon), ElementsAre("taken"));
}

TEST_F(IpcWorker, SendsWhatItIsGivenToThePortalUnchanged) {
    from_daemon.enqueue(message(R"({ "dst" : "hubd" })"));
    EXPECT_FALSE(worker.execute());
    EXPECT_TRUE(worker.execute());
    EXPECT_THAT(bus.wait_requests(PORTALMOD, 1), ElementsAre(R"({ "dst" : "hubd" })"));
}

TEST_F(IpcWorker, ConsumesAnEmptyMessageAndSendsNothing) {
    from_daemon.enqueue(message(""));
    from_daemon.enqueue(message("after it"));
    EXPECT_FALSE(worker.execute());
    EXPECT_FALSE(worker.execute());
    EXPECT_TRUE(worker.execute());
    EXPECT_THAT(bus.wait_requests(PORTALMOD, 1), ElementsAre("after it"));
}

TEST_F(IpcWorker, SendsAllItWasGivenByTheTimeItIsIdle) {
    for (const char* text : {"1", "2", ""})
        from_daemon.enqueue(message(text));
    while (!worker.execute()) {
    }
    EXPECT_THAT(bus.wait_requests(PORTALMOD, 2), ElementsAre("1", "2"));
}

TEST_F(IpcWorker, SendsWhatItWasGivenBeforeTheNextFrame) {
    for (const char* text : {"1", "2"})
        from_daemon.enqueue(message(text));
    EXPECT_FALSE(worker.execute());
    drain(from_daemon);
    bus.send(PORTALMOD, LUMDMOD, "frame");
    EXPECT_THAT(receive(1), ElementsAre("frame"));
    EXPECT_THAT(bus.wait_requests(PORTALMOD, 1), ElementsAre("1"));
}

TEST_F(IpcWorker, SendsWhatItHasKeptInAPassThatBringsAFrame) {
    for (const char* text : {"kept", "goes elsewhere"})
        from_daemon.enqueue(message(text));
    EXPECT_FALSE(worker.execute());
    drain(from_daemon);
    bus.send(PORTALMOD, LUMDMOD, "frame");
    // The broker keeps the order: when the portal's message to itself is back, the frame is there.
    bus.send(PORTALMOD, PORTALMOD, "marker");
    ASSERT_THAT(bus.wait_requests(PORTALMOD, 1), ElementsAre("marker"));
    EXPECT_FALSE(worker.execute());
    EXPECT_THAT(drain(to_daemon), ElementsAre("frame"));
    EXPECT_THAT(bus.wait_requests(PORTALMOD, 2), ElementsAre("marker", "kept"));
}

TEST_F(IpcWorker, SendsOneMessageAPass) {
    for (const char* text : {"1", "2", "3"})
        from_daemon.enqueue(message(text));
    EXPECT_FALSE(worker.execute());
    EXPECT_THAT(drain(from_daemon), ElementsAre("2", "3"));
}

TEST_F(IpcWorker, ASteadyStreamOfFramesDelaysWhatGoesOutUntilTheBusIsEmpty) {
    constexpr std::size_t count = 50;
    for (std::size_t i = 0; i < count; ++i)
        bus.send(PORTALMOD, LUMDMOD, std::to_string(i));
    // The broker keeps the order: when the portal's message to itself is back, all are there.
    bus.send(PORTALMOD, PORTALMOD, "marker");
    ASSERT_THAT(bus.wait_requests(PORTALMOD, 1), ElementsAre("marker"));
    from_daemon.enqueue(message("waits"));
    for (std::size_t i = 0; i < count; ++i)
        ASSERT_FALSE(worker.execute());
    EXPECT_THAT(drain(to_daemon), testing::SizeIs(count));
    ASSERT_THAT(bus.wait_requests(PORTALMOD, 1), ElementsAre("marker"));
    ASSERT_FALSE(worker.execute());
    EXPECT_THAT(bus.wait_requests(PORTALMOD, 2), ElementsAre("marker", "waits"));
}

TEST_F(IpcWorker, KeepsWhatItCannotSendWhileDisconnected) {
    worker.__disconnect();
    EXPECT_FALSE(worker.condition(run));
    from_daemon.enqueue(message("later"));
    EXPECT_FALSE(worker.execute());
    ASSERT_TRUE(worker.__connect());
    EXPECT_FALSE(worker.execute());
    EXPECT_THAT(bus.wait_requests(PORTALMOD, 1), ElementsAre("later"));
}

TEST_F(IpcWorker, CannotJoinUnderAModuleIdThatAnotherHolds) {
    ipc_worker second{to_daemon, from_daemon, LUMDMOD, run};
    EXPECT_FALSE(second.__connect());
    EXPECT_FALSE(second.condition(run));
    EXPECT_TRUE(worker.condition(run));
}

TEST_F(IpcWorkerAlone, EndsItsConditionWhenTheBusIsLost) {
    auto bus = std::make_unique<TestBus>();
    ASSERT_TRUE(worker.__connect());
    ASSERT_TRUE(worker.condition(run));
    bus.reset();
    const auto deadline = std::chrono::steady_clock::now() + test_bus::patience;
    while (worker.condition(run) && std::chrono::steady_clock::now() < deadline)
        worker.execute();
    EXPECT_FALSE(worker.condition(run));
    worker.__disconnect();
}

TEST_F(IpcWorkerAlone, DoesNotWaitOnceTheBusIsLost) {
    auto bus = std::make_unique<TestBus>();
    ASSERT_TRUE(worker.__connect());
    EXPECT_TRUE(worker.execute());
    bus.reset();
    EXPECT_FALSE(worker.execute());
    EXPECT_FALSE(worker.condition(run));
    worker.__disconnect();
}

TEST_F(IpcWorkerAlone, NamesItsThreadAfterTheBus) {
    const ThreadName kept;
    setenv("MSGBUS_SOCKET", "/nonexistent/bus", 1);
    const PauseLog log([this] { stop(); });
    worker.func();
    EXPECT_EQ(ThreadName::now(), "lumd:ipc");
    unsetenv("MSGBUS_SOCKET");
}

// A worker whose waits the test takes over.
class waiting_worker : public ipc_worker {
  public:
    using ipc_worker::ipc_worker;

    // How often the event was raised since the last look.
    [[nodiscard]] eventfd_t raised() const {
        pollfd entry{event_descriptor(), POLLIN, 0};
        eventfd_t count = 0;
        return poll(&entry, 1, 0) == 1 && eventfd_read(event_descriptor(), &count) == 0 ? count : 0;
    }

    [[nodiscard]] bool woken() const {
        const std::chrono::milliseconds limit = test_bus::patience;
        return process_eventfd(static_cast<int>(limit.count())) > 0;
    }
};

TEST(IpcWorkerIdle, IsWokenByAFrame) {
    TestBus bus;
    bus.serve(PORTALMOD, [](const std::string&) { return std::nullopt; });
    safe_queue to_daemon;
    safe_queue from_daemon;
    volatile bool run = true;
    waiting_worker worker(to_daemon, from_daemon, LUMDMOD, run);
    ASSERT_TRUE(worker.__connect());
    for (const std::string text : {"one", "two"}) {
        bus.send(PORTALMOD, LUMDMOD, text);
        std::vector<std::string> texts;
        while ((texts = drain(to_daemon)).empty()) {
            const bool idle = worker.execute();
            ASSERT_TRUE(!idle || worker.woken());
        }
        EXPECT_THAT(texts, ElementsAre(text));
    }
    worker.__disconnect();
}

TEST(IpcWorkerIdle, IsWokenByAMessageOfItsPartner) {
    TestBus bus;
    bus.serve(PORTALMOD, [](const std::string&) { return std::nullopt; });
    safe_queue to_daemon;
    safe_queue from_daemon;
    volatile bool run = true;
    waiting_worker worker(to_daemon, from_daemon, LUMDMOD, run);
    ASSERT_TRUE(worker.__connect());
    for (const char* text : {"one", "two", "three"}) {
        while (!worker.execute()) {
        }
        from_daemon.enqueue(message(text));
        ASSERT_TRUE(worker.woken());
    }
    worker.__disconnect();
}

TEST(IpcWorkerIdle, IsWokenOnceForSeveralMessagesOfItsPartner) {
    const TestBus bus;
    safe_queue to_daemon;
    safe_queue from_daemon;
    volatile bool run = true;
    waiting_worker worker(to_daemon, from_daemon, LUMDMOD, run);
    ASSERT_TRUE(worker.__connect());
    EXPECT_TRUE(worker.execute());
    ASSERT_TRUE(worker.woken()) << "by the broker's answer";
    std::vector<buffer_info_ptr> several{message("one"), message("two"), message("three")};
    from_daemon.enqueue_all(several);
    from_daemon.enqueue(message("four"));
    EXPECT_EQ(worker.raised(), 1U);
    worker.__disconnect();
}

TEST(IpcWorkerIdle, IsWokenOnceForAllMessagesThatComeBeforeItFindsNoneLeft) {
    TestBus bus;
    bus.serve(PORTALMOD, [](const std::string&) { return std::nullopt; });
    safe_queue to_daemon;
    safe_queue from_daemon;
    volatile bool run = true;
    waiting_worker worker(to_daemon, from_daemon, LUMDMOD, run);
    ASSERT_TRUE(worker.__connect());
    ASSERT_TRUE(worker.woken()) << "by the broker's answer";
    for (int round = 0; round < 2; ++round) {
        for (const char* text : {"one", "two", "three"})
            from_daemon.enqueue(message(text));
        EXPECT_EQ(worker.raised(), 1U);
        while (!worker.execute()) {
        }
    }
    worker.__disconnect();
}

TEST(IpcWorkerIdle, IsNotWokenByItsPartnerWhileDisconnected) {
    TestBus bus;
    bus.serve(PORTALMOD, [](const std::string&) { return std::nullopt; });
    safe_queue to_daemon;
    safe_queue from_daemon;
    volatile bool run = true;
    waiting_worker worker(to_daemon, from_daemon, LUMDMOD, run);
    ASSERT_TRUE(worker.__connect());
    ASSERT_TRUE(worker.execute());
    ASSERT_TRUE(worker.woken()) << "by the broker's answer";
    worker.__disconnect();
    from_daemon.enqueue(message("later"));
    EXPECT_EQ(worker.raised(), 0U);
}

// Its thread still uses what the worker consists of; nothing of it may be gone by then.
TEST(IpcWorkerEnd, AwaitsThePassThatRunsBeforeItTakesAnythingAway) {
    TestBus bus;
    bus.serve(PORTALMOD, [](const std::string& text) { return "re: " + text; });
    safe_queue to_daemon;
    safe_queue from_daemon;
    volatile bool run = true;
    auto worker = std::make_unique<ipc_worker>(to_daemon, from_daemon, LUMDMOD, run);
    std::binary_semaphore within_a_pass{0};
    std::binary_semaphore awaited{0};
    to_daemon.set_user_notifier([&] {
        within_a_pass.release();
        awaited.acquire();
        from_daemon.enqueue(message("last"));
        run = false;
    });
    worker->start_on_dedicated_thread();
    from_daemon.enqueue(message("first"));
    within_a_pass.acquire();
    {
        const JoinWatch watch([&] { awaited.release(); });
        worker.reset();
    }
    EXPECT_THAT(drain(to_daemon), ElementsAre("re: first"));
    EXPECT_THAT(drain(from_daemon), ElementsAre("last"));
}

// The wake-up shows in the time only, so the message is what the test waits for.
TEST_F(IpcWorkerAlone, CarriesMessagesBothWaysOnItsOwnThread) {
    TestBus bus;
    bus.serve(PORTALMOD, [](const std::string& text) { return "re: " + text; });
    worker.start_on_dedicated_thread();
    from_daemon.enqueue(message("hello"));
    EXPECT_THAT(bus.wait_requests(PORTALMOD, 1), ElementsAre("hello"));
    std::vector<std::string> texts;
    const auto deadline = std::chrono::steady_clock::now() + test_bus::patience;
    while (texts.empty() && std::chrono::steady_clock::now() < deadline) {
        texts = drain(to_daemon);
        std::this_thread::yield();
    }
    EXPECT_THAT(texts, ElementsAre("re: hello"));
    stop();
    worker.join();
}

}  // namespace
