#include "sleep_clock.h"

#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "hidden.h"

namespace {

thread_local SleepClock* active = nullptr;

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* ts) noexcept {
    if (active == nullptr || clock != CLOCK_MONOTONIC)
        return hidden<int (*)(clockid_t, timespec*)>("clock_gettime")(clock, ts);
    ts->tv_sec = static_cast<std::time_t>(active->now_ms() / 1000);
    ts->tv_nsec = static_cast<long>(active->now_ms() % 1000 * 1000000);
    return 0;
}

extern "C" unsigned sleep(unsigned seconds) {
    if (active == nullptr)
        return hidden<unsigned (*)(unsigned)>("sleep")(seconds);
    active->sleep_ms(std::int64_t{seconds} * 1000);
    return 0;
}

extern "C" int usleep(useconds_t us) {
    if (active == nullptr)
        return hidden<int (*)(useconds_t)>("usleep")(us);
    active->sleep_ms(us / 1000);
    return 0;
}

extern "C" int select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* timeout) {
    if (active == nullptr || count != 0)
        return hidden<int (*)(int, fd_set*, fd_set*, fd_set*, timeval*)>("select")(
            count, read, write, except, timeout);
    return active->select_ms(*timeout);
}

SleepClock::SleepClock(std::int64_t start_ms) : now_ms_(start_ms) {
    active = this;
}

SleepClock::~SleepClock() {
    active = nullptr;
}

const SleepClock* SleepClock::of_this_thread() {
    return active;
}

void SleepClock::sleep_ms(std::int64_t ms) {
    sleeps_.push_back(ms);
    now_ms_ += ms;
    on_sleep();
}

int SleepClock::select_ms(timeval& timeout) {
    const std::int64_t ms = std::int64_t{timeout.tv_sec} * 1000 + timeout.tv_usec / 1000;
    const std::int64_t interrupted = std::exchange(interrupt_ms_, -1);
    const std::int64_t slept = interrupted >= 0 ? interrupted : ms;
    sleep_ms(slept);
    timeout.tv_sec = static_cast<std::time_t>((ms - slept) / 1000);
    timeout.tv_usec = static_cast<suseconds_t>((ms - slept) % 1000 * 1000);
    if (interrupted < 0)
        return 0;
    errno = EINTR;
    return -1;
}
