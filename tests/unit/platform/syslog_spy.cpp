#include "syslog_spy.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

static std::mutex spy_mutex;
static std::vector<SyslogLine> spy_lines;

std::vector<SyslogLine> take_syslog() {
    const std::lock_guard lock{spy_mutex};
    return std::exchange(spy_lines, {});
}

__attribute__((format(printf, 2, 0))) static void keep(int priority, const char* format,
                                                       va_list args) {
    char text[4096];
    vsnprintf(text, sizeof text, format, args);
    const std::lock_guard lock{spy_mutex};
    spy_lines.push_back({priority, text});
}

extern "C" {

__attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    keep(priority, format, args);
    va_end(args);
}

// What fortified builds call instead.
__attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int, const char* format,
                                                        ...) {
    va_list args;
    va_start(args, format);
    keep(priority, format, args);
    va_end(args);
}
}
