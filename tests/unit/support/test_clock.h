// TestClock: the calling thread's CLOCK_MONOTONIC, moved by hand.
//
// A program that links test_clock.cpp answers clock_gettime(2) itself. While a TestClock lives, the
// monotonic clock of its thread begins at the start of a whole second and each advance() puts it at
// the start of a later one; in between it runs on, so that a wait for an answer that never comes
// still ends. Other threads and other clocks tell real time.
#ifndef TESTS_TEST_CLOCK_H
#define TESTS_TEST_CLOCK_H

#include <ctime>

class TestClock {
  public:
    TestClock();
    ~TestClock();
    TestClock(const TestClock&) = delete;
    TestClock& operator=(const TestClock&) = delete;

    void advance(int seconds);
    [[nodiscard]] std::time_t now() const { return second_; }

  private:
    void set_second();

    std::time_t second_;
};

#endif
