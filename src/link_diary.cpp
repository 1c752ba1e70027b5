#include "link_diary.h"

#include <cstdio>

#include "logsink.h"
#include "lum_trace.h"

void link_diary::down(const std::string& cause, std::time_t now) {
    up_since_.reset();
    if (cause.empty())
        return;
    if (cause != cause_) {
        cause_ = cause;
        times_ = 0;
        return warn(now);
    }
    ++times_;
    if (now - told_ >= repeat)
        warn(now);
}

void link_diary::up(std::time_t now) {
    if (!cause_.empty())
        up_since_ = now;
}

// Not through the logger's level of information: who was told of the trouble is told of its end.
void link_diary::look(std::time_t now) {
    if (!up_since_ || now - *up_since_ < lasting)
        return;
    if (trace.is_warn_enabled() || trace.is_info_enabled())
        logsink_message(SINK_INFO, "%s->Link to %s:%d%s is up again\n", name_, host_.c_str(), port_,
                        path_.c_str());
    up_since_.reset();
    cause_.clear();
}

void link_diary::warn(std::time_t now) {
    char again[40] = "";
    if (times_ > 0)
        std::snprintf(again, sizeof again, " (again, %d times)", times_);
    trace.warn("%s->No link to %s:%d%s: %s%s\n", name_, host_.c_str(), port_, path_.c_str(),
               cause_.c_str(), again);
    told_ = now;
    times_ = 0;
}
