// What becomes of clients: event reports, steering away from a busy radio, probe and block tables.
#include <sys/types.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <list>
#include <map>
#include <string>

#include "lum_trace.h"
#include "rrm_worker.h"
#include "text.h"

// What hostapd's client events mean to the service. A reassociation counts as leaving: the client
// is reported again when it has authenticated.
const std::map<std::string, int> msg_to_drv_event = {
    {"auth", CLIENT_ASSOC},
    {"8021x-success", CLIENT_ASSOC},
    {"reassoc", CLIENT_DISSASSOC},
    {"send-deauth", CLIENT_DISSASSOC},
    {"send-disassoc", CLIENT_DISSASSOC},
    {"recv-deauth", CLIENT_DISSASSOC},
    {"recv-disassoc", CLIENT_DISSASSOC},
    {"auth-fail", CLIENT_DISSASSOC},
    {"8021x-fail", CLIENT_DISSASSOC},
    {"80211v-roam", CLIENT_ROAM},
};

namespace {

constexpr int aging_period = 1;    // seconds
constexpr int last_second = 2;     // below this many seconds a record's time is over
constexpr int bsstrans_value = 1;  // of every transition request

// Adds "radio" for a VAP's interface name; other names get none.
void insert_radio_id(json_writer& message, const driver_interface& driver,
                     const json_reader& event) {
    if (const char* ifname = event.get_string("dev"))
        driver.add_radio_id(ifname, &message);
}

bool uses_80211v(const json_reader& event) {
    return equals_ignoring_case(event.get_subobject("client-info").get_string("using-802.11v"),
                                "yes");
}

// Ascending by the first reading; equal readings stay in the order of arrival.
void insert_weakest_first(std::list<rrm_sta_s>& candidates, const rrm_sta_s& sta) {
    const auto stronger =
        std::find_if(candidates.begin(), candidates.end(),
                     [&](const rrm_sta_s& other) { return other.rssi[0] > sta.rssi[0]; });
    candidates.insert(stronger, sta);
}

void log_candidates(const std::list<rrm_sta_s>& candidates) {
    if (!trace.is_debug_enabled())
        return;
    trace.debug("There are %zd posible sta to roam:\n", static_cast<ssize_t>(candidates.size()));
    for (const rrm_sta_s& sta : candidates)
        trace.debug("MAC: %s; RSSI: %d\n", sta.mac.c_str(), sta.rssi[0]);
}

}  // namespace

void rrm_worker::process_trap_event(const json_reader& message) {
    if (!orvanta_use_80211v && !blacklist_enabled)
        return;
    if (!subscribed || send_assoc_prohibited)
        return;
    const json_reader event = message.get_subobject("event");
    const char* type = event.get_string("type");
    const auto known = msg_to_drv_event.find(text_of(type));
    if (known == msg_to_drv_event.end())
        return;
    switch (known->second) {
        case CLIENT_ASSOC:
            return post_client_assoc(event);
        case CLIENT_DISSASSOC:
            return post_client_disassoc(event);
        case CLIENT_ROAM:
            return post_client_80211v_roam(event);
    }
}

void rrm_worker::post_client_assoc(const json_reader& event) {
    json_writer message = make_message("rrm-client-assoc");
    insert_radio_id(message, wl, event);
    message.insert_string("sta-mac", event.get_string("mac"));
    message.insert_int("rssi", event.get_int("rssi"));
    message.insert_string("ssid", event.get_string("ssid"));
    message.insert_int("no-balance", uses_80211v(event) ? 0 : 1);
    to_websocket.enqueue_json(message);
}

void rrm_worker::post_client_disassoc(const json_reader& event) {
    json_writer message = make_message("rrm-client-disassoc");
    insert_radio_id(message, wl, event);
    message.insert_string("sta-mac", event.get_string("mac"));
    message.insert_string("ssid", event.get_string("ssid"));
    to_websocket.enqueue_json(message);
}

void rrm_worker::post_client_80211v_roam(const json_reader& event) {
    json_writer message = make_message("rrm-sta-roam");
    insert_radio_id(message, wl, event);
    message.insert_string("sta-mac", event.get_string("mac"));
    message.insert_string("ssid", event.get_string("ssid"));
    message.insert_string("target-mac", event.get_string("target-mac"));
    to_websocket.enqueue_json(message);
}

void rrm_worker::post_sta_80211v_roam(const driver_event_desc& desc) {
    json_writer message = make_message("rrm-sta-roam");
    message.insert_int("radio", desc.radio);
    message.insert_string("sta-mac", desc.sta.mac);
    message.insert_string("ssid", desc.sta.ssid);
    message.insert_string("target-mac", desc.sta.target_roaming_mac);
    to_websocket.enqueue_json(message);
}

void rrm_worker::process_rrm_sta_overloaded(const json_reader& message) {
    clear_802dot11v_custom_list();
    apply_802dot11k(message, 1);
    const char* ap_mac = message.get_string("ap-mac");
    const json_reader radios = message.get_subobject("radios");
    for (std::size_t i = 0; i < radios.array_length(); ++i) {
        const json_reader element = radios.get_array_element(i);
        const int id = element.get_int("id");
        if (element.is_object() && is_radio(id))
            roam_weakest(radio_ifnames[static_cast<std::size_t>(id)], text_of(ap_mac),
                         element.get_int("roam-count"));
    }
}

void rrm_worker::roam_weakest(const char* ifname, const char* ap_mac, int roam_count) {
    trace.info("AP(%s - %s) is overloaded - %d clients will be roamed\n", ap_mac, ifname,
               roam_count);
    std::list<rrm_sta_s> candidates;
    wl.get_assoclist(ifname,
                     [&](const rrm_sta_s& sta) { sta_overloaded_assoc_list_cb(sta, candidates); });
    trace.info("Sending BSS Trans Request to clients:\n");
    int number = 0;
    for (const rrm_sta_s& sta : candidates) {
        if (number >= roam_count)
            break;
        trace.info("#%d %s\n", ++number, sta.mac.c_str());
        wl.send_bsstrans_request(sta.ifname.c_str(), sta.mac.c_str(), bsstrans_value);
    }
}

void rrm_worker::sta_overloaded_assoc_list_cb(const rrm_sta_s& sta,
                                              std::list<rrm_sta_s>& candidates) {
    if (sta.roam_attempt)
        trace.debug("There has already been an attempt to roam client(%s)\n", sta.mac.c_str());
    if (sta.is_no_balance)
        trace.debug("Client(%s) doesn`t support 802.11v\n", sta.mac.c_str());
    if (!sta.roam_attempt && !sta.is_no_balance)
        insert_weakest_first(candidates, sta);
    log_candidates(candidates);
}

void rrm_worker::clear_802dot11v_custom_list() {
    clear_neighbours(&driver_interface::clear_vexor_nbr_ap_list);
}

void rrm_worker::clear_neighbours(int (driver_interface::*clear)(const char*) const) const {
    for (int radio = 0; radio < wl.get_max_radios(); ++radio) {
        for (int vap = 0; vap < wl.get_max_vap(); ++vap) {
            const char* ifname = wl.VapIdToVap(static_cast<unsigned>(vap), radio);
            if (ifname != nullptr && wl.is_802dot11k(radio, vap))
                (wl.*clear)(ifname);
        }
    }
}

// The probe and block tables age only while their timers run, and the timers run only once armed:
// the service commands that would fill the tables are refused until a load balancer exists.

void rrm_worker::rrm_probe_response_timeout() {
    bool report_due = false;
    bool any = false;
    for (std::size_t radio = 0; radio < sta_environment.size(); ++radio) {
        _sta_table<sta_prob_info>& table = sta_environment[radio];
        any = any || !table.empty();
        table.if_remove([&](const libhubd::MacAddr& mac, sta_prob_info& probe) {
            return if_remove_probe_response_timeout_cb(static_cast<int>(radio), mac, probe,
                                                       report_due);
        });
    }
    if (report_due)
        post_rrm_probe_response();
    if (any)
        rearm_timer(TIMER_PROBE_RESPONSE, binded_rrm_probe_response_timeout, aging_period);
}

bool rrm_worker::if_remove_probe_response_timeout_cb(int radio, const libhubd::MacAddr& mac,
                                                     sta_prob_info& probe, bool& report_due) {
    if (probe.timeout >= last_second) {
        --probe.timeout;
        return false;
    }
    probe.timeout = 0;
    report_due = true;
    if (probe.rssi != 0)
        return false;
    if (const char* ifname = wl.VapIdToVap(static_cast<unsigned>(probe.vap), radio))
        probe.rssi = wl.probsup_find(ifname, mac.str().c_str());
    return false;
}

void rrm_worker::post_rrm_probe_response() {
    json_writer message = make_message("rrm-probe-response");
    const json_writer radios = message.make_array("radios");
    bool reported = false;
    for (std::size_t radio = 0; radio < sta_environment.size(); ++radio) {
        _sta_table<sta_prob_info>& table = sta_environment[radio];
        if (table.empty())
            continue;
        trace.debug("%s: radio %zd, prob_size %zd\n", __func__, static_cast<ssize_t>(radio),
                    static_cast<ssize_t>(table.size()));
        json_writer element = radios.append_object();
        element.insert_int("id", static_cast<int>(radio));
        const json_writer probes = element.make_array("probe-list");
        table.if_remove([&](const libhubd::MacAddr& mac, const sta_prob_info& probe) {
            return if_remove_post_rrm_probe_response_cb(static_cast<int>(radio), mac, probe, probes,
                                                        reported);
        });
    }
    if (reported)
        to_websocket.enqueue_json(message);
}

bool rrm_worker::if_remove_post_rrm_probe_response_cb(int radio, const libhubd::MacAddr& mac,
                                                      const sta_prob_info& probe,
                                                      const json_writer& probes,
                                                      bool& reported) const {
    if (probe.timeout > 0)
        return false;
    const char* ssid = wl.VapIdToSsid(static_cast<unsigned>(probe.vap), radio);
    if (ssid == nullptr)
        return true;
    json_writer entry = probes.append_object();
    entry.insert_string("mac", mac.str());
    entry.insert_string("ssid", ssid);
    entry.insert_int("rssi", probe.rssi);
    reported = true;
    return true;
}

void rrm_worker::rrm_blacklist_timeout() {
    bool any = false;
    const std::size_t radios = std::min(sta_block.size(), radio_ifnames.size());
    for (std::size_t radio = 0; radio < radios; ++radio) {
        _sta_table<int>& table = sta_block[radio];
        any = any || !table.empty();
        table.if_remove([&](const libhubd::MacAddr& mac, int& seconds) {
            return if_remove_rrm_blacklist_timeout_cb(radio_ifnames[radio], mac, seconds);
        });
    }
    if (any)
        rearm_timer(TIMER_BLACKLIST, binded_rrm_blacklist_timeout, aging_period);
}

bool rrm_worker::if_remove_rrm_blacklist_timeout_cb(const char* ifname, const libhubd::MacAddr& mac,
                                                    int& seconds) {
    if (seconds >= last_second) {
        --seconds;
        return false;
    }
    seconds = 0;
    wl.unblock_sta(ifname, mac.str().c_str());
    return true;
}
