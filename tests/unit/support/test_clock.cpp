#include "test_clock.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr long nanoseconds_per_second = 1000000000;

thread_local timespec offset{};

#if defined SYS_clock_gettime64
constexpr long kernel_clock_gettime = sizeof(std::time_t) > sizeof(long) ? SYS_clock_gettime64
                                                                         : SYS_clock_gettime;
#else
constexpr long kernel_clock_gettime = SYS_clock_gettime;
#endif

timespec real_monotonic() {
    timespec ts{};
    syscall(kernel_clock_gettime, CLOCK_MONOTONIC, &ts);
    return ts;
}

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* ts) noexcept {
    if (const long failed = syscall(kernel_clock_gettime, clock, ts); failed != 0)
        return -1;
    if (clock != CLOCK_MONOTONIC)
        return 0;
    ts->tv_sec += offset.tv_sec;
    ts->tv_nsec += offset.tv_nsec;
    if (ts->tv_nsec >= nanoseconds_per_second) {
        ts->tv_nsec -= nanoseconds_per_second;
        ++ts->tv_sec;
    }
    return 0;
}

TestClock::TestClock() : second_(real_monotonic().tv_sec + 1) {
    set_second();
}

TestClock::~TestClock() {
    offset = {};
}

void TestClock::advance(int seconds) {
    second_ += seconds;
    set_second();
}

void TestClock::set_second() {
    const timespec real = real_monotonic();
    offset.tv_sec = second_ - real.tv_sec;
    offset.tv_nsec = 0;
    if (real.tv_nsec > 0) {
        --offset.tv_sec;
        offset.tv_nsec = nanoseconds_per_second - real.tv_nsec;
    }
}
