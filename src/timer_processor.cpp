#include "timer_processor.h"

#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace {

constexpr unsigned condition_pause = 1;        // seconds
constexpr useconds_t periodic_pause = 100000;  // microseconds

void select_sleep(std::time_t seconds) {
    timeval left{seconds, 0};
    // select(2) leaves in `left` what an interrupted sleep still owes.
    while (select(0, nullptr, nullptr, nullptr, &left) == -1 && errno == EINTR) {
    }
}

}  // namespace

std::time_t time_monotonic(timespec& ts) {
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec;
}

void timer_desc_list::insert(timer_desc timer) {
    const auto later = std::find_if(timers.begin(), timers.end(), [&](const timer_desc& other) {
        return other.timeout > timer.timeout;
    });
    timers.insert(later, std::move(timer));
}

void timer_desc_list::remove(int id) {
    timers.remove_if([id](const timer_desc& timer) { return timer.id == id; });
}

void timer_desc_list::process_once(std::time_t now) {
    const auto pending = std::find_if(timers.begin(), timers.end(), [now](const timer_desc& timer) {
        return timer.timeout > now;
    });
    std::list<timer_desc> due;
    due.splice(due.end(), timers, timers.begin(), pending);
    for (const timer_desc& timer : due)
        timer.callback();
}

const timer_desc* timer_desc_list::get_next_event(std::time_t now) const {
    const auto next = std::find_if(timers.begin(), timers.end(),
                                   [now](const timer_desc& timer) { return timer.timeout >= now; });
    return next == timers.end() ? nullptr : &*next;
}

timer_processor::timer_processor() {
    time_monotonic(ts_ref);
}

void timer_processor::add_timer(const timer_callback_type& callback, int id, int timeout) {
    timers.insert({callback, id, time_monotonic(ts_ref) + timeout});
}

void timer_processor::del_timer(int id) {
    timers.remove(id);
}

void timer_processor::process_once() {
    timers.process_once(time_monotonic(ts_ref));
}

void timer_processor::process() {
    const std::time_t now = time_monotonic(ts_ref);
    const timer_desc* next = timers.get_next_event(now);
    if (next == nullptr)
        return;
    select_sleep(next->timeout - now);
    process_once();
}

bool timer_processor::delay_with_condition(const std::function<bool()>& cond) {
    while (cond()) {
        time_monotonic(ts_ref);
        sleep(condition_pause);
    }
    return false;
}

bool timer_processor::delay_with_periodic(int seconds, const std::function<bool()>& cond) {
    const std::time_t end = time_monotonic(ts_ref) + seconds;
    do {
        usleep(periodic_pause);
        if (!cond())
            return false;
    } while (time_monotonic(ts_ref) < end);
    return false;
}
