// Whether hostapd or guardd lives, and what their notify files announce.
#include <unistd.h>

#include <ctime>

#include "connected_flag.h"
#include "lum_trace.h"
#include "rrm_worker.h"

namespace {

constexpr const char* hostapd_pid_file = "/var/run/hostapd.pid";
constexpr const char* guardd_pid_file = "/var/run/guardd.pid";

// A sibling writes its specific file first and the general one last.
constexpr const char* notify_file = "/tmp/.orvanta_notify";
constexpr const char* hostapd_started_file = "/tmp/.orvanta_notify_hostapd_started";
constexpr const char* guardd_started_file = "/tmp/.orvanta_notify_guardd_started";
constexpr const char* config_updated_file = "/tmp/.orvanta_notify_config_updated";
constexpr const char* timezone_changed_file = "/tmp/.orvanta_notify_timezone_changed";

bool exists(const char* path) {
    return access(path, F_OK) == 0;
}

// Removes the file; whether there was one. A sibling's that must not be removed (/tmp is sticky)
// was there all the same.
bool take(const char* path) {
    if (!exists(path))
        return false;
    unlink(path);
    return true;
}

}  // namespace

bool rrm_worker::__connect() {
    tp.process_once();
    if (exists(hostapd_pid_file)) {
        trace.info("Connected to hostapd\n");
        return true;
    }
    if (exists(guardd_pid_file)) {
        trace.info("Connected to guardd\n");
        return true;
    }
    return false;
}

bool rrm_worker::condition(const volatile bool& flag) {
    return flag && process_notifications();
}

void rrm_worker::remove_stale_files() {
    take(config_updated_file);
    take(timezone_changed_file);
    unset_orvanta_connected_mode();
}

bool rrm_worker::process_notifications() {
    if (take(notify_file))
        process_notify_files();
    if (wl.is_guardd_sentry_mode() || exists(hostapd_pid_file))
        return true;
    if (hostapd_stopped_ts != 0)
        return is_restart_awaited();
    if (wl.is_hostapd_initialized()) {
        trace.info("Hostapd is not running, waiting for restart\n");
        process_hostapd_stopped();
        return true;
    }
    trace.info("Hostapd is not init and guardd is not sentry mode\n");
    return false;
}

bool rrm_worker::is_restart_awaited() const {
    timespec now{};
    if (time_monotonic(now) - hostapd_stopped_ts <=
        static_cast<std::time_t>(hostapd_restart_timeout))
        return true;
    trace.info("Hostapd has not restarted\n");
    return false;
}

void rrm_worker::process_notify_files() {
    if (take(hostapd_started_file)) {
        take(guardd_started_file);
        if (exists(hostapd_pid_file))
            process_hostapd_started();
    } else if (take(guardd_started_file)) {
        if (wl.is_hostapd_initialized())
            process_hostapd_stopped();
        process_guardd_started();
    }
    if (take(config_updated_file) && subscribed)
        post_config_changed();
    if (take(timezone_changed_file))
        tzset();
}

// The driver answers nothing from the moment it takes hostapd for stopped, so a survey in flight
// is ended before.
void rrm_worker::process_hostapd_stopped() {
    trace.info("%s : deinitializing\n", __func__);
    send_assoc_prohibited = true;
    timespec now{};
    hostapd_stopped_ts = time_monotonic(now);
    abandon_survey();
    wl.set_hostapd_initialized(false);
    if (subscribed)
        post_disassoc_all();
    stop_timers();
    clear_environments();
    wl.close_vapcontext();
}

void rrm_worker::process_hostapd_started() {
    trace.info("%s : initializing\n", __func__);
    hostapd_stopped_ts = 0;
    wl.set_hostapd_initialized(true);
    wl.close_vapcontext();
    wl.set_vapcontext();
    wl.init();
    process_started();
    send_assoc_prohibited = false;
}

void rrm_worker::process_guardd_started() {
    trace.info("%s : initializing\n", __func__);
    hostapd_stopped_ts = 0;
    wl.set_vapcontext();
    process_started();
}

void rrm_worker::process_started() {
    if (subscribing) {
        trace.info("%s : subscribing\n", __func__);
        tp.del_timer(TIMER_SUBSCRIBE);
        begin_subscribing();
    } else if (subscribed) {
        trace.info("%s : subscribed\n", __func__);
        take(config_updated_file);
        post_config_changed();
    }
}
