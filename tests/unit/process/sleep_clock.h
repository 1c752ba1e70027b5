// SleepClock: a monotonic clock that moves only when its thread sleeps.
//
// While a SleepClock lives, clock_gettime(2) answers its CLOCK_MONOTONIC, and sleep(3), usleep(3)
// and select(2) without descriptors move it instead of waiting, to its own thread alone.
#ifndef TESTS_SLEEP_CLOCK_H
#define TESTS_SLEEP_CLOCK_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <vector>

class SleepClock {
  public:
    explicit SleepClock(std::int64_t start_ms);
    ~SleepClock();
    SleepClock(const SleepClock&) = delete;
    SleepClock& operator=(const SleepClock&) = delete;

    // The one that the calling thread lives by; null without one.
    static const SleepClock* of_this_thread();

    std::function<void()> on_sleep = [] {};  // called after each

    void advance_ms(std::int64_t ms) { now_ms_ += ms; }
    [[nodiscard]] std::int64_t now_ms() const { return now_ms_; }

    // The length of each sleep so far, milliseconds.
    [[nodiscard]] const std::vector<std::int64_t>& sleeps() const { return sleeps_; }

    // A signal cuts the next select(2) short after `ms`.
    void interrupt_select_after(std::int64_t ms) { interrupt_ms_ = ms; }

    // For the interposed calls.
    void sleep_ms(std::int64_t ms);
    int select_ms(timeval& timeout);

  private:
    std::int64_t now_ms_;
    std::int64_t interrupt_ms_ = -1;
    std::vector<std::int64_t> sleeps_;
};

#endif
