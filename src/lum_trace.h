// lum_trace: the process logger.
#ifndef LUMD_LUM_TRACE_H
#define LUMD_LUM_TRACE_H

#include <cstdarg>
#include <string>

// Four printf-style methods, each let through by one bit of a level mask, all into the logging
// sink under one mutex. Any thread may log; the mask is read without locking.
class lum_trace {
  public:
    lum_trace(const char* module_name, int level);

    // Replaces the mask: 1 error, 2 warn, 4 info, 8 debug; higher bits mean nothing here.
    void set_log_level(int level);

    [[nodiscard]] bool is_error_enabled() const { return (log_level & 1) != 0; }
    [[nodiscard]] bool is_warn_enabled() const { return (log_level & 2) != 0; }
    [[nodiscard]] bool is_info_enabled() const { return (log_level & 4) != 0; }
    [[nodiscard]] bool is_debug_enabled() const { return (log_level & 8) != 0; }

    [[gnu::format(printf, 2, 3)]] void error(const char* format, ...);
    [[gnu::format(printf, 2, 3)]] void warn(const char* format, ...);
    [[gnu::format(printf, 2, 3)]] void info(const char* format, ...);
    [[gnu::format(printf, 2, 3)]] void debug(const char* format, ...);

  private:
    [[gnu::format(printf, 3, 0)]] void trace(int severity, const char* format, va_list args);

    const char* module;
    int log_level;
};

// The logger of the process, built before main with mask 0.
extern lum_trace trace;

// Log destination as the configuration file gives it.
extern int global_log_level;
extern std::string global_log_file;
extern bool global_log_out;  // log to the file as well

#endif
