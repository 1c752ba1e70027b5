#include "link_diary.h"

#include <utility>

#include "logsink.h"
#include "lum_trace.h"

link_diary::link_diary(std::string name, std::string target)
    : name_(std::move(name)), target_(std::move(target)) {}

void link_diary::down(const std::string& cause, std::time_t now) {
    up_since_.reset();
    if (cause.empty())
        return;
    if (cause != cause_) {
        cause_ = cause;
        warn("", now);
        return;
    }
    ++times_;
    if (now - told_ >= repeat)
        warn((" (again, " + std::to_string(times_) + " times)").c_str(), now);
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
        logsink_message(SINK_INFO, "%s->Link to %s is up again\n", name_.c_str(), target_.c_str());
    up_since_.reset();
    cause_.clear();
}

void link_diary::warn(const char* again, std::time_t now) {
    trace.warn("%s->No link to %s: %s%s\n", name_.c_str(), target_.c_str(), cause_.c_str(), again);
    told_ = now;
    times_ = 0;
}
