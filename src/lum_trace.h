// lum_trace: the process logger.
#ifndef LUMD_LUM_TRACE_H
#define LUMD_LUM_TRACE_H

#include <atomic>
#include <cstdarg>
#include <string>

// Four printf-style methods, each let through by one bit of a level mask, all into the logging
// sink under one mutex. Any thread may log; the mask is read without locking. A static constructor
// or destructor may log too: before this object is built its mask reads as 0.
class lum_trace {
  public:
    lum_trace(const char* module_name, int level);

    // Replaces the mask: 1 error, 2 warn, 4 info, 8 debug; higher bits mean nothing here.
    void set_log_level(int level);

    [[nodiscard]] bool is_error_enabled() const { return enabled(1); }
    [[nodiscard]] bool is_warn_enabled() const { return enabled(2); }
    [[nodiscard]] bool is_info_enabled() const { return enabled(4); }
    [[nodiscard]] bool is_debug_enabled() const { return enabled(8); }

    [[gnu::format(printf, 2, 3)]] void error(const char* format, ...);
    [[gnu::format(printf, 2, 3)]] void warn(const char* format, ...);
    [[gnu::format(printf, 2, 3)]] void info(const char* format, ...);
    [[gnu::format(printf, 2, 3)]] void debug(const char* format, ...);

  private:
    [[nodiscard]] bool enabled(int bit) const {
        return (log_level.load(std::memory_order_relaxed) & bit) != 0;
    }
    [[gnu::format(printf, 3, 0)]] void trace(int severity, const char* format, va_list args);

    const char* module;
    std::atomic<int> log_level;
};

// The logger of the process, built before main with mask 0.
extern lum_trace trace;

// Log level and destination as the configuration file gives them.
extern int global_log_level;
extern std::string global_log_file;
extern bool global_log_out;  // log to the file as well

#endif
