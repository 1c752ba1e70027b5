// timer_processor: one-shot timers that fire when their owner asks.
#ifndef LUMD_TIMER_PROCESSOR_H
#define LUMD_TIMER_PROCESSOR_H

#include <ctime>
#include <functional>
#include <list>

using timer_callback_type = std::function<void()>;

struct timer_desc {
    timer_callback_type callback;
    int id;               // chosen by the owner; several timers may share one
    std::time_t timeout;  // absolute deadline, CLOCK_MONOTONIC seconds
};

// Reads CLOCK_MONOTONIC into `ts` and returns its whole seconds.
std::time_t time_monotonic(timespec& ts);

// Timers ascending by deadline; among equal deadlines the earlier inserted comes first.
class timer_desc_list {
  public:
    void insert(timer_desc timer);
    void remove(int id);

    // Unlinks every timer due at `now`, then calls their callbacks in order. What a callback adds
    // fires on a later pass at the earliest.
    void process_once(std::time_t now);

    // The first timer whose deadline is not before `now`; null when there is none.
    [[nodiscard]] const timer_desc* get_next_event(std::time_t now) const;

    [[nodiscard]] bool empty() const { return timers.empty(); }

  private:
    std::list<timer_desc> timers;
};

// Not thread-safe: used by the owner's thread only. Whole seconds of CLOCK_MONOTONIC.
class timer_processor {
  public:
    timer_processor();

    // Fires `callback` once, on the first process_once() at or after now + `timeout` seconds.
    void add_timer(const timer_callback_type& callback, int id, int timeout);

    // Removes every timer with that id; none is no error.
    void del_timer(int id);

    // Fires what is due.
    void process_once();

    // Sleeps until the next deadline that is still ahead and fires what is due then; returns at
    // once without firing when every timer is overdue or there is none.
    void process();

    // Sleeps second by second until `cond` is false. Always returns false.
    bool delay_with_condition(const std::function<bool()>& cond);

    // Sleeps up to `seconds`, asking `cond` every 100 ms; false ends the delay. Always returns
    // false.
    bool delay_with_periodic(int seconds, const std::function<bool()>& cond);

  private:
    timer_desc_list timers;
    timespec ts_ref{};  // the last monotonic time read
};

#endif
