#include "LockdepMutex.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "sleep_clock.h"
#include "timer_processor.h"

using testing::Contains;
using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::IsEmpty;
using testing::KilledBySignal;

static bool symbols_available = true;
static int frames_captured = 0;
static std::string innermost_frame;

extern "C" char** backtrace_symbols(void* const* frames, int count) noexcept {
    using function = char** (*)(void* const*, int);
    static const auto real = reinterpret_cast<function>(dlsym(RTLD_NEXT, "backtrace_symbols"));
    frames_captured = count;
    char** const symbols = symbols_available ? real(frames, count) : nullptr;
    innermost_frame = symbols != nullptr && count > 0 ? symbols[0] : "";
    return symbols;
}

class LockdepStorage_peer {
  public:
    explicit LockdepStorage_peer(LockdepStorage& storage) : storage_(storage) {}

    // The tests look at a storage that only one thread uses.
    LockdepItem& item(const LockdepMutexBase& lock) LUMD_NO_THREAD_SAFETY_ANALYSIS {
        return storage_.locks.at(&lock);
    }

  private:
    LockdepStorage& storage_;
};

namespace {

std::string address(const LockdepMutexBase& lock) {
    char text[32];
    snprintf(text, sizeof text, "%p", static_cast<const void*>(&lock));
    return text;
}

void name_thread(const char* name) {
    prctl(PR_SET_NAME, name);
}

class LockdepStorageTest : public testing::Test {
  protected:
    LockdepStorageTest() { name_thread("lumd:test"); }

    LockdepStorage storage;
    LockdepStorage_peer peer{storage};
    LockdepMutex lock{"ctx_mutex"};
    LogCapture log;
};

using LockdepStorageDeathTest = LockdepStorageTest;

TEST_F(LockdepStorageTest, RecordsWhoTookALockAndWhen) {
    timespec now{};
    const std::time_t before = time_monotonic(now);
    storage.add_lock(&lock);
    const std::time_t after = time_monotonic(now);

    const LockdepItem& item = peer.item(lock);
    EXPECT_EQ(item.lock_name, "ctx_mutex");
    EXPECT_EQ(item.thread_name, "lumd:test");
    EXPECT_EQ(item.lock_cnt, 1);
    EXPECT_GE(item.locked_at, before);
    EXPECT_LE(item.locked_at, after);
    EXPECT_FALSE(item.backtrace.empty());
}

TEST_F(LockdepStorageTest, ALockTakenAgainKeepsItsFirstRecord) {
    storage.add_lock(&lock);
    peer.item(lock).locked_at = 7;
    name_thread("lumd:other");
    frames_captured = 0;
    storage.add_lock(&lock);

    EXPECT_EQ(frames_captured, 0);
    EXPECT_EQ(storage.size(), 1u);
    EXPECT_EQ(peer.item(lock).lock_cnt, 2);
    EXPECT_EQ(peer.item(lock).locked_at, 7);
    EXPECT_EQ(peer.item(lock).thread_name, "lumd:test");
}

TEST_F(LockdepStorageTest, AReleasedLockLeavesNoRecord) {
    storage.add_lock(&lock);
    storage.del_lock(&lock);
    EXPECT_EQ(storage.size(), 0u);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(LockdepStorageTest, ALockReleasedByAnotherThreadPassesUnnoticed) {
    storage.add_lock(&lock);
    std::jthread([this] { storage.del_lock(&lock); }).join();
    EXPECT_EQ(storage.size(), 0u);
}

TEST_F(LockdepStorageDeathTest, ReleasingALockThatIsNotHeldDumpsAndAborts) {
    LockdepMutex held{"held"};
    storage.add_lock(&held);
    peer.item(held).backtrace = {"first frame", "second frame"};
    EXPECT_EXIT(storage.del_lock(&lock), KilledBySignal(SIGABRT), "");
    EXPECT_THAT(
        log.lines(),
        ElementsAre("error: Unbalanced unlock case 2", "debug: Dump all locked mutexes:",
                    "debug: \t" + address(held) + ": 'held' by lumd:test",
                    "debug: \t\tBacktrace:", "debug: \t\tfirst frame", "debug: \t\tsecond frame"));
}

TEST_F(LockdepStorageDeathTest, ACountBelowZeroDumpsAndAborts) {
    storage.add_lock(&lock);
    peer.item(lock).lock_cnt = 0;
    EXPECT_EXIT(storage.del_lock(&lock), KilledBySignal(SIGABRT), "");
    const std::vector<std::string> lines = log.lines();
    ASSERT_GE(lines.size(), 3u);
    const std::string holder = address(lock) + "('ctx_mutex' by lumd:test)";
    EXPECT_EQ(lines[0], "error: Unbalanced unlock " + holder);
    EXPECT_EQ(lines[1], "debug: Dump all locked mutexes:");
    EXPECT_EQ(lines[2], "debug: \t" + address(lock) + ": 'ctx_mutex' by lumd:test");
}

TEST_F(LockdepStorageTest, ALockHeldFor120SecondsIsNoDeadlock) {
    storage.add_lock(&lock);
    storage.check_expired(peer.item(lock).locked_at + 120);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(LockdepStorageDeathTest, ALockHeldFor121SecondsDumpsAndAborts) {
    storage.add_lock(&lock);
    const std::time_t locked_at = peer.item(lock).locked_at;
    EXPECT_EXIT(storage.check_expired(locked_at + 121), KilledBySignal(SIGABRT), "");
    const std::vector<std::string> lines = log.lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], "error: Deadlock on lock " + address(lock) + "('ctx_mutex' by lumd:test)");
    EXPECT_EQ(lines[1], "debug: Dump all locked mutexes:");
    EXPECT_EQ(lines[2], "debug: \t" + address(lock) + ": 'ctx_mutex' by lumd:test");
}

TEST_F(LockdepStorageDeathTest, EveryExpiredLockIsNamedBeforeTheAbort) {
    LockdepMutex other{"other"};
    LockdepMutex fresh{"fresh"};
    for (const LockdepMutexBase* each : {&lock, &other, &fresh})
        storage.add_lock(each);
    peer.item(lock).locked_at = peer.item(other).locked_at = 1000;
    peer.item(fresh).locked_at = 1001;
    EXPECT_EXIT(storage.check_expired(1121), KilledBySignal(SIGABRT), "");
    EXPECT_EQ(log.count("Deadlock on lock " + address(lock) + "('ctx_mutex' by lumd:test)"), 1);
    EXPECT_EQ(log.count("Deadlock on lock " + address(other) + "('other' by lumd:test)"), 1);
    EXPECT_EQ(log.count("Deadlock on lock"), 2);
    EXPECT_EQ(log.count("Dump all locked mutexes:"), 2);
}

TEST_F(LockdepStorageDeathTest, AFreshLockHidesNoExpiredOneBehindIt) {
    const std::array<LockdepMutex, 2> locks;  // the records' order is that of the addresses
    for (const LockdepMutex& each : locks)
        storage.add_lock(&each);
    peer.item(locks[0]).locked_at = 1001;
    peer.item(locks[1]).locked_at = 1000;
    EXPECT_EXIT(storage.check_expired(1121), KilledBySignal(SIGABRT), "");
    EXPECT_EQ(log.count("Deadlock on lock " + address(locks[1])), 1);
}

TEST_F(LockdepStorageDeathTest, ChecksAgainstTheMonotonicClock) {
    timespec now{};
    storage.add_lock(&lock);
    storage.check_expired();
    peer.item(lock).locked_at = time_monotonic(now) - 121;
    EXPECT_EXIT(storage.check_expired(), KilledBySignal(SIGABRT), "");
    EXPECT_TRUE(log.contains("Deadlock on lock"));
}

TEST_F(LockdepStorageDeathTest, AbortsWhenThereAreNoSymbols) {
    EXPECT_EXIT(
        {
            symbols_available = false;
            storage.add_lock(&lock);
        },
        KilledBySignal(SIGABRT), "");
    EXPECT_THAT(log.lines(), ElementsAre("debug: No backtrace_symbols"));
}

[[gnu::noinline]] int take_lock_below(LockdepStorage& storage, const LockdepMutexBase& lock,
                                      int calls) {
    if (calls == 0) {
        storage.add_lock(&lock);
        return 0;
    }
    return take_lock_below(storage, lock, calls - 1) + 1;  // no tail call
}

TEST_F(LockdepStorageTest, ABacktraceHasUpTo64Frames) {
    EXPECT_EQ(take_lock_below(storage, lock, 100), 100);
    EXPECT_EQ(frames_captured, 64);
}

TEST_F(LockdepStorageTest, ABacktraceBeginsWithTheInnermostFrame) {
    storage.add_lock(&lock);
    ASSERT_FALSE(peer.item(lock).backtrace.empty());
    EXPECT_EQ(peer.item(lock).backtrace.front(), lockdep_backtrace_entry(innermost_frame));
}

TEST(LockdepBacktraceEntry, PutsTheDemangledNameFirst) {
    EXPECT_EQ(lockdep_backtrace_entry("/usr/sbin/lumd(_ZN15abstract_worker4funcEv+0x1f) [0x5512]"),
              "abstract_worker::func() _ZN15abstract_worker4funcEv + 0x1f");
}

TEST(LockdepBacktraceEntry, KeepsALineThatDoesNotDemangle) {
    for (const char* line : {"/usr/sbin/lumd(main+0x1f) [0x5512]", "/usr/sbin/lumd(+0x4a10) [0x5]"})
        EXPECT_EQ(lockdep_backtrace_entry(line), line);
}

TEST(LockdepBacktraceEntry, LeavesOutALineOfAnotherForm) {
    for (const char* line : {"/usr/sbin/lumd [0x5512]", "/usr/sbin/lumd+0x1f [0x5512]",
                             "/usr/sbin/lumd(_ZN15abstract_worker4funcEv) [0x5512]",
                             "/usr/lib/libc++.so(_ZN15abstract_worker4funcEv+0x1f) [0x5]", ""})
        EXPECT_EQ(lockdep_backtrace_entry(line), std::nullopt) << line;
}

TEST(LockdepBacktraceEntry, SurvivesALineThatIsCutShort) {
    EXPECT_EQ(lockdep_backtrace_entry("lumd(_Z1fv+"), "f() _Z1fv + ");
    EXPECT_EQ(lockdep_backtrace_entry("lumd(+"), "lumd(+");
}

// Without a guard, as the thread safety analysis would not have it.
template <typename Mutex>
void take(Mutex& lock) LUMD_NO_THREAD_SAFETY_ANALYSIS {
    lock.lock();
}
template <typename Mutex>
void release(Mutex& lock) LUMD_NO_THREAD_SAFETY_ANALYSIS {
    lock.unlock();
}

// The mutexes, with the checker switched on for the test's time.
class LockdepMutexTest : public testing::Test {
  protected:
    LockdepMutexTest() { LockdepStorage::lockdep_debug = true; }
    ~LockdepMutexTest() override { LockdepStorage::lockdep_debug = false; }

    [[nodiscard]] static std::size_t held() { return LockdepStorage::instance().size(); }
};

using LockdepMutexDeathTest = LockdepMutexTest;

TEST_F(LockdepMutexTest, IsRecordedWhileItIsHeld) {
    LockdepMutex lock{"ctx_mutex"};
    {
        const std::lock_guard guard(lock);
        EXPECT_EQ(held(), 1u);
    }
    EXPECT_EQ(held(), 0u);
}

TEST_F(LockdepMutexTest, ARecursiveLockTakenAndReleasedThreeTimesLeavesNoRecord) {
    LockdepRecursiveMutex lock{"LockedLwsCallback"};
    for (int i = 0; i < 3; ++i)
        take(lock);
    EXPECT_EQ(held(), 1u);
    for (int i = 0; i < 2; ++i)
        release(lock);
    EXPECT_EQ(held(), 1u);
    release(lock);
    EXPECT_EQ(held(), 0u);
}

// A lock that notes how many locks are recorded when it is taken and when it is released.
class record_counter {
  public:
    void lock() { counted.push_back(LockdepStorage::instance().size()); }
    void unlock() { counted.push_back(LockdepStorage::instance().size()); }

    static inline std::vector<std::size_t> counted;
};

TEST_F(LockdepMutexTest, IsRecordedAfterItIsTakenAndForgottenBeforeItIsReleased) {
    LockdepLockable<record_counter> lock;
    record_counter::counted.clear();
    take(lock);
    EXPECT_EQ(held(), 1u);
    release(lock);
    EXPECT_THAT(record_counter::counted, ElementsAre(0u, 0u));
}

TEST_F(LockdepMutexTest, NothingIsRecordedWhileTheSwitchIsOff) {
    LockdepStorage::lockdep_debug = false;
    LockdepMutex lock;
    LockdepRecursiveMutex recursive;
    const std::lock_guard guard(lock);
    const std::lock_guard recursive_guard(recursive);
    EXPECT_EQ(held(), 0u);
}

TEST_F(LockdepMutexDeathTest, UnlockingWhatIsNotHeldAborts) {
    const LogCapture log;
    LockdepMutex lock;
    EXPECT_EXIT(release(lock), KilledBySignal(SIGABRT), "");
    EXPECT_EQ(log.lines().front(), "error: Unbalanced unlock case 2");
}

TEST_F(LockdepMutexTest, ExcludesOtherThreadsAndKeepsTheRecordsStraight) {
    constexpr int threads = 4;
    constexpr int rounds = 50;
    LockdepMutex lock{"ctx_mutex"};
    LockdepRecursiveMutex recursive{"LockedLwsCallback"};
    int counter = 0;
    {
        std::vector<std::jthread> pool;
        for (int t = 0; t < threads; ++t)
            pool.emplace_back([&] {
                for (int i = 0; i < rounds; ++i) {
                    const std::lock_guard outer(recursive);
                    const std::lock_guard inner(recursive);
                    const std::lock_guard guard(lock);
                    ++counter;
                }
            });
    }
    EXPECT_EQ(counter, threads * rounds);
    EXPECT_EQ(held(), 0u);
}

// The checker's thread in a process of its own, whose sleeps pass at once: it finds a lock that was
// taken `age` seconds before it begins. The status is how many times it has slept by then.
void check_a_lock_taken(std::time_t age) {
    constexpr unsigned patience =
        30;  // seconds; neither may a checker that is blind go on for ever
    constexpr std::size_t patient_sleeps = 100;
    alarm(patience);
    SleepClock clock(1000000);
    clock.on_sleep = [&clock] {
        if (clock.sleeps().size() > patient_sleeps)
            _exit(patient_sleeps);
    };
    LockdepStorage& storage = LockdepStorage::instance();
    const LockdepMutex lock{"stuck"};
    storage.add_lock(&lock);
    LockdepStorage_peer(storage).item(lock).locked_at -= age;
    std::set_terminate(
        [] { _exit(static_cast<int>(SleepClock::of_this_thread()->sleeps().size())); });
    vexor_lockdep_thread_func();
}

TEST_F(LockdepMutexDeathTest, TheCheckersThreadLooksBeforeItSleeps) {
    const LogCapture log;
    EXPECT_EXIT(check_a_lock_taken(121), ExitedWithCode(0), "");
    EXPECT_EQ(log.count("error: Deadlock on lock"), 1);
}

TEST_F(LockdepMutexDeathTest, TheCheckersThreadLooksOnceASecond) {
    EXPECT_EXIT(check_a_lock_taken(118), ExitedWithCode(3), "");
}

// Releases a lock in a destructor that runs after those of all other static objects.
struct outermost_locker {
    LockdepMutex lock{"late"};
    bool held = false;
    ~outermost_locker() {
        if (held)
            release(lock);
    }
};
[[gnu::init_priority(101)]] outermost_locker locks_at_the_end;

TEST_F(LockdepMutexDeathTest, TheStorageOutlivesEveryStaticObject) {
    EXPECT_EXIT(
        {
            take(locks_at_the_end.lock);
            locks_at_the_end.held = true;
            std::exit(0);
        },
        ExitedWithCode(0), "");
}

}  // namespace
