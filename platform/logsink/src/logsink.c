#include "logsink.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

enum {
    NAME_BYTES = 64,
    HEAD_BYTES = 192, /* time, name, pid and severity in front of a line */
    TEXT_BYTES = 1024 /* longer texts are formatted on the heap */
};

static struct {
    pthread_mutex_t mutex; /* guards everything below and makes each line whole */
    char name[NAME_BYTES];
    char path[PATH_MAX];
    int fd; /* of the file at `path`, or -1 */
    off_t size;
    bool failure_reported; /* since the file was set, or written last */
} sink = {.mutex = PTHREAD_MUTEX_INITIALIZER, .fd = -1};

static const struct severity {
    int level;
    int priority;
    const char* name;
} severities[] = {
    {SINK_EMERG, LOG_EMERG, "emergency"},   {SINK_ALERT, LOG_ALERT, "alert"},
    {SINK_CRIT, LOG_CRIT, "critical"},      {SINK_ERROR, LOG_ERR, "error"},
    {SINK_WARNING, LOG_WARNING, "warning"}, {SINK_NOTICE, LOG_NOTICE, "notice"},
    {SINK_INFO, LOG_INFO, "info"},          {SINK_DEBUG, LOG_DEBUG, "debug"},
};

/* A value that is no single known bit is logged as an error rather than lost. */
static const struct severity* find_severity(int level) {
    const size_t count = sizeof severities / sizeof severities[0];
    for (size_t i = 0; i < count; i++)
        if (severities[i].level == level)
            return &severities[i];
    return find_severity(SINK_ERROR);
}

static void close_file(void) {
    if (sink.fd >= 0)
        close(sink.fd);
    sink.fd = -1;
}

static void report_file_failure(const char* step) {
    if (!sink.failure_reported)
        syslog(LOG_ERR, "cannot %s log file %s: %s", step, sink.path, strerror(errno));
    sink.failure_reported = true;
    close_file();
}

static bool open_file(void) {
    if (sink.fd >= 0)
        return true;
    sink.fd =
        open(sink.path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0640);
    struct stat status;
    if (sink.fd < 0 || fstat(sink.fd, &status) != 0) {
        report_file_failure("open");
        return false;
    }
    sink.size = status.st_size;
    return true;
}

/* Writes the path of the `age`th old file; the file in use has age 0. */
static void old_path(char* path, size_t size, int age) {
    if (age == 0)
        snprintf(path, size, "%s", sink.path);
    else
        snprintf(path, size, "%s.%d", sink.path, age);
}

static bool rotate_file(void) {
    close_file();
    for (int age = LOGSINK_KEPT_FILES; age > 0; age--) {
        char from[PATH_MAX + 16];
        char to[PATH_MAX + 16];
        old_path(from, sizeof from, age - 1);
        old_path(to, sizeof to, age);
        if (rename(from, to) != 0 && errno != ENOENT) {
            report_file_failure("rotate");
            return false;
        }
    }
    return open_file();
}

static bool write_all(const char* data, size_t len) {
    while (len > 0) {
        const ssize_t written = write(sink.fd, data, len);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return false;
        data += written;
        len -= (size_t)written;
        sink.size += written;
    }
    return true;
}

/* One write per line, so that a reader of the file sees whole lines. */
static void append_line(const struct severity* severity, char* text, size_t len) {
    struct timespec now;
    struct tm local;
    clock_gettime(CLOCK_REALTIME, &now);
    localtime_r(&now.tv_sec, &local);
    char head[HEAD_BYTES];
    size_t used = strftime(head, sizeof head, "%Y-%m-%d %H:%M:%S", &local);
    used += (size_t)snprintf(head + used, sizeof head - used,
                             ".%03ld %s[%ld] %s: ", now.tv_nsec / 1000000, sink.name,
                             (long)getpid(), severity->name);

    memmove(text + used, text, len);
    memcpy(text, head, used);
    text[used + len] = '\n';
    const size_t total = used + len + 1;
    if (!open_file())
        return;
    if (sink.size > 0 && sink.size + (off_t)total > LOGSINK_ROTATE_BYTES && !rotate_file())
        return;
    if (write_all(text, total))
        sink.failure_reported = false;
    else
        report_file_failure("write");
}

static size_t to_one_line(char* text) {
    size_t len = strlen(text);
    if (len > 0 && text[len - 1] == '\n')
        text[--len] = '\0';
    for (char* feed = text; (feed = strchr(feed, '\n'));)
        *feed = ' ';
    return len;
}

/* `text` has room for HEAD_BYTES more. */
static void emit(const struct severity* severity, char* text) {
    const size_t len = to_one_line(text);
    pthread_mutex_lock(&sink.mutex);
    syslog(severity->priority, "%s", text);
    if (sink.path[0] != '\0')
        append_line(severity, text, len);
    pthread_mutex_unlock(&sink.mutex);
}

void logsink_set_name(const char* name) {
    pthread_mutex_lock(&sink.mutex);
    snprintf(sink.name, sizeof sink.name, "%s", name ? name : "");
    /* openlog(3) keeps the pointer. */
    openlog(sink.name, LOG_PID, LOG_DAEMON);
    pthread_mutex_unlock(&sink.mutex);
}

void logsink_set_file(const char* path) {
    pthread_mutex_lock(&sink.mutex);
    close_file();
    snprintf(sink.path, sizeof sink.path, "%s", path ? path : "");
    sink.failure_reported = false;
    pthread_mutex_unlock(&sink.mutex);
}

void logsink_vmessage(int severity, const char* format, va_list args) {
    const int saved_errno = errno;
    char small[TEXT_BYTES + HEAD_BYTES];
    char* text = small;
    va_list again;
    va_copy(again, args);
    const int len = vsnprintf(small, TEXT_BYTES, format, args);
    if (len >= TEXT_BYTES) {
        const size_t size = (size_t)len + 1;
        char* large = malloc(size + HEAD_BYTES);
        errno = saved_errno; /* for %m */
        if (large) {
            vsnprintf(large, size, format, again);
            text = large;
        }
    }
    va_end(again);
    if (len >= 0)
        emit(find_severity(severity), text);
    if (text != small)
        free(text);
    errno = saved_errno;
}

void logsink_message(int severity, const char* format, ...) {
    va_list args;
    va_start(args, format);
    logsink_vmessage(severity, format, args);
    va_end(args);
}
