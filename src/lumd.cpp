#include <malloc.h>
#include <sys/prctl.h>
#include <syslog.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <system_error>
#include <thread>

#include "LockdepMutex.h"
#include "driver_interface.h"
#include "ipc_worker.h"
#include "logsink.h"
#include "lum_trace.h"
#include "program_info.h"
#include "rrm_worker.h"
#include "run_flags.h"
#include "safe_queue.h"
#include "websock_cfg.h"
#include "websock_worker.h"
#include "wids_worker.h"

namespace {

websock_worker make_link(safe_queue& from_partner, safe_queue& to_partner, const websock_cfg_t& cfg,
                         ws_instance_id id, const volatile bool& run) {
    const config_instance_t& service = cfg.instance[id];
    return websock_worker(from_partner, to_partner, service.domain, service.path, service.port, run,
                          service.initial_connection_delay, service.max_connection_delay, id);
}

// service <-> link <-> message bus
void run_portal(const websock_cfg_t& cfg) {
    safe_queue to_service;
    safe_queue from_service;
    websock_worker link = make_link(to_service, from_service, cfg, WS_INSTANCE_PORTAL, portal_run);
    ipc_worker bus(to_service, from_service, LUMDMOD, ipc_run);

    bus.start_on_dedicated_thread();
    link.func();
}

// service <-> link <-> RRM worker <-> message bus; the RRM worker drives the radios
void run_rrm(const websock_cfg_t& cfg) {
    safe_queue to_service;
    safe_queue from_service;
    safe_queue from_bus;
    safe_queue to_bus;
    driver_interface& driver = make_driver(rrm_run);
    websock_worker link = make_link(to_service, from_service, cfg, WS_INSTANCE_RRM, orvanta_run);
    rrm_worker rrm(driver, from_service, to_service, from_bus, to_bus, rrm_run,
                   cfg.instance[WS_INSTANCE_RRM].ap_location);
    ipc_worker bus(from_bus, to_bus, ORVANTAEVENTSMOD, rrm_run);

    bus.start_on_dedicated_thread();
    link.start_on_dedicated_thread();
    rrm.func();
}

// service <-> link <-> WIDS worker, which sends its requests through the driver
void run_wids(const websock_cfg_t& cfg) {
    safe_queue to_service;
    safe_queue from_service;
    websock_worker link = make_link(to_service, from_service, cfg, WS_INSTANCE_WIDS, wids_sock_run);
    driver_interface& driver = make_driver(wids_run);
    wids_worker wids(driver, to_service, from_service, wids_run, cfg.wids_mac_list_id);

    link.start_on_dedicated_thread();
    wids.func();
}

struct service_mode {
    const volatile bool& enabled;
    void (*run)(const websock_cfg_t& cfg);
};

// The first one that is enabled is the one that runs.
const service_mode modes[] = {{ipc_run, run_portal}, {rrm_run, run_rrm}, {wids_run, run_wids}};

void start_lock_checker() {
    if (std::getenv("VEXOR_LOCKDEP_DEBUG") == nullptr)
        return;
    LockdepStorage::lockdep_debug = true;
    try {
        std::thread(vexor_lockdep_thread_func).detach();
    } catch (const std::system_error& error) {  // the agent does its work without it
        LockdepStorage::lockdep_debug = false;
        logsink_message(SINK_ERROR, "Cannot start the lock checker: %s", error.what());
    }
}

// mallopt(3). Only glibc has fast bins; freed memory then merges again on a small machine. The two
// thresholds rise with the largest piece ever freed unless they are set, and then a large message
// would go on costing what it took. A message passes from thread to thread: with a heap for each of
// them it would leave its holes in several.
void keep_heap_small() {
#ifdef M_MXFAST
    constexpr int threshold = 256 * 1024;  // bytes
    mallopt(M_MXFAST, 0);
    mallopt(M_MMAP_THRESHOLD, threshold);
    mallopt(M_TRIM_THRESHOLD, threshold);
    mallopt(M_ARENA_MAX, 1);
#endif
}

void set_up_process() {
    keep_heap_small();
    logsink_set_name("LUMD");
    std::srand(static_cast<unsigned>(std::time(nullptr)));  // the links' random delays
    prctl(PR_SET_NAME, "lumd:main");
    openlog("LUMD", LOG_PID, LOG_DAEMON);
}

void set_run_flags(const websock_cfg_t& cfg) {
    ipc_run = cfg.instance[WS_INSTANCE_PORTAL].run;
    portal_run = cfg.instance[WS_INSTANCE_PORTAL].run;
    rrm_run = cfg.instance[WS_INSTANCE_RRM].run;
    orvanta_run = cfg.instance[WS_INSTANCE_RRM].run;
    wids_run = cfg.instance[WS_INSTANCE_WIDS].run;
    wids_sock_run = cfg.instance[WS_INSTANCE_WIDS].run;
}

// Standard error hears of it always. The log stays empty when no service is configured, and the
// file's own level decides what else it hears.
void tell_config_faults(const websock_cfg_t& cfg) {
    const bool runs = ipc_run || rrm_run || wids_run;
    for (const config_fault& fault : cfg.faults) {
        const std::string place =
            fault.line > 0 ? cfg.file + ':' + std::to_string(fault.line) : cfg.file;
        std::fprintf(stderr, "lumd: %s: %s\n", place.c_str(), fault.text.c_str());
        if (runs)
            trace.warn("%s: %s\n", place.c_str(), fault.text.c_str());
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (print_program_info(argc, argv))
        return 0;
    start_lock_checker();
    set_up_process();
    const websock_cfg_t cfg(argc, const_cast<const char**>(argv));
    trace.set_log_level(global_log_level);
    set_run_flags(cfg);
    std::signal(SIGTERM, lumd_handle_signal);
    std::signal(SIGINT, lumd_handle_signal);
    tell_config_faults(cfg);

    for (const service_mode& mode : modes) {
        if (!mode.enabled)
            continue;
        mode.run(cfg);
        break;
    }
    return 0;
}
