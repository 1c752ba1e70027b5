// Mutexes that can tell who holds them, and the checker that looks for deadlocks.
//
// Switched off (the default) a lock or unlock costs one flag test more than a plain mutex.
// Switched on, every held lock is recorded with its holder and backtrace(3); an unlock of a lock
// that is not held, or a lock held for more than two minutes, dumps all held locks to the log and
// ends the process.
#ifndef LUMD_LOCKDEP_MUTEX_H
#define LUMD_LOCKDEP_MUTEX_H

#include <ctime>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "mutex_guard.h"
#include "thread_annotations.h"

class LockdepMutexBase {
  public:
    explicit LockdepMutexBase(std::string lock_name = {}) : name(std::move(lock_name)) {}

    const std::string name;  // may be empty
};

// One held lock.
struct LockdepItem {
    std::time_t locked_at = 0;  // CLOCK_MONOTONIC seconds of the first taking
    std::string lock_name;
    std::string thread_name;
    int lock_cnt = 0;  // how many times it is held; more than 1 for a recursive lock
    std::vector<std::string> backtrace;
};

// All held locks of the process. Thread-safe.
class LockdepStorage {
  public:
    // The switch; set once at start, before any other thread exists.
    static bool lockdep_debug;

    // The one storage, which lives until the process ends.
    static LockdepStorage& instance();

    // Records that the calling thread has taken `lock`.
    void add_lock(const LockdepMutexBase* lock);

    // Records that `lock` is about to be released; ends the process when it is not held.
    void del_lock(const LockdepMutexBase* lock);

    // Ends the process when a lock has been held for 121 seconds or more, now or at the monotonic
    // time `now`.
    void check_expired();
    void check_expired(std::time_t now);

    // Number of locks held now.
    [[nodiscard]] std::size_t size() const;

  private:
    // The unit tests look at the records.
    friend class LockdepStorage_peer;

    // Logs every held lock at debug level.
    void dump() const LUMD_REQUIRES(m);

    std::map<const LockdepMutexBase*, LockdepItem> locks LUMD_GUARDED_BY(m);
    mutable plain_mutex m;
};

// A lock of the standard library that the checker knows; a standard BasicLockable. Inline also
// where the compiler optimises for size: a call would cost a quarter of an uncontended lock.
template <typename Mutex>
class LUMD_CAPABILITY("mutex") LockdepLockable : public LockdepMutexBase {
  public:
    using LockdepMutexBase::LockdepMutexBase;

    [[gnu::always_inline]] void lock() LUMD_ACQUIRE() LUMD_NO_THREAD_SAFETY_ANALYSIS {
        m.lock();
        if (LockdepStorage::lockdep_debug) [[unlikely]]
            LockdepStorage::instance().add_lock(this);
    }

    [[gnu::always_inline]] void unlock() LUMD_RELEASE() LUMD_NO_THREAD_SAFETY_ANALYSIS {
        if (LockdepStorage::lockdep_debug) [[unlikely]]
            LockdepStorage::instance().del_lock(this);
        m.unlock();
    }

  private:
    Mutex m;
};

class LockdepMutex : public LockdepLockable<std::mutex> {
  public:
    using LockdepLockable::LockdepLockable;
};

// The same that its holder may take again.
class LockdepRecursiveMutex : public LockdepLockable<std::recursive_mutex> {
  public:
    using LockdepLockable::LockdepLockable;
};

// One line of backtrace_symbols(3), "module(mangled+offset) [address]", as a record keeps it: with
// the demangled name before the mangled one, unchanged when there is nothing to demangle, nothing
// for a line of another form.
std::optional<std::string> lockdep_backtrace_entry(const std::string& symbol);

// Checks once a second for ever; runs on a detached thread of its own.
void vexor_lockdep_thread_func();

#endif
