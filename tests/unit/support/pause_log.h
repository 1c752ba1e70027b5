// PauseLog: the waits of the thread that made it, noted instead of waited for.
//
// While a PauseLog lives, usleep(3) and poll(2) of its thread return at once: usleep as if slept,
// poll as if nothing had come in time, unless it is to look at descriptors and is given none. A
// program that links pause_log.cpp answers both itself.
#ifndef TESTS_PAUSE_LOG_H
#define TESTS_PAUSE_LOG_H

#include <unistd.h>

#include <functional>
#include <utility>
#include <vector>

class PauseLog {
  public:
    // `meanwhile` runs in each.
    explicit PauseLog(std::function<void()> meanwhile);
    ~PauseLog();
    PauseLog(const PauseLog&) = delete;
    PauseLog& operator=(const PauseLog&) = delete;

    [[nodiscard]] const std::vector<useconds_t>& pauses() const { return pauses_; }  // microseconds
    [[nodiscard]] const std::vector<int>& waits() const { return waits_; }  // poll's, milliseconds

    // For the interposed calls.
    void pause(useconds_t us);
    void wait(int ms);

  private:
    std::function<void()> meanwhile_;
    std::vector<useconds_t> pauses_;
    std::vector<int> waits_;
};

#endif
