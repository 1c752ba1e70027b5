// Surveys of the radio neighbourhood and the reports about them.
#include <syslog.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <sstream>
#include <string>

#include "lum_trace.h"
#include "rrm_worker.h"
#include "text.h"

namespace {

constexpr unsigned first_5ghz_channel = 36;

// A negative number names no channel and reads as 0.
unsigned channel_number(const std::string& text) {
    return static_cast<unsigned>(std::max(to_int(text.c_str()), 0));
}

std::string bssid_text(const std::array<std::uint8_t, 6>& bssid) {
    std::array<char, sizeof "00:00:00:00:00:00"> text{};
    std::snprintf(text.data(), text.size(), "%02x:%02x:%02x:%02x:%02x:%02x", bssid[0], bssid[1],
                  bssid[2], bssid[3], bssid[4], bssid[5]);
    return text.data();
}

void insert_neighbour(const json_writer& table, const driver_interface& driver,
                      const ap_info& neighbour) {
    json_writer entry = table.append_object();
    entry.insert_string("bssid", bssid_text(neighbour.bssid));
    entry.insert_int("rssi", neighbour.signal);
    entry.insert_int("channel", neighbour.channel);
    entry.insert_int("tx-power", neighbour.tx_power);
    entry.insert_string("primary-channel",
                        driver.primary_channel_to_string(neighbour.primary_channel, neighbour.bw));
    entry.insert_int("bandwidth", neighbour.bw);
}

// Adds "rf-environment": one inner array for each scan pass that heard anybody.
void insert_environment(const json_writer& message, const driver_interface& driver,
                        const environment_t& environment) {
    const json_writer tables = message.make_array("rf-environment");
    for (const ap_table& pass : environment) {
        if (pass.empty())
            continue;
        const json_writer table = tables.append_array();
        for (const ap_info& neighbour : pass)
            insert_neighbour(table, driver, neighbour);
    }
}

}  // namespace

void rrm_worker::process_rrm_update(const json_reader& message) {
    if (!wl.is_hostapd_initialized()) {
        trace.info("Ignoring rrm-update because hostapd is not running\n");
        return;
    }
    trace.info("%s:\n", __func__);
    const int delay = message.get_int("rrm-scan-delay");
    disable_vexor_rrm_scanning = message.get_int("vexor-rrm-scanning") == 0;
    // On the vendor path the one delay counts twice: before the scan and before the report.
    rrm_response_timeout = disable_vexor_rrm_scanning ? 0 : delay;
    fill_scan_channels(text_of(message.get_string("rrm-scan-channels")));

    tp.del_timer(TIMER_SCAN_DELAY);
    tp.del_timer(TIMER_SCAN_FINISHED);
    if (delay < 1)
        scan_delay_expired();
    else
        rearm_timer(TIMER_SCAN_DELAY, binded_scan_delay_expired, delay);
}

// A blank ends a piece, so that no channels at all is the empty text (every channel is scanned) and
// a list whose every channel is followed by a blank names nothing more.
void rrm_worker::fill_scan_channels(const char* text) {
    scan_channels_2.clear();
    scan_channels_5.clear();
    std::istringstream pieces{text};
    for (std::string piece; std::getline(pieces, piece, ' ');) {
        const unsigned channel = channel_number(piece);
        (channel < first_5ghz_channel ? scan_channels_2 : scan_channels_5).insert(channel);
    }
}

void rrm_worker::start_scan(bool generic) {
    syslog(LOG_INFO, "Started scan by orvanta");
    int duration = 0;  // seconds
    wl.start(generic, scan_channels_2, scan_channels_5, duration);
    rearm_timer(TIMER_SCAN_FINISHED, binded_scan_finished, duration);
}

void rrm_worker::scan_delay_expired() {
    wl.stop(true);
    start_scan(disable_vexor_rrm_scanning);
    scan_count = 0;
}

void rrm_worker::scan_finished() {
    trace.info("%s\n", __func__);
    if (scan_count >= environment.size())
        return;  // no pass is under way
    ap_table& table = environment[scan_count];
    wl.stop(true);
    if (disable_vexor_rrm_scanning)
        finish_generic_pass(table);
    else
        finish_vexor_rrm_scan(table);
}

void rrm_worker::finish_generic_pass(ap_table& table) {
    wl.fill_ap_table(table);
    ++scan_count;
    if (scan_count < environment.size())
        start_scan(true);
    else
        report_rf_environment();
}

void rrm_worker::finish_vexor_rrm_scan(ap_table& table) {
    wl.fill_ap_table_vexor_rrm(table);
    if (rrm_response_timeout == 0)
        report_rf_environment();
    else
        rearm_timer(TIMER_RRM_RESPONSE, binded_rrm_response_timeout, rrm_response_timeout);
}

void rrm_worker::report_rf_environment() {
    post_rrm_response();
    clear_rf_environment();
}

void rrm_worker::post_rrm_response_timeout() {
    tp.del_timer(TIMER_RRM_RESPONSE);
    report_rf_environment();
}

void rrm_worker::clear_rf_environment() {
    for (ap_table& table : environment)
        table.clear();
}

void rrm_worker::post_rrm_response() {
    if (!wl.is_hostapd_initialized()) {
        trace.info("Not sending rrm-response because hostapd is not running\n");
        return;
    }
    json_writer message = make_message("rrm-response");
    // Also false when the message itself could not be made.
    if (!insert_radios(message))
        return;
    insert_environment(message, wl, environment);
    to_websocket.enqueue_json(message);
}

void rrm_worker::process_rrm_request_mode(const json_reader&) {
    if (!wl.is_hostapd_initialized()) {
        trace.info("Ignoring rrm-request-mode because hostapd is not running\n");
        return;
    }
    post_mode_response();
}

void rrm_worker::post_mode_response() {
    if (!wl.is_hostapd_initialized()) {
        trace.info("Not sending rrm-mode-response because hostapd is not running\n");
        return;
    }
    json_writer message = make_message("rrm-mode-response");
    insert_radios(message);
    to_websocket.enqueue_json(message);
}
