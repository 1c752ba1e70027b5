// The worker's loop, the dispatch of messages and the subscription to the service.
#include "rrm_worker.h"

#include <algorithm>
#include <cstdint>
#include <optional>

#include "connected_flag.h"
#include "lum_trace.h"
#include "text.h"

namespace {

constexpr int pass_pause = 0;            // microseconds
constexpr int reconnect_pause = 300000;  // microseconds

constexpr int max_subscribe_timeout = 120;      // seconds
constexpr unsigned hostapd_grace = 60;          // seconds
constexpr int acsd_settle_time = 10;            // seconds after the last channel change
constexpr int default_reassoc_deadline = 1000;  // time units

constexpr int service_unavailable = 503;  // "code" of a subscribe response

constexpr int ap_mac_count = 16;
constexpr int use_wildcard_80211r = 1;

std::size_t radio_count(const driver_interface& driver) {
    return static_cast<std::size_t>(std::max(driver.get_max_radios(), 0));
}

// Version numbers compare as one: the major in the upper, the minor in the lower 16 bits.
std::int32_t version_number(int major_number, int minor_number) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(major_number) * 0x10000U +
                                     static_cast<std::uint32_t>(minor_number));
}

}  // namespace

const std::array<rrm_worker::service_command, 10> rrm_worker::service_commands = {{
    {"rrm-info", &rrm_worker::process_rrm_info, nullptr},
    {"rrm-update", &rrm_worker::process_rrm_update, nullptr},
    {"rrm-blacklist", nullptr,
     "Ignoring rrm-blacklist because load balancer is not yet supported\n"},
    {"rrm-request-mode", &rrm_worker::process_rrm_request_mode, nullptr},
    {"subscribe-response", &rrm_worker::process_subscribe_response, nullptr},
    {"rrm-probe-request", nullptr,
     "Ignoring rrm-probe-request because load balancer is not yet supported\n"},
    {"rrm-disassoc-request", nullptr,
     "Ignoring rrm-disassoc-request because load balancer is not yet supported\n"},
    {"rrm-client-assoc-ack", nullptr,
     "Ignoring rrm-client-assoc-ack because load balancer is not yet supported\n"},
    {"fbt-info", &rrm_worker::process_fbt_info, nullptr},
    {"rrm-sta-overload", &rrm_worker::process_rrm_sta_overloaded, nullptr},
}};

rrm_worker::rrm_worker(driver_interface& driver, safe_queue& from_websocket_queue,
                       safe_queue& to_websocket_queue, safe_queue& from_ipc_queue,
                       safe_queue& to_ipc_queue, const volatile bool& worker_run_flag,
                       const std::string& location)
    : abstract_worker(worker_run_flag, "rrm", pass_pause, reconnect_pause),
      wl(driver),
      ap_location(location),
      from_websocket(from_websocket_queue),
      to_websocket(to_websocket_queue),
      from_ipc(from_ipc_queue),
      to_ipc(to_ipc_queue),
      sta_environment(radio_count(driver)),
      sta_block(radio_count(driver)),
      binded_scan_finished([this] { scan_finished(); }),
      binded_scan_delay_expired([this] { scan_delay_expired(); }),
      binded_subscribe_request_timeout([this] { subscribe_request_timeout(); }),
      binded_rrm_response_timeout([this] { post_rrm_response_timeout(); }),
      binded_rrm_probe_response_timeout([this] { rrm_probe_response_timeout(); }),
      binded_rrm_blacklist_timeout([this] { rrm_blacklist_timeout(); }),
      binded_rrm_acsd_config_changed([this] { rrm_acsd_config_changed_timeout(); }),
      subscribe_timeout(first_subscribe_timeout),
      hostapd_restart_timeout(hostapd_grace),
      fbt_reassoc_deadline(default_reassoc_deadline),
      from_ipc_dequeue_cb_binded([this](const buffer_info_ptr& b) { from_ipc_dequeue_cb(b); }),
      internal_pending_dequeue_cb_binded(
          [this](const buffer_info_ptr& b) { internal_pending_dequeue_cb(b); }),
      process_driver_event_binded(
          [this](const driver_event_desc& desc) { process_driver_event(desc); }) {
    remove_stale_files();
}

rrm_worker::~rrm_worker() {
    trace.info("rrm_worker: stop\n");
    join();
    clear_environments();
    clear_802dot11k();
    wl.init();
    wl.close_vapcontext();
    unset_orvanta_connected_mode();
}

bool rrm_worker::execute() {
    tp.process_once();
    from_websocket.dequeue(from_ipc_dequeue_cb_binded);
    from_ipc.dequeue(from_ipc_dequeue_cb_binded);
    if (!wl.is_in_progress())
        internal_pending.dequeue(internal_pending_dequeue_cb_binded);
    wl.process_driver_events(process_driver_event_binded);
    return true;
}

void rrm_worker::__disconnect() {
    trace.info("Disconnected from hostapd\n");
    clear_802dot11k();
    wl.init();
    const ResetOrvantaCause cause = is_running() ? UNKNOWN : DAEMON_STOPPED;
    wl.reset_orvanta(cause);
    if (orvanta_use_80211r)
        wl.reset_orvanta_fbt(cause);
    if (wl.is_hostapd_initialized())
        process_hostapd_stopped();
}

void rrm_worker::from_ipc_dequeue_cb(const buffer_info_ptr& buffer) {
    if (!process_ipc_message(*buffer))
        return;
    trace.info("Pending message for delayed processing\n");
    internal_pending.enqueue(buffer);
}

// A message that would have to wait a second time is dropped.
void rrm_worker::internal_pending_dequeue_cb(const buffer_info_ptr& buffer) {
    trace.info("From pended\n");
    static_cast<void>(process_ipc_message(*buffer));
}

bool rrm_worker::process_ipc_message(const buffer_info_t& buffer) {
    if (buffer.text().empty())
        return false;
    const json_reader message{buffer.c_str()};
    if (message.fail())
        return false;
    const char* service = message.get_string("service");
    if (service == nullptr) {
        if (equals_ignoring_case(message.get_string("command"), "wifi-client-trap"))
            process_trap_event(message);
        return false;
    }
    if (equals_ignoring_case(service, "rrm"))
        return process_service_message(message, message.get_string("cmd"));
    if (equals_ignoring_case(service, internal_service))
        process_internal_message(message);
    return false;
}

bool rrm_worker::process_service_message(const json_reader& message, const char* cmd) {
    if (wl.is_in_progress()) {
        if (!equals_ignoring_case(cmd, "rrm-update") &&
            !equals_ignoring_case(cmd, "rrm-request-mode"))
            return true;
        trace.info("Got %s. turning off the current scan.\n", cmd);
        wl.stop(true);
        clear_rf_environment();
        tp.del_timer(TIMER_SCAN_DELAY);
        tp.del_timer(TIMER_SCAN_FINISHED);
        tp.del_timer(TIMER_RRM_RESPONSE);
    }
    process_rrm_message(message);
    return false;
}

void rrm_worker::process_rrm_message(const json_reader& message) {
    const char* cmd = message.get_string("cmd");
    if (cmd == nullptr || !process_validate_version(message))
        return;
    const auto known =
        std::find_if(service_commands.begin(), service_commands.end(),
                     [cmd](const service_command& c) { return equals_ignoring_case(cmd, c.cmd); });
    if (known == service_commands.end())
        return;
    if (known->handler != nullptr)
        (this->*known->handler)(message);
    else
        trace.info("%s", known->refusal);
}

void rrm_worker::process_internal_message(const json_reader& message) {
    const char* cmd = message.get_string("cmd");
    if (equals_ignoring_case(cmd, "connected"))
        process_connected();
    else if (equals_ignoring_case(cmd, "disconnected"))
        process_disconnected();
}

void rrm_worker::process_driver_event(const driver_event_desc& desc) {
    if (!subscribed)
        return;
    switch (desc.event) {
        case RRM_STA_ROAM:
            if (orvanta_use_80211v || blacklist_enabled)
                post_sta_80211v_roam(desc);
            break;
        case RRM_CHANSPEC_ACSD:
            rearm_timer(TIMER_ACSD_CONFIG_CHANGED, binded_rrm_acsd_config_changed,
                        acsd_settle_time);
            break;
        case RRM_ASSOC_STATE_CHANGED:
        case RRM_UNDEFINED_EVENT:
            break;
    }
}

// Reads "%d.%d"; what follows the second number does not count.
bool rrm_worker::validate_version(const json_reader& message) {
    const char* text = message.get_string("version");
    if (text == nullptr)
        return false;
    const std::optional<int> major_number = scan_int(text);
    if (!major_number || *text++ != '.')
        return false;
    const std::optional<int> minor_number = scan_int(text);
    return minor_number && version_number(*major_number, *minor_number) >= version_number(2, 4);
}

// `subscribed` and `subscribing` stay: the "disconnected" that follows the unlink clears them.
bool rrm_worker::process_validate_version(const json_reader& message) {
    if (validate_version(message))
        return true;
    trace.error("Unsubscribe from RRM service: incorrect version\n");
    stop_timers();
    post_unsubscribe_request();
    post_ipc_disconnect();
    unset_orvanta_connected_mode();
    return false;
}

void rrm_worker::process_connected() {
    tp.del_timer(TIMER_SUBSCRIBE);
    tp.del_timer(TIMER_RRM_RESPONSE);
    subscribing = true;
    if (wl.is_hostapd_initialized() || wl.is_guardd_sentry_mode())
        begin_subscribing();
    else
        trace.info("Waiting for hostapd to start before sending subscribe-request\n");
}

void rrm_worker::process_disconnected() {
    trace.info("Disconnected from RRM service - stop all timers\n");
    stop_timers();
    subscribed = false;
    subscribing = false;
    unset_orvanta_connected_mode();
}

void rrm_worker::process_subscribe_response(const json_reader& message) {
    const char* status = message.get_string("status");
    if (status == nullptr)
        return;
    tp.del_timer(TIMER_SUBSCRIBE);
    subscribing = false;
    if (equals_ignoring_case(status, "success"))
        process_subscribed(message);
    else if (message.get_int("code") == service_unavailable)
        retry_subscribing();
}

void rrm_worker::process_subscribed(const json_reader& message) {
    blacklist_enabled = false;
    no_balance_enterprise = false;
    subscribed = true;
    if (const char* domain = message.get_string("domain"))
        ap_location = domain;
    if (const json_reader config = message.get_subobject("config"); !config.fail())
        apply_config(config);
    set_orvanta_connected_mode();
}

void rrm_worker::retry_subscribing() {
    increment_subscribe_timeout();
    trace.info("Reconnect after %d sec\n", subscribe_timeout);
    subscribing = true;
    rearm_timer(TIMER_SUBSCRIBE, binded_subscribe_request_timeout, subscribe_timeout);
}

void rrm_worker::begin_subscribing() {
    post_subscribe_request();
    subscribe_timeout = first_subscribe_timeout;
    rearm_timer(TIMER_SUBSCRIBE, binded_subscribe_request_timeout, subscribe_timeout);
}

void rrm_worker::subscribe_request_timeout() {
    tp.del_timer(TIMER_SUBSCRIBE);
    subscribing = true;
    post_subscribe_request();
    increment_subscribe_timeout();
    rearm_timer(TIMER_SUBSCRIBE, binded_subscribe_request_timeout, subscribe_timeout);
}

void rrm_worker::increment_subscribe_timeout() {
    subscribe_timeout = std::min(2 * subscribe_timeout, max_subscribe_timeout);
}

json_writer rrm_worker::make_message(const char* cmd) const {
    json_writer message{"rrm", cmd, text_of(wl.get_mac()), protocol_version};
    message.insert_string("domain", ap_location);
    return message;
}

void rrm_worker::post_subscribe_request() {
    if (!wl.is_hostapd_initialized() && !wl.is_guardd_sentry_mode()) {
        trace.info("Not sending subscribe-request because hostapd is not running\n");
        return;
    }
    trace.info("Subscribe to RRM service\n");
    json_writer message = make_message("subscribe-request");
    message.insert_int("ap-mac-count", ap_mac_count);
    message.insert_int("use-wildcard-80211r", use_wildcard_80211r);
    insert_json_factory(message);
    insert_radios(message);
    to_websocket.enqueue_json(message);
}

void rrm_worker::post_unsubscribe_request() {
    trace.info("Unsubscribe from RRM service\n");
    json_writer message = make_message("unsubscribe-request");
    insert_json_factory(message);
    to_websocket.enqueue_json(message);
}

void rrm_worker::post_disassoc_all() {
    trace.info("Send disassoc all clients to server\n");
    json_writer message = make_message("rrm-disassoc-all-clients");
    insert_json_factory(message);
    to_websocket.enqueue_json(message);
}

void rrm_worker::post_ipc_disconnect() {
    json_writer message{internal_service, "unlink", "", protocol_version};
    to_websocket.enqueue_json(message);
}

// The timers carry a survey from step to step: without them nobody would end the one in flight, and
// everything the service says would wait for its end.
void rrm_worker::stop_timers() {
    abandon_survey();
    for (const timer_id id :
         {TIMER_SCAN_DELAY, TIMER_SCAN_FINISHED, TIMER_SUBSCRIBE, TIMER_RRM_RESPONSE,
          TIMER_PROBE_RESPONSE, TIMER_BLACKLIST, TIMER_ACSD_CONFIG_CHANGED})
        tp.del_timer(id);
}

void rrm_worker::abandon_survey() {
    if (wl.is_in_progress())
        wl.stop(true);
    clear_rf_environment();
}

void rrm_worker::rearm_timer(timer_id id, const timer_callback_type& callback, int seconds) {
    tp.del_timer(id);
    tp.add_timer(callback, id, seconds);
}

void rrm_worker::clear_environments() {
    clear_rf_environment();
    for (auto& probes : sta_environment)
        probes.clear();
    for (auto& blocked : sta_block)
        blocked.clear();
}

void rrm_worker::clear_802dot11k() {
    clear_neighbours(&driver_interface::clear_rrm_nbr_ap_list);
}
