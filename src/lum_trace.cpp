#include "lum_trace.h"

#include <cstdio>

#include "logsink.h"
#include "mutex_guard.h"

int global_log_level = 0;
std::string global_log_file;
bool global_log_out = false;

// Constant-initialised and trivially destroyed, like everything a log call touches: logging works
// from the first static constructor to the last static destructor.
constinit static plain_mutex global_log_mutex;

lum_trace trace("lumd", 0);

lum_trace::lum_trace(const char* module_name, int level) : module(module_name), log_level(level) {
    logsink_set_name(module);
    setbuf(stdout, nullptr);  // a worker's last words must not be lost in a buffer
}

void lum_trace::set_log_level(int level) {
    log_level.store(level, std::memory_order_relaxed);
}

void lum_trace::error(const char* format, ...) {
    if (!is_error_enabled())
        return;
    va_list args;
    va_start(args, format);
    trace(SINK_ERROR, format, args);
    va_end(args);
}

void lum_trace::warn(const char* format, ...) {
    if (!is_warn_enabled())
        return;
    va_list args;
    va_start(args, format);
    trace(SINK_WARNING, format, args);
    va_end(args);
}

void lum_trace::info(const char* format, ...) {
    if (!is_info_enabled())
        return;
    va_list args;
    va_start(args, format);
    trace(SINK_INFO, format, args);
    va_end(args);
}

void lum_trace::debug(const char* format, ...) {
    if (!is_debug_enabled())
        return;
    va_list args;
    va_start(args, format);
    trace(SINK_DEBUG, format, args);
    va_end(args);
}

void lum_trace::trace(int severity, const char* format, va_list args) {
    const mutex_guard lock(global_log_mutex);
    logsink_vmessage(severity, format, args);
}
