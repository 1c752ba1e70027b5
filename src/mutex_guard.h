// The locks and lock guards of the standard library as the thread safety analysis knows them.
#ifndef LUMD_MUTEX_GUARD_H
#define LUMD_MUTEX_GUARD_H

#include <mutex>

#include "thread_annotations.h"

// std::mutex for the lock checker and the logger under it; all else takes a LockdepMutex.
// Constant-initialised.
class LUMD_CAPABILITY("mutex") plain_mutex {
  public:
    void lock() LUMD_ACQUIRE() LUMD_NO_THREAD_SAFETY_ANALYSIS { m.lock(); }
    void unlock() LUMD_RELEASE() LUMD_NO_THREAD_SAFETY_ANALYSIS { m.unlock(); }

  private:
    std::mutex m;
};

// std::lock_guard: holds `mutex`, a BasicLockable, from its making to its end.
template <typename Mutex>
class LUMD_SCOPED_CAPABILITY mutex_guard {
  public:
    explicit mutex_guard(Mutex& mutex) LUMD_ACQUIRE(mutex) : guard(mutex) {}
    ~mutex_guard() LUMD_RELEASE() = default;
    mutex_guard(const mutex_guard&) = delete;
    mutex_guard& operator=(const mutex_guard&) = delete;

  private:
    std::lock_guard<Mutex> guard;
};

#endif
