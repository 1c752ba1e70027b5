/*
 * logsink: where log lines go.
 *
 * Each line goes to syslog(3) and, when a file is set, is appended to that file as
 *     YYYY-MM-DD HH:MM:SS.mmm NAME[pid] severity: text
 * in local time, one line per message: a line feed at the end of the text is not doubled, a line
 * feed inside it becomes a blank. The file is rotated at
 * LOGSINK_ROTATE_BYTES to FILE.1, FILE.2, ..., FILE.<LOGSINK_KEPT_FILES>. A file that cannot be
 * written is reported to syslog, once until it has been written again, and never stops the caller:
 * each later line tries again.
 *
 * Threads: every operation may be called from any thread; lines are never torn.
 */
#ifndef PLATFORM_LOGSINK_H
#define PLATFORM_LOGSINK_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Severities are bits; exactly one is given with each message. */
enum sink_log_level {
    SINK_EMERG = 1,
    SINK_ALERT = 2,
    SINK_CRIT = 4,
    SINK_ERROR = 8,
    SINK_WARNING = 16,
    SINK_NOTICE = 32,
    SINK_INFO = 64,
    SINK_DEBUG = 128
};

enum { LOGSINK_ROTATE_BYTES = 1024 * 1024, LOGSINK_KEPT_FILES = 3 };

/* Sets the daemon's name (copied, at most 63 bytes) as it stands in each line. */
void logsink_set_name(const char* name);

/* Also write to the file at `path` (copied); null or an empty path: to syslog alone. */
void logsink_set_file(const char* path);

/* Logs one message now. */
void logsink_vmessage(int severity, const char* format, va_list args)
    __attribute__((format(printf, 2, 0)));
void logsink_message(int severity, const char* format, ...) __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
}
#endif

#endif
