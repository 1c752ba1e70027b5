// rrm_worker: the radio-management protocol, between the cloud service and the radios.
#ifndef LUMD_RRM_WORKER_H
#define LUMD_RRM_WORKER_H

#include <array>
#include <cstddef>
#include <ctime>
#include <functional>
#include <list>
#include <set>
#include <string>

#include "abstract_worker.h"
#include "driver_interface.h"
#include "json_reader.h"
#include "json_writer.h"
#include "safe_queue.h"
#include "sta_maps.h"
#include "timer_processor.h"

// One table of neighbours per pass of the generic scan.
inline constexpr std::size_t scan_passes = 5;
using environment_t = std::array<ap_table, scan_passes>;

// Subscribes the access point to the service, answers and carries out the service's commands,
// follows hostapd and guardd, and reports what the radios do. All members, timers and driver calls
// belong to the worker's own thread; other threads meet it at the queues alone.
class rrm_worker : public abstract_worker {
  public:
    // Everything is borrowed and outlives the worker. `location` is the service "domain" until a
    // subscribe response names another.
    rrm_worker(driver_interface& driver, safe_queue& from_websocket_queue,
               safe_queue& to_websocket_queue, safe_queue& from_ipc_queue, safe_queue& to_ipc_queue,
               const volatile bool& worker_run_flag, const std::string& location);
    ~rrm_worker() override;

    // True when hostapd or guardd lives (its pid file exists).
    bool __connect() override;
    // One pass: timers, at most one message of each queue, driver events. Always true.
    bool execute() override;
    // Withdraws what the service had set and forgets the radios.
    void __disconnect() override;
    // Follows notify and pid files; false when the radio daemons are gone for good.
    bool condition(const volatile bool& flag) override;

  private:
    // The unit tests look at state that no message shows.
    friend class rrm_worker_peer;

    enum timer_id {
        TIMER_SCAN_DELAY = 0,
        TIMER_SCAN_FINISHED = 1,
        TIMER_SUBSCRIBE = 2,
        TIMER_RRM_RESPONSE = 3,
        TIMER_PROBE_RESPONSE = 4,
        TIMER_ACSD_CONFIG_CHANGED = 5,
        TIMER_BLACKLIST = 6
    };

    static constexpr int first_subscribe_timeout = 30;  // seconds

    // A command of the service: its handler, or the line that says why it has none.
    struct service_command {
        const char* cmd;
        void (rrm_worker::*handler)(const json_reader&);
        const char* refusal;
    };
    static const std::array<service_command, 10> service_commands;

    // --- rrm_worker.cpp: dispatch and subscription ---
    void from_ipc_dequeue_cb(const buffer_info_ptr& buffer);
    void internal_pending_dequeue_cb(const buffer_info_ptr& buffer);
    // True: a scan runs and the message is to be handled after it.
    [[nodiscard]] bool process_ipc_message(const buffer_info_t& buffer);
    [[nodiscard]] bool process_service_message(const json_reader& message, const char* cmd);
    void process_rrm_message(const json_reader& message);
    void process_internal_message(const json_reader& message);
    void process_driver_event(const driver_event_desc& desc);
    [[nodiscard]] static bool validate_version(const json_reader& message);
    [[nodiscard]] bool process_validate_version(const json_reader& message);
    void process_connected();
    void process_disconnected();
    void process_subscribe_response(const json_reader& message);
    void process_subscribed(const json_reader& message);
    void retry_subscribing();
    // Sends the first request of a series.
    void begin_subscribing();
    // A message to the service that begins with its header and "domain".
    [[nodiscard]] json_writer make_message(const char* cmd) const;
    void post_subscribe_request();
    void post_unsubscribe_request();
    void post_disassoc_all();
    void post_ipc_disconnect();
    void subscribe_request_timeout();
    void increment_subscribe_timeout();
    // Stops all seven, and with them the survey that they drive.
    void stop_timers();
    void abandon_survey();
    void rearm_timer(timer_id id, const timer_callback_type& callback, int seconds);
    void clear_environments();
    void clear_802dot11k();

    // --- rrm_worker_presence.cpp: hostapd, guardd and notify files ---
    void remove_stale_files();
    [[nodiscard]] bool process_notifications();
    [[nodiscard]] bool is_restart_awaited() const;
    void process_notify_files();
    void process_hostapd_stopped();
    void process_hostapd_started();
    void process_guardd_started();
    void process_started();

    // --- rrm_worker_report.cpp: what the radios look like ---
    void insert_interface_to_json(json_writer& radios, const char* ifname, int radio);
    // What only a radio in use has: channels to choose from, VAPs, clients.
    void insert_live_lists(json_writer& object, const char* ifname, int radio);
    // Appends "radios", one object per radio; false when there was no memory for the array.
    bool insert_radios(json_writer& message);
    void insert_json_factory(json_writer& message);
    void post_config_changed();
    void rrm_acsd_config_changed_timeout();
    static void get_ssidlist_cb(json_writer& vaps, const driver_interface& driver, int radio,
                                int vap, const char* ssid, const char* mac, bool dot11k);
    static void get_assoclist_cb(json_writer& assoclist, const rrm_sta_s& sta);

    // --- rrm_worker_config.cpp: configuration from the service ---
    void apply_config(const json_reader& config);
    void apply_radio_config(const json_reader& config, const json_reader& element);
    void apply_channel(const char* ifname, const json_reader& element);
    // Whether the driver has a radio of this number, and a name for it stands in radio_ifnames.
    [[nodiscard]] bool is_radio(int id) const;
    void apply_802dot11k(const json_reader& config, int flag);
    void process_rrm_info(const json_reader& message);
    void process_fbt_info(const json_reader& message);
    // False: key holders are missing and the whole message is abandoned.
    [[nodiscard]] bool process_fbt_vap(const json_reader& vap);

    // --- rrm_worker_scan.cpp: scans and the RF environment ---
    void process_rrm_update(const json_reader& message);
    void process_rrm_request_mode(const json_reader& message);
    void fill_scan_channels(const char* text);
    void start_scan(bool generic);
    void scan_delay_expired();
    void scan_finished();
    void finish_generic_pass(ap_table& table);
    void finish_vexor_rrm_scan(ap_table& table);
    void report_rf_environment();
    void post_rrm_response();
    void post_rrm_response_timeout();
    void post_mode_response();
    void clear_rf_environment();

    // --- rrm_worker_steering.cpp: clients ---
    void process_trap_event(const json_reader& message);
    void post_client_assoc(const json_reader& event);
    void post_client_disassoc(const json_reader& event);
    void post_client_80211v_roam(const json_reader& event);
    void post_sta_80211v_roam(const driver_event_desc& desc);
    void process_rrm_sta_overloaded(const json_reader& message);
    void roam_weakest(const char* ifname, const char* ap_mac, int roam_count);
    static void sta_overloaded_assoc_list_cb(const rrm_sta_s& sta,
                                             std::list<rrm_sta_s>& candidates);
    void clear_802dot11v_custom_list();
    // Empties one of the two neighbour lists of every VAP that has IEEE 802.11k on.
    void clear_neighbours(int (driver_interface::*clear)(const char*) const) const;
    // Aging of the tables; the callbacks say whether the entry is to be erased.
    void rrm_probe_response_timeout();
    bool if_remove_probe_response_timeout_cb(int radio, const libhubd::MacAddr& mac,
                                             sta_prob_info& probe, bool& report_due);
    void post_rrm_probe_response();
    bool if_remove_post_rrm_probe_response_cb(int radio, const libhubd::MacAddr& mac,
                                              const sta_prob_info& probe, const json_writer& probes,
                                              bool& reported) const;
    void rrm_blacklist_timeout();
    bool if_remove_rrm_blacklist_timeout_cb(const char* ifname, const libhubd::MacAddr& mac,
                                            int& seconds);

    driver_interface& wl;
    timer_processor tp;

    // The states of the subscription, and who moves it on. The timer is TIMER_SUBSCRIBE; from every
    // state process_disconnected() leads offline and process_connected() begins anew.
    //
    //  state        subscribed  subscribing  timer
    //  offline      false       false        -      process_connected(): to subscribing, or to
    //                                               waiting without hostapd and sentry mode
    //  waiting      false       true         -      process_started(): to subscribing
    //  subscribing  false       true         armed  subscribe_request_timeout(): asks again;
    //                                               process_subscribed(): to subscribed;
    //                                               retry_subscribing(): asks again, later;
    //                                               other refusals: to rejected;
    //                                               process_hostapd_stopped() and a version that
    //                                               is refused: to waiting
    //  subscribed   true        false        -      stays until the link is lost
    //  rejected     false       false        -      stays until the next link
    bool subscribed = false;   // the service accepted this access point on this connection
    bool subscribing = false;  // a subscribe request is outstanding or due

    std::set<unsigned> scan_channels_2;
    std::set<unsigned> scan_channels_5;
    std::string ap_location;
    safe_queue& from_websocket;
    safe_queue& to_websocket;
    safe_queue& from_ipc;
    safe_queue& to_ipc;           // held for that direction; nothing is sent on it
    safe_queue internal_pending;  // service messages that wait for the end of a scan
    unsigned scan_count = 0;      // finished scan passes
    environment_t environment;
    sta_environment_t sta_environment;
    sta_block_t sta_block;
    const timer_callback_type binded_scan_finished;
    const timer_callback_type binded_scan_delay_expired;
    const timer_callback_type binded_subscribe_request_timeout;
    const timer_callback_type binded_rrm_response_timeout;
    const timer_callback_type binded_rrm_probe_response_timeout;
    const timer_callback_type binded_rrm_blacklist_timeout;
    const timer_callback_type binded_rrm_acsd_config_changed;
    bool disable_vexor_rrm_scanning = false;  // generic scan path instead of the vendor's
    int subscribe_timeout;                    // seconds
    int rrm_response_timeout = 0;             // seconds before the RF-environment report
    std::time_t hostapd_stopped_ts = 0;       // monotonic seconds; 0: not stopped
    unsigned hostapd_restart_timeout;         // seconds
    bool send_assoc_prohibited = false;       // hostapd is being restarted
    // The load balancer's options, kept for it: until there is one, no command of the service sets
    // the first, and nobody asks for the second.
    bool blacklist_enabled = false;
    bool no_balance_enterprise = false;
    bool orvanta_use_80211v = false;
    bool orvanta_use_80211r = false;
    int fbt_reassoc_deadline;  // time units of 1024 us (IEEE 802.11)
    bool fbt_over_ds = true;
    const std::function<void(const buffer_info_ptr&)> from_ipc_dequeue_cb_binded;
    const std::function<void(const buffer_info_ptr&)> internal_pending_dequeue_cb_binded;
    const driver_interface::driver_event_callback process_driver_event_binded;
};

// Names of the radios' interfaces by radio number; no more radios than these are reported.
inline constexpr std::array<const char*, 3> radio_ifnames = {"wlan0", "wlan1", "wlan2"};

#endif
