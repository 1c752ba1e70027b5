#include "abstract_worker.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <iterator>
#include <latch>
#include <semaphore>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "log_capture.h"
#include "sleep_clock.h"

using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::IsEmpty;
using testing::KilledBySignal;

static bool eventfd_available = true;
static bool threads_available = true;

extern "C" int eventfd(unsigned count, int flags) noexcept {
    using function = int (*)(unsigned, int);
    static const auto real = reinterpret_cast<function>(dlsym(RTLD_NEXT, "eventfd"));
    if (eventfd_available)
        return real(count, flags);
    errno = EMFILE;
    return -1;
}

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* argument) noexcept {
    using function = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto real = reinterpret_cast<function>(dlsym(RTLD_NEXT, "pthread_create"));
    return threads_available ? real(thread, attributes, start, argument) : EAGAIN;
}

namespace {

// The descriptors of this thread's write(2) calls, while it lives.
class WrittenDescriptors {
  public:
    WrittenDescriptors() { active = this; }
    ~WrittenDescriptors() { active = nullptr; }
    WrittenDescriptors(const WrittenDescriptors&) = delete;
    WrittenDescriptors& operator=(const WrittenDescriptors&) = delete;

    static void note(int descriptor) {
        if (active != nullptr)
            active->descriptors_.push_back(descriptor);
    }
    [[nodiscard]] const std::vector<int>& descriptors() const { return descriptors_; }

  private:
    static thread_local WrittenDescriptors* active;
    std::vector<int> descriptors_;
};
thread_local WrittenDescriptors* WrittenDescriptors::active = nullptr;

// What this thread's poll(2) is asked for and answers without waiting, while it lives.
class ScriptedPoll {
  public:
    ScriptedPoll(int result, short revents) : result_(result), revents_(revents) { active = this; }
    ~ScriptedPoll() { active = nullptr; }
    ScriptedPoll(const ScriptedPoll&) = delete;
    ScriptedPoll& operator=(const ScriptedPoll&) = delete;

    static ScriptedPoll* of_this_thread() { return active; }
    int answer(pollfd& descriptor, int timeout_ms) {
        events_ = descriptor.events;
        timeouts_.push_back(timeout_ms);
        descriptor.revents = revents_;
        return result_;
    }
    [[nodiscard]] short events() const { return events_; }
    [[nodiscard]] const std::vector<int>& timeouts() const { return timeouts_; }

  private:
    static thread_local ScriptedPoll* active;
    int result_;
    short revents_;
    short events_ = 0;
    std::vector<int> timeouts_;
};
thread_local ScriptedPoll* ScriptedPoll::active = nullptr;

}  // namespace

extern "C" ssize_t write(int descriptor, const void* data, std::size_t size) {
    using function = ssize_t (*)(int, const void*, std::size_t);
    static const auto real = reinterpret_cast<function>(dlsym(RTLD_NEXT, "write"));
    WrittenDescriptors::note(descriptor);
    return real(descriptor, data, size);
}

extern "C" int poll(pollfd* descriptors, nfds_t count, int timeout_ms) {
    using function = int (*)(pollfd*, nfds_t, int);
    static const auto real = reinterpret_cast<function>(dlsym(RTLD_NEXT, "poll"));
    if (ScriptedPoll* const script = ScriptedPoll::of_this_thread())
        return script->answer(*descriptors, timeout_ms);
    return real(descriptors, count, timeout_ms);
}

namespace {

constexpr auto patience = std::chrono::seconds(30);
constexpr int half_an_hour = 1800 * 1000000;  // microseconds
constexpr int a_moment = 1000;                // microseconds

// A worker that does what the test says and notes what it was asked. Its run flag is cleared by
// its own operations unless a test says otherwise.
class script_worker : public abstract_worker {
  public:
    script_worker(const volatile bool& flag, int wait, int pause = 0,
                  const char* worker_name = "script")
        : abstract_worker(flag, worker_name, wait, pause) {}
    ~script_worker() override { join(); }

    bool __connect() override {
        calls.push_back("connect");
        return on_connect();
    }
    bool execute() override {
        calls.push_back("execute");
        return on_execute();
    }
    void __disconnect() override { calls.push_back("disconnect"); }
    bool condition(const volatile bool& flag) override { return on_condition() && flag; }

    using abstract_worker::can_run;
    using abstract_worker::disconnect;
    using abstract_worker::event_descriptor;
    using abstract_worker::process_eventfd;

    std::function<bool()> on_connect = [] { return true; };
    std::function<bool()> on_execute = [] { return true; };
    std::function<bool()> on_condition = [] { return true; };
    std::vector<std::string> calls;
};

class AbstractWorker : public testing::Test {
  protected:
    // An execute() that clears the run flag in its `count`th call and answers `result`.
    std::function<bool()> stop_after(int count, bool result = true) {
        return [this, count, result, done = 0]() mutable {
            if (++done == count)
                run = false;
            return result;
        };
    }

    volatile bool run = true;
};

using AbstractWorkerDeathTest = AbstractWorker;

TEST_F(AbstractWorker, ConnectsExecutesAndDisconnects) {
    script_worker worker(run, 0);
    worker.on_execute = stop_after(2);
    worker.start_on_current_thread();
    EXPECT_THAT(worker.calls, ElementsAre("connect", "execute", "execute", "disconnect"));
    EXPECT_FALSE(worker.can_run);
}

TEST_F(AbstractWorker, DoesNothingWhenTheRunFlagIsClearFromTheStart) {
    run = false;
    script_worker worker(run, 0);
    worker.func();
    EXPECT_THAT(worker.calls, IsEmpty());
}

TEST_F(AbstractWorker, RetriesAFailedConnectWithoutDisconnecting) {
    script_worker worker(run, 0);
    int attempts = 0;
    worker.on_connect = [&] { return ++attempts == 3; };
    worker.on_execute = stop_after(1);
    worker.func();
    EXPECT_THAT(worker.calls,
                ElementsAre("connect", "connect", "connect", "execute", "disconnect"));
}

TEST_F(AbstractWorker, ReconnectsWhenTheConditionFails) {
    script_worker worker(run, 0);
    int asked = 0;
    worker.on_condition = [&] { return ++asked != 2; };
    worker.on_execute = stop_after(2);
    worker.func();
    EXPECT_THAT(worker.calls, ElementsAre("connect", "execute", "disconnect", "connect", "execute",
                                          "disconnect"));
}

TEST_F(AbstractWorker, ReconnectsWhenTheConnectionIsNoLongerUsable) {
    script_worker worker(run, 0);
    worker.on_execute = [&, passes = 0]() mutable {
        worker.can_run = false;
        run = ++passes < 2;
        return true;
    };
    worker.func();
    EXPECT_THAT(worker.calls, ElementsAre("connect", "execute", "disconnect", "connect", "execute",
                                          "disconnect"));
}

TEST_F(AbstractWorker, AskedBeforeTheFirstPassTheConditionMayPreventIt) {
    script_worker worker(run, 0);
    worker.on_condition = [&] {
        run = false;
        return false;
    };
    worker.func();
    EXPECT_THAT(worker.calls, ElementsAre("connect", "disconnect"));
}

TEST_F(AbstractWorker, DisconnectsOncePerSuccessfulConnect) {
    script_worker worker(run, 0);
    worker.on_execute = [&] {
        worker.disconnect();
        worker.disconnect();
        run = false;
        return true;
    };
    worker.func();
    EXPECT_THAT(worker.calls, ElementsAre("connect", "execute", "disconnect"));
}

TEST_F(AbstractWorker, DisconnectWithoutAConnectionDoesNothing) {
    script_worker worker(run, 0);
    worker.disconnect();
    EXPECT_THAT(worker.calls, IsEmpty());
}

TEST_F(AbstractWorker, PausesBetweenADisconnectAndTheNextConnect) {
    SleepClock clock(0);
    script_worker worker(run, 0, 300000);
    std::vector<std::int64_t> connected_at;
    worker.on_execute = [&, passes = 0]() mutable {
        worker.can_run = false;
        run = ++passes < 2;
        return true;
    };
    worker.on_connect = [&] {
        connected_at.push_back(clock.now_ms());
        return connected_at.size() != 2;
    };
    worker.func();
    EXPECT_THAT(connected_at, ElementsAre(0, 300, 600));
}

TEST_F(AbstractWorker, DoesNotPauseOnItsWayOut) {
    script_worker worker(run, 0, half_an_hour);
    worker.on_execute = stop_after(1);
    worker.func();
    EXPECT_THAT(worker.calls, ElementsAre("connect", "execute", "disconnect"));
}

TEST_F(AbstractWorker, SeveralEventsBetweenTwoWaitsWakeItOnce) {
    const script_worker worker(run, 0);
    for (int i = 0; i < 3; ++i)
        worker.put_event();
    EXPECT_EQ(worker.process_eventfd(0), 8);
    EXPECT_EQ(worker.process_eventfd(0), 0);
}

TEST_F(AbstractWorker, EachEventCountsOne) {
    const script_worker worker(run, 0);
    for (int i = 0; i < 3; ++i)
        worker.put_event();
    eventfd_t counter = 0;
    ASSERT_EQ(eventfd_read(worker.event_descriptor(), &counter), 0);
    EXPECT_EQ(counter, 3u);
}

TEST_F(AbstractWorker, WaitingWithoutAnEventTimesOut) {
    const script_worker worker(run, 0);
    EXPECT_EQ(worker.process_eventfd(1), 0);
}

TEST_F(AbstractWorker, WaitsForItsExecuteDelayInMilliseconds) {
    const ScriptedPoll poll(0, 0);
    script_worker worker(run, 100000);
    worker.on_execute = stop_after(2);
    worker.func();
    EXPECT_THAT(poll.timeouts(), ElementsAre(100, 100));
    EXPECT_EQ(poll.events(), POLLIN);
}

TEST_F(AbstractWorker, AWaitThatFailsGivesTheResultOfPollAndReadsNothing) {
    const script_worker worker(run, 0);
    worker.put_event();
    for (const auto& [result, revents] : {std::pair{-1, POLLIN}, std::pair{1, POLLERR}}) {
        const ScriptedPoll poll(result, static_cast<short>(revents));
        EXPECT_EQ(worker.process_eventfd(1), result);
    }
    EXPECT_EQ(worker.process_eventfd(0), 8);
}

TEST_F(AbstractWorker, APassThatReturnedTrueWaitsForAnEvent) {
    script_worker worker(run, half_an_hour);
    worker.on_execute = stop_after(1, true);
    worker.put_event();
    worker.func();
    EXPECT_EQ(worker.process_eventfd(0), 0) << "the wait did not take the event";
}

TEST_F(AbstractWorker, APassThatReturnedFalseNeverWaits) {
    script_worker worker(run, half_an_hour);
    worker.on_execute = stop_after(3, false);
    worker.put_event();
    worker.func();
    EXPECT_EQ(worker.process_eventfd(0), 8) << "a wait took the event";
}

TEST_F(AbstractWorker, AWorkerWithoutExecuteDelayNeverWaits) {
    for (const int delay : {0, -a_moment / 2}) {
        run = true;
        script_worker worker(run, delay);
        worker.on_execute = stop_after(3, true);
        worker.put_event();
        worker.func();
        EXPECT_EQ(worker.process_eventfd(0), 8) << "a wait took the event";
    }
}

TEST_F(AbstractWorker, AnEventFromAnotherThreadEndsTheWait) {
    script_worker worker(run, half_an_hour);
    std::binary_semaphore first_pass{0};
    worker.on_execute = [&, passes = 0]() mutable {
        if (++passes == 1)
            first_pass.release();
        else
            run = false;
        return passes == 1;
    };
    worker.start_on_dedicated_thread();
    ASSERT_TRUE(first_pass.try_acquire_for(patience));
    worker.put_event();
    worker.join();
    EXPECT_THAT(worker.calls, ElementsAre("connect", "execute", "execute", "disconnect"));
}

TEST_F(AbstractWorker, ClearingTheRunFlagWhileItWaitsEndsItAfterTheExecuteDelay) {
    script_worker worker(run, a_moment, half_an_hour);
    std::binary_semaphore executed{0};
    worker.on_execute = [&, first = true]() mutable {
        if (std::exchange(first, false))
            executed.release();
        return true;
    };
    worker.start_on_dedicated_thread();
    ASSERT_TRUE(executed.try_acquire_for(patience));
    run = false;
    worker.join();
    EXPECT_EQ(worker.calls.back(), "disconnect");
}

TEST_F(AbstractWorker, ClearingTheRunFlagBetweenConnectionsEndsItAfterThePause) {
    script_worker worker(run, 0, a_moment);
    std::binary_semaphore attempted{0};
    worker.on_connect = [&, first = true]() mutable {
        if (std::exchange(first, false))
            attempted.release();
        return false;
    };
    worker.start_on_dedicated_thread();
    ASSERT_TRUE(attempted.try_acquire_for(patience));
    run = false;
    worker.join();
    EXPECT_EQ(worker.calls.back(), "connect");
}

TEST_F(AbstractWorker, NamesItsThreadAsFarAsTheKernelKeepsIt) {
    for (const auto& [name, thread_name] :
         {std::pair{"rrm", "lumd:rrm"}, std::pair{"websock-rrm", "lumd:websock-rr"}}) {
        run = true;
        std::array<char, 16> seen{};
        script_worker worker(run, 0, 0, name);
        worker.on_execute = [&] {
            prctl(PR_GET_NAME, seen.data());
            run = false;
            return true;
        };
        worker.start_on_dedicated_thread();
        worker.join();
        EXPECT_STREQ(seen.data(), thread_name);
    }
}

TEST_F(AbstractWorker, JoinAfterARunOnTheCurrentThreadDoesNothing) {
    script_worker worker(run, 0);
    worker.on_execute = stop_after(1);
    worker.start_on_current_thread();
    worker.join();
    EXPECT_THAT(worker.calls, ElementsAre("connect", "execute", "disconnect"));
}

TEST_F(AbstractWorker, JoinTwiceAndJoinOfAWorkerNeverStartedDoNothing) {
    script_worker idle(run, 0);
    idle.join();
    script_worker worker(run, 0);
    worker.on_execute = stop_after(1);
    worker.start_on_dedicated_thread();
    worker.join();
    worker.join();
    EXPECT_THAT(worker.calls, ElementsAre("connect", "execute", "disconnect"));
}

TEST_F(AbstractWorker, DestructionJoinsTheThread) {
    bool finished = false;
    {
        script_worker worker(run, 0);
        worker.on_execute = [&, passes = 0]() mutable {
            finished = ++passes == 1000;
            run = !finished;
            return true;
        };
        worker.start_on_dedicated_thread();
    }
    EXPECT_TRUE(finished);
}

// Its thread calls none of its operations any more when it goes, and has not been joined.
class unjoined_worker : public abstract_worker {
  public:
    unjoined_worker(volatile bool& flag, std::binary_semaphore& ended)
        : abstract_worker(flag, "unjoined", 0, 0), run_(flag), ended_(ended) {}

    bool __connect() override { return true; }
    bool execute() override {
        run_ = false;
        return false;
    }
    void __disconnect() override { ended_.release(); }
    bool condition(const volatile bool& flag) override { return flag; }

  private:
    volatile bool& run_;
    std::binary_semaphore& ended_;
};

TEST_F(AbstractWorker, DestructionJoinsAThreadThatTheSubclassHasNotJoined) {
    std::binary_semaphore ended{0};
    unjoined_worker worker(run, ended);
    worker.start_on_dedicated_thread();
    ASSERT_TRUE(ended.try_acquire_for(patience));
}

TEST_F(AbstractWorkerDeathTest, AThreadThatCannotBeStartedEndsTheProcessWithStatus255) {
    const LogCapture log;
    script_worker worker(run, 0);
    EXPECT_EXIT(
        {
            threads_available = false;
            worker.start_on_dedicated_thread();
        },
        ExitedWithCode(255), "");
    EXPECT_TRUE(log.contains("error: Cannot start the thread of worker 'script': "));
}

TEST_F(AbstractWorker, KeepsNoDescriptorBehind) {
    const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = descriptors();
    {
        const script_worker worker(run, 0);
        EXPECT_EQ(descriptors(), before + 1);
    }
    EXPECT_EQ(descriptors(), before);
}

TEST_F(AbstractWorker, KeepsItsDescriptorFromTheProgramsThatItStarts) {
    const script_worker worker(run, 0);
    EXPECT_EQ(fcntl(worker.event_descriptor(), F_GETFD), FD_CLOEXEC);
}

// Descriptor 0 alone counts as none.
TEST_F(AbstractWorker, AnEventIsWrittenAlsoWithADescriptorBelow0) {
    eventfd_available = false;
    const script_worker worker(run, 0);
    eventfd_available = true;

    const WrittenDescriptors written;
    worker.put_event();
    EXPECT_THAT(written.descriptors(), ElementsAre(-1));
}

TEST_F(AbstractWorker, NoEventIsWrittenToDescriptor0) {
    const int standard_input = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    {
        const script_worker worker(run, 0);
        ASSERT_EQ(worker.event_descriptor(), 0);
        worker.put_event();
        EXPECT_EQ(worker.process_eventfd(0), 0);
    }
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "not closed";
    if (standard_input != -1) {
        dup2(standard_input, STDIN_FILENO);
        close(standard_input);
    }
}

TEST_F(AbstractWorker, WithoutADescriptorItNeitherWaitsNorFails) {
    eventfd_available = false;
    script_worker worker(run, half_an_hour);
    eventfd_available = true;

    worker.put_event();
    EXPECT_EQ(worker.process_eventfd(half_an_hour), -1);
    worker.on_execute = stop_after(2);
    worker.func();
    EXPECT_THAT(worker.calls, ElementsAre("connect", "execute", "execute", "disconnect"));
}

TEST_F(AbstractWorkerDeathTest, AnExceptionFromExecuteEndsTheProcessWithStatus255) {
    script_worker worker(run, 0);
    const auto run_with = [&](const std::function<bool()>& execute) {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        worker.on_execute = execute;
        worker.func();
    };
    const char* const last_words = "Unhandled exception at worker 'script'\n";
    EXPECT_EXIT(run_with([]() -> bool { throw std::runtime_error("lost"); }), ExitedWithCode(255),
                last_words);
    EXPECT_EXIT(run_with([]() -> bool { throw 1; }), ExitedWithCode(255), last_words);
}

TEST_F(AbstractWorkerDeathTest, AnExceptionOnADedicatedThreadEndsTheProcessToo) {
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            script_worker worker(run, 0);
            worker.on_execute = []() -> bool { throw std::runtime_error("lost"); };
            worker.start_on_dedicated_thread();
            worker.join();
        },
        ExitedWithCode(255), "Unhandled exception at worker 'script'\n");
}

TEST_F(AbstractWorker, ExceptionsFromTheOtherOperationsAreNotCaught) {
    script_worker connecting(run, 0);
    connecting.on_connect = []() -> bool { throw std::runtime_error("connect"); };
    EXPECT_THROW(connecting.func(), std::runtime_error);

    script_worker asking(run, 0);
    asking.on_condition = []() -> bool { throw std::runtime_error("condition"); };
    EXPECT_THROW(asking.func(), std::runtime_error);
}

TEST_F(AbstractWorkerDeathTest, StartingTwiceEndsTheProcess) {
    EXPECT_EXIT(
        {
            script_worker worker(run, half_an_hour);
            worker.start_on_dedicated_thread();
            worker.start_on_dedicated_thread();
        },
        KilledBySignal(SIGABRT), "");
}

TEST_F(AbstractWorker, TakesEventsOfManyThreadsWhileItRuns) {
    constexpr int threads = 4;
    constexpr int events_each = 200;
    script_worker worker(run, half_an_hour);
    std::latch producers_done{threads};
    std::atomic<int> events = 0;
    int seen = 0;
    worker.on_execute = [&] {
        seen = events;
        if (seen == threads * events_each)
            run = false;
        return run;
    };
    worker.start_on_dedicated_thread();
    std::vector<std::jthread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&] {
            for (int i = 0; i < events_each; ++i) {
                ++events;
                worker.put_event();
            }
            producers_done.count_down();
        });
    producers_done.wait();
    worker.join();
    EXPECT_EQ(seen, threads * events_each);
}

}  // namespace
