// liblabclock.so: a clock that runs LAB_CLOCK_SPEED times faster, preloaded into a program so that
// minutes of protocol time take seconds.
//
// What a program reads of the clock is scaled up, what it waits is scaled down and rounded up, so
// that after a wait of n seconds at least n seconds have passed on the clock it reads. Zero and
// infinite waits stay what they are. Not scaled: file times, the kernel's own network timers,
// name look-ups, CPU-time clocks.
//
// LAB_CLOCK_FILE names a file that the lab maps as well and in which it may change the speed while
// the program runs (SharedSpeed; labap/clock.py writes it). A wait that has begun keeps the speed
// it began with.
//
// Calls may come before any constructor ran (sanitizer runtimes read the clock while they start),
// from any thread and from signal handlers: nothing here allocates or locks after the first call.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

constexpr std::int64_t kNsPerSecond = 1'000'000'000;
constexpr std::int64_t kNsPerMilli = 1'000'000;
constexpr std::int64_t kNsPerMicro = 1'000;
// An absolute time below this many seconds is one of the monotonic clock (an uptime of 31 years),
// above it one of the wall clock: pthread_cond_timedwait(3) does not tell which one it is given.
constexpr std::int64_t kWallClockFrom = 1'000'000'000;

struct Real {
    int (*clock_gettime)(clockid_t, timespec*);
    int (*poll)(pollfd*, nfds_t, int);
    int (*ppoll)(pollfd*, nfds_t, const timespec*, const sigset_t*);
    int (*select)(int, fd_set*, fd_set*, fd_set*, timeval*);
    int (*epoll_wait)(int, epoll_event*, int, int);
    int (*epoll_pwait)(int, epoll_event*, int, int, const sigset_t*);
    int (*nanosleep)(const timespec*, timespec*);
    int (*clock_nanosleep)(clockid_t, int, const timespec*, timespec*);
    int (*cond_timedwait)(pthread_cond_t*, pthread_mutex_t*, const timespec*);
    int (*cond_clockwait)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*);
};

// From the time `since` on the real monotonic clock the scaled ones run at `speed`; they had gained
// `elapsed` by then. Times in ns.
struct alignas(8) Pace {
    double speed;
    std::int64_t since;
    std::int64_t elapsed;
};

// The content of LAB_CLOCK_FILE, in the program's byte order. `changes` is odd while `pace` is
// being written.
struct SharedSpeed {
    std::atomic<std::uint32_t> changes;
    std::uint32_t unused;
    Pace pace;
};
static_assert(sizeof(SharedSpeed) == 32);

struct Clock {
    Pace own{1.0, 0, 0};
    const SharedSpeed* shared = nullptr;
    std::int64_t monotonic_start = 0;  // ns, where the scaled clock and the real one agree
    std::int64_t boot_start = 0;
    std::int64_t wall_start = 0;
    Real real{};
};

enum class Phase { kNew, kStarting, kReady };

constinit Clock g_clock;
constinit std::atomic<Phase> g_phase{Phase::kNew};

std::int64_t to_ns(const timespec& ts) {
    return static_cast<std::int64_t>(ts.tv_sec) * kNsPerSecond + ts.tv_nsec;
}

timespec to_timespec(std::int64_t ns) {
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(ns / kNsPerSecond);
    ts.tv_nsec = static_cast<long>(ns % kNsPerSecond);
    return ts;
}

template <typename Function>
void resolve(Function& function, const char* name) {
    function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

void resolve_all(Real& real) {
    resolve(real.clock_gettime, "clock_gettime");
    resolve(real.poll, "poll");
    resolve(real.ppoll, "ppoll");
    resolve(real.select, "select");
    resolve(real.epoll_wait, "epoll_wait");
    resolve(real.epoll_pwait, "epoll_pwait");
    resolve(real.nanosleep, "nanosleep");
    resolve(real.clock_nanosleep, "clock_nanosleep");
    resolve(real.cond_timedwait, "pthread_cond_timedwait");
    resolve(real.cond_clockwait, "pthread_cond_clockwait");
}

std::int64_t real_now(const Real& real, clockid_t id) {
    timespec now{};
    real.clock_gettime(id, &now);
    return to_ns(now);
}

const SharedSpeed* map_shared_speed() {
    const char* path = getenv("LAB_CLOCK_FILE");
    const int fd = path != nullptr ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (fd < 0) {
        return nullptr;
    }
    void* memory = mmap(nullptr, sizeof(SharedSpeed), PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    return memory != MAP_FAILED ? static_cast<const SharedSpeed*>(memory) : nullptr;
}

double configured_speed() {
    const char* text = getenv("LAB_CLOCK_SPEED");
    const double speed = text != nullptr ? strtod(text, nullptr) : 1.0;
    return speed > 0.0 ? speed : 1.0;
}

void start(Clock& clock) {
    resolve_all(clock.real);
    clock.monotonic_start = real_now(clock.real, CLOCK_MONOTONIC);
    clock.own = {configured_speed(), clock.monotonic_start, 0};
    clock.shared = map_shared_speed();
    clock.boot_start = real_now(clock.real, CLOCK_BOOTTIME);
    clock.wall_start = real_now(clock.real, CLOCK_REALTIME);
}

const Clock& the_clock() {
    Phase expected = Phase::kNew;
    if (g_phase.load(std::memory_order_acquire) == Phase::kReady) {
        return g_clock;
    }
    if (g_phase.compare_exchange_strong(expected, Phase::kStarting)) {
        start(g_clock);
        g_phase.store(Phase::kReady, std::memory_order_release);
    }
    while (g_phase.load(std::memory_order_acquire) != Phase::kReady) {
    }
    return g_clock;
}

// Where the scaled reading of a clock starts; -1 for a clock that is not scaled.
std::int64_t start_of(const Clock& clock, clockid_t id) {
    switch (id) {
        case CLOCK_MONOTONIC:
        case CLOCK_MONOTONIC_RAW:
        case CLOCK_MONOTONIC_COARSE:
            return clock.monotonic_start;
        case CLOCK_BOOTTIME:
            return clock.boot_start;
        case CLOCK_REALTIME:
        case CLOCK_REALTIME_COARSE:
            return clock.wall_start;
        default:
            return -1;
    }
}

Pace pace_of(const Clock& clock) {
    if (clock.shared == nullptr) {
        return clock.own;
    }
    for (;;) {
        const std::uint32_t before = clock.shared->changes.load(std::memory_order_acquire);
        const Pace pace = clock.shared->pace;
        std::atomic_thread_fence(std::memory_order_acquire);
        if (before % 2 == 0 && before == clock.shared->changes.load(std::memory_order_relaxed)) {
            return pace;
        }
    }
}

std::int64_t scaled_up(const Clock& clock, std::int64_t ns) {
    return static_cast<std::int64_t>(static_cast<double>(ns) * pace_of(clock).speed);
}

// A wait of `ns` on the scaled clock, in real time: rounded up, at least 1 when it was above 0.
std::int64_t scaled_down(const Clock& clock, std::int64_t ns) {
    return ns <= 0 ? ns
                   : static_cast<std::int64_t>(static_cast<double>(ns) / pace_of(clock).speed) + 1;
}

// What the scaled clocks have gained since they started.
std::int64_t elapsed(const Clock& clock) {
    const Pace pace = pace_of(clock);
    const std::int64_t now = real_now(clock.real, CLOCK_MONOTONIC);
    return pace.elapsed +
           static_cast<std::int64_t>(static_cast<double>(now - pace.since) * pace.speed);
}

int scaled_now(clockid_t id, timespec* out) {
    const Clock& clock = the_clock();
    const std::int64_t begin = start_of(clock, id);
    if (begin < 0) {
        return clock.real.clock_gettime(id, out);
    }
    *out = to_timespec(begin + elapsed(clock));
    return 0;
}

// An absolute time of the scaled clock as the time at which the real one gets there.
timespec real_deadline(const Clock& clock, clockid_t id, const timespec& deadline) {
    const std::int64_t begin = start_of(clock, id);
    if (begin < 0) {
        return deadline;
    }
    const std::int64_t wait = to_ns(deadline) - (begin + elapsed(clock));
    return to_timespec(real_now(clock.real, id) + scaled_down(clock, wait));
}

int real_milliseconds(const Clock& clock, int milliseconds) {
    if (milliseconds <= 0) {
        return milliseconds;
    }
    const std::int64_t ns = scaled_down(clock, milliseconds * kNsPerMilli);
    const std::int64_t rounded_up = (ns + kNsPerMilli - 1) / kNsPerMilli;
    return rounded_up > INT_MAX ? INT_MAX : static_cast<int>(rounded_up);
}

int sleep_for(std::int64_t ns, timespec* remaining) {
    const Clock& clock = the_clock();
    const timespec wait = to_timespec(scaled_down(clock, ns));
    timespec left{};
    const int result = clock.real.nanosleep(&wait, &left);
    if (result != 0 && remaining != nullptr) {
        *remaining = to_timespec(scaled_up(clock, to_ns(left)));
    }
    return result;
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t id, timespec* out) noexcept {
    return scaled_now(id, out);
}

int gettimeofday(timeval* __restrict out, void* __restrict) noexcept {
    timespec now{};
    const int result = scaled_now(CLOCK_REALTIME, &now);
    out->tv_sec = now.tv_sec;
    out->tv_usec = static_cast<suseconds_t>(now.tv_nsec / kNsPerMicro);
    return result;
}

time_t time(time_t* out) noexcept {
    timespec now{};
    scaled_now(CLOCK_REALTIME, &now);
    if (out != nullptr) {
        *out = now.tv_sec;
    }
    return now.tv_sec;
}

int poll(pollfd* fds, nfds_t count, int timeout) {
    const Clock& clock = the_clock();
    return clock.real.poll(fds, count, real_milliseconds(clock, timeout));
}

int ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask) {
    const Clock& clock = the_clock();
    if (timeout == nullptr) {
        return clock.real.ppoll(fds, count, timeout, mask);
    }
    const timespec wait = to_timespec(scaled_down(clock, to_ns(*timeout)));
    return clock.real.ppoll(fds, count, &wait, mask);
}

// What poll and ppoll become in programs built with _FORTIFY_SOURCE.
int __poll_chk(pollfd* fds, nfds_t count, int timeout, std::size_t) {
    return poll(fds, count, timeout);
}

int __ppoll_chk(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask,
                std::size_t) {
    return ppoll(fds, count, timeout, mask);
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* other, timeval* timeout) {
    const Clock& clock = the_clock();
    if (timeout == nullptr) {
        return clock.real.select(count, readable, writable, other, timeout);
    }
    const std::int64_t ns = timeout->tv_sec * kNsPerSecond + timeout->tv_usec * kNsPerMicro;
    const std::int64_t micros = (scaled_down(clock, ns) + kNsPerMicro - 1) / kNsPerMicro;
    timeval wait{};
    wait.tv_sec = static_cast<time_t>(micros / 1'000'000);
    wait.tv_usec = static_cast<suseconds_t>(micros % 1'000'000);
    const int result = clock.real.select(count, readable, writable, other, &wait);
    const timespec left =
        to_timespec(scaled_up(clock, wait.tv_sec * kNsPerSecond + wait.tv_usec * kNsPerMicro));
    timeout->tv_sec = left.tv_sec;  // Linux reports the time not slept
    timeout->tv_usec = static_cast<suseconds_t>(left.tv_nsec / kNsPerMicro);
    return result;
}

int epoll_wait(int fd, epoll_event* events, int count, int timeout) {
    const Clock& clock = the_clock();
    return clock.real.epoll_wait(fd, events, count, real_milliseconds(clock, timeout));
}

int epoll_pwait(int fd, epoll_event* events, int count, int timeout, const sigset_t* mask) {
    const Clock& clock = the_clock();
    return clock.real.epoll_pwait(fd, events, count, real_milliseconds(clock, timeout), mask);
}

int usleep(useconds_t micros) {
    return sleep_for(static_cast<std::int64_t>(micros) * kNsPerMicro, nullptr);
}

int nanosleep(const timespec* request, timespec* remaining) {
    return sleep_for(to_ns(*request), remaining);
}

unsigned int sleep(unsigned int seconds) {
    timespec left{};
    if (sleep_for(static_cast<std::int64_t>(seconds) * kNsPerSecond, &left) == 0) {
        return 0;
    }
    return static_cast<unsigned int>(left.tv_sec) + (left.tv_nsec > 0 ? 1U : 0U);
}

int clock_nanosleep(clockid_t id, int flags, const timespec* request, timespec* remaining) {
    const Clock& clock = the_clock();
    if (start_of(clock, id) < 0) {
        return clock.real.clock_nanosleep(id, flags, request, remaining);
    }
    if ((flags & TIMER_ABSTIME) != 0) {
        const timespec deadline = real_deadline(clock, id, *request);
        return clock.real.clock_nanosleep(id, flags, &deadline, remaining);
    }
    return sleep_for(to_ns(*request), remaining) == 0 ? 0 : errno;
}

int pthread_cond_timedwait(pthread_cond_t* __restrict condition, pthread_mutex_t* __restrict mutex,
                           const timespec* __restrict deadline) {
    const Clock& clock = the_clock();
    const clockid_t id = deadline->tv_sec < kWallClockFrom ? CLOCK_MONOTONIC : CLOCK_REALTIME;
    const timespec real = real_deadline(clock, id, *deadline);
    return clock.real.cond_timedwait(condition, mutex, &real);
}

int pthread_cond_clockwait(pthread_cond_t* __restrict condition, pthread_mutex_t* __restrict mutex,
                           clockid_t id, const timespec* __restrict deadline) {
    const Clock& clock = the_clock();
    const timespec real = real_deadline(clock, id, *deadline);
    return clock.real.cond_clockwait(condition, mutex, id, &real);
}

}  // extern "C"
