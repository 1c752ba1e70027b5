// MockDriver: a small access point behind driver_interface.
//
// Every operation is a GoogleMock method. Those that ask or change something have a default that
// works on the state below, so that a test sets the state, lets the code under test act and looks
// at the state again; EXPECT_CALL is for the few tests that are about the calls themselves. What no
// default stands for answers 0, false, null or an empty value. Use it as NiceMock<MockDriver>.
//
// The readers and pushes that ipc_helper does not make virtual go to the bus: see test_bus.h.
#ifndef TESTS_MOCK_DRIVER_H
#define TESTS_MOCK_DRIVER_H

#include <gmock/gmock.h>

#include <array>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "driver_interface.h"
#include "json_writer.h"

struct FakeVap {
    std::string ifname;
    std::string ssid;
    std::string mac;
    bool up = true;
    bool dot11k = false;
    bool fbt = false;
};

struct FakeRadio {
    std::string ifname;
    bool up = true;
    bool wds = false;
    bool wids = false;
    bool obss_coex = false;
    bool auto_channel = false;
    int band = BAND_2G;
    unsigned chanspec_in_use = 0;
    unsigned config_spec = 0;
    int tx_power = 0;
    int tx_power_max = 0;
    int tx_power_min = 0;
    int eirp_max = 0;
    int eirp_min = 0;
    std::optional<antenna_config_t> antenna;
    std::string available_channels;
    std::vector<FakeVap> vaps;
    std::vector<rrm_sta_s> stations;
    ap_table neighbours;
};

// What a call changed at the driver, in call order.
struct NeighbourCall {
    std::string bssid;
    std::string ssid;
    int channel;
    int value;
    int custom;
    bool operator==(const NeighbourCall&) const = default;
};
struct ChannelCall {
    std::string ifname;
    int channel;
    int bw;
    primary_channel_mode mode;
    bool operator==(const ChannelCall&) const = default;
};
struct ScanCall {
    bool active;
    std::set<unsigned> channels_2;
    std::set<unsigned> channels_5;
    bool operator==(const ScanCall&) const = default;
};
struct PendingEvent {
    driver_event event;
    int radio;
    rrm_sta_s sta;
};
using IfnameValue = std::pair<std::string, int>;
using IfnameText = std::pair<std::string, std::string>;

class MockDriver : public driver_interface {
  public:
    // Two radios are up: "wlan0" on channel 6 (20 MHz) and "wlan1" on channel 36 (80 MHz), each
    // with VAPs 0 and 1 ("home", with 802.11k, and "guest"), the second also with VAP 2 ("staff",
    // with 802.11k), no client and no neighbour.
    // `process_run_flag` is the request side's (ipc_helper).
    explicit MockDriver(const volatile bool* process_run_flag = nullptr);
    virtual ~MockDriver();

    // --- state, to set and to look at ---
    std::array<FakeRadio, 2> radios;
    lumd_factory_t factory{};
    bool hostapd_up = true;
    bool sentry_mode = false;
    bool in_progress = false;
    int scan_duration = 6;             // seconds that start() asks for
    std::vector<PendingEvent> events;  // delivered, and emptied, by process_driver_events()

    // --- record of what was asked, in call order ---
    std::vector<ScanCall> scans;                       // start() calls that began a scan
    std::vector<ChannelCall> channel_calls;            // set_chanspec()
    std::vector<IfnameValue> power_calls;              // set_tx_power()
    std::vector<NeighbourCall> neighbour_calls;        // set_rrm_nbr_ap_list()
    std::vector<std::string> cleared_neighbour_lists;  // clear_rrm_nbr_ap_list(): VAP ifnames
    std::vector<std::string> cleared_candidate_lists;  // clear_vexor_nbr_ap_list(): VAP ifnames
    std::vector<IfnameText> transition_requests;       // send_bsstrans_request(): ifname, MAC
    std::vector<IfnameText> unblocked;                 // unblock_sta(): ifname, MAC
    std::vector<IfnameValue> roam_attempt_timeouts;    // set_vexor_roam_attempt_timeout()
    std::vector<IfnameText> fbt_params;                // set_orvanta_fbt_params(): ifname, JSON
    int fbt_starts = 0;
    int fbt_finishes = 0;
    std::vector<ResetOrvantaCause> fbt_resets;
    std::vector<ResetOrvantaCause> resets;

    // The VAP of that interface name; null for any other name.
    FakeVap* vap_by_ifname(const std::string& ifname);
    // The radio that an interface name of it or of one of its VAPs begins with; null for others.
    FakeRadio* radio_by_ifname(const char* ifname);
    // The radio when the number is valid, hostapd is up and the radio too.
    FakeRadio* live_radio(int radio);
    // The next VAP of a radio.
    FakeVap& add_vap(int radio, const std::string& ssid, bool dot11k);
    // An associated client of a VAP. `rssi` is its strongest reading, that of the second chain; the
    // others read less, each another value.
    rrm_sta_s& add_station(int radio, int vap, const std::string& mac, int rssi);
    static constexpr int first_chain_below = 4;  // dB

    // --- ipc_helper ---
    MOCK_METHOD(std::string, get_country, (const char*), (const, override));
    MOCK_METHOD(bool, get_wds_enabled, (const char*), (const, override));
    MOCK_METHOD(bool, get_auto_channel, (const char*), (const, override));
    MOCK_METHOD(bool, is_wpa23_vap, (int, int), (const, override));
    MOCK_METHOD(bool, is_fbt_enabled, (int, int), (const, override));
    MOCK_METHOD(bool, get_enterprise_vap, (const std::string&), (const, override));
    MOCK_METHOD(bool, get_802dot11k_vap, (const std::string&), (const, override));
    MOCK_METHOD(std::string, get_ssid, (const std::string&), (const, override));
    MOCK_METHOD(bool, get_vap_enabled_state, (const std::string&), (const, override));
    MOCK_METHOD(bool, get_captive_portal_state, (const std::string&), (const, override));

    // --- driver_interface ---
    MOCK_METHOD(int, get_obss_coex, (const char*), (const, override));
    MOCK_METHOD(int, chanspec_band, (unsigned), (const, override));
    MOCK_METHOD(int, channel_band, (int), (const, override));
    MOCK_METHOD(primary_channel_mode, chanspec_primary_40, (const char*), (const, override));
    MOCK_METHOD(bool, get_status, (const char*), (const, override));
    MOCK_METHOD(const lumd_factory_t&, get_factory, (), (const, override));
    MOCK_METHOD(const char*, get_mac, (), (const, override));
    MOCK_METHOD(int, start, (bool, const std::set<unsigned>&, const std::set<unsigned>&, int&),
                (override));
    MOCK_METHOD(int, stop, (bool), (override));
    MOCK_METHOD(void, reset_orvanta, (ResetOrvantaCause), (override));
    MOCK_METHOD(void, init, (), (override));
    MOCK_METHOD(void, set_vapcontext, (), (override));
    MOCK_METHOD(void, close_vapcontext, (), (override));
    MOCK_METHOD(void, set_hostapd_initialized, (bool), (override));
    MOCK_METHOD(bool, is_hostapd_initialized, (), (const, override));
    MOCK_METHOD(bool, is_in_progress, (), (const, override));
    MOCK_METHOD(bool, is_wids_enabled, (int), (const, override));
    MOCK_METHOD(int, get_config_wids_interface, (), (const, override));
    MOCK_METHOD(bool, is_wds_enabled, (int), (const, override));
    MOCK_METHOD(bool, is_enabled, (int), (const, override));
    MOCK_METHOD(bool, has_enabled_vaps, (int), (const, override));
    MOCK_METHOD(bool, get_vap_status, (const char*, int), (const, override));
    MOCK_METHOD(bool, is_vap_enabled, (int, int), (const, override));
    MOCK_METHOD(bool, is_802dot11k, (int, int), (const, override));
    MOCK_METHOD(bool, is_band, (int, rrm_band_t), (const, override));
    MOCK_METHOD(int, set_tx_power, (const char*, int), (const, override));
    MOCK_METHOD(int, get_tx_power, (const char*), (const, override));
    MOCK_METHOD(void, get_min_max_tx_power, (const char*, int*, int*, rrm_band_t),
                (const, override));
    MOCK_METHOD(int, get_tx_power_max, (int), (const, override));
    MOCK_METHOD(int, get_tx_power_min, (int), (const, override));
    MOCK_METHOD(std::optional<antenna_config_t>, get_antenna_description, (const std::string&),
                (const, override));
    MOCK_METHOD(std::optional<antenna_config_t>, get_antenna_configuration, (int),
                (const, override));
    MOCK_METHOD(void, get_min_max_eirp, (const std::string&, int*, int*), (const, override));
    MOCK_METHOD(int, get_eirp_max, (int), (const, override));
    MOCK_METHOD(int, get_eirp_min, (int), (const, override));
    MOCK_METHOD(int, get_mac_offset, (int), (const, override));
    MOCK_METHOD(int, get_radio_mac_count, (int), (const, override));
    MOCK_METHOD(unsigned, get_config_primary, (const char*), (const, override));
    MOCK_METHOD(unsigned, get_config_bandwidth, (const char*), (const, override));
    MOCK_METHOD(unsigned, get_config_spec, (int), (const, override));
    MOCK_METHOD(bool, is_obss_coex, (int), (const, override));
    MOCK_METHOD(bool, is_auto_channel, (int), (const, override));
    MOCK_METHOD(int, set_chanspec, (const char*, int, int, primary_channel_mode),
                (const, override));
    MOCK_METHOD(unsigned, get_chanspec, (const char*), (const, override));
    MOCK_METHOD(int, chanspec_channel, (unsigned), (const, override));
    MOCK_METHOD(const char*, chanspec_primary, (unsigned), (const, override));
    MOCK_METHOD(int, chanspec_bw, (unsigned), (const, override));
    MOCK_METHOD(int, get_assoclist, (const char*, const assoclist_callback&), (const, override));
    MOCK_METHOD(int, get_ssidlist, (const char*, const ssidlist_callback&), (const, override));
    MOCK_METHOD(int, fill_ap_table, (ap_table&), (const, override));
    MOCK_METHOD(int, fill_ap_table_vexor_rrm, (ap_table&), (const, override));
    MOCK_METHOD(int, fill_chanspecs, (const char*, std::string&), (const, override));
    MOCK_METHOD(const char*, primary_channel_to_string, (int, int), (const, override));
    MOCK_METHOD(int, get_max_radios, (), (const, override));
    MOCK_METHOD(int, get_max_vap, (), (const, override));
    MOCK_METHOD(int, process_driver_events, (const driver_event_callback&), (const, override));
    MOCK_METHOD(const char*, SsidToVap, (const char*, int), (const, override));
    MOCK_METHOD(int, SsidToVapId, (const char*, int), (const, override));
    MOCK_METHOD(const char*, VapIdToVap, (unsigned, int), (const, override));
    MOCK_METHOD(const char*, VapIdToSsid, (unsigned, int), (const, override));
    MOCK_METHOD(const char*, VapIdToMac, (unsigned, int), (const, override));
    MOCK_METHOD(int, set_rrm_nbr_ap_list, (const char*, const char*, int, int, int),
                (const, override));
    MOCK_METHOD(bool, add_radio_id, (const char*, json_writer*), (const, override));
    MOCK_METHOD(int, clear_rrm_nbr_ap_list, (const char*), (const, override));
    MOCK_METHOD(void, set_orvanta_fbt_params, (const std::string&, const std::string&), (override));
    MOCK_METHOD(int, start_orvanta_fbt_params, (), (override));
    MOCK_METHOD(int, finish_orvanta_fbt_params, (), (override));
    MOCK_METHOD(int, reset_orvanta_fbt, (ResetOrvantaCause), (const, override));
    MOCK_METHOD(int, fill_vap_name, (int, int, char*, unsigned), (const, override));
    MOCK_METHOD(bool, is_guardd_sentry_mode, (), (const, override));
    MOCK_METHOD(int, get_band_from_ifname, (const char*), (const, override));
    MOCK_METHOD(int, block_sta, (const char*, const char*), (const, override));
    MOCK_METHOD(int, block_sta_data, (const char*, const char*), (const, override));
    MOCK_METHOD(int, unblock_sta, (const char*, const char*), (const, override));
    MOCK_METHOD(int, unblock_all_sta, (const char*), (const, override));
    MOCK_METHOD(int, set_vexor_sta_rssi_thr_high, (const char*, int), (const, override));
    MOCK_METHOD(int, set_vexor_sta_rssi_thr_low, (const char*, int), (const, override));
    MOCK_METHOD(int, probsup_find, (const char*, const char*), (const, override));
    MOCK_METHOD(int, probsup_rrm_max_age, (const char*, int), (const, override));
    MOCK_METHOD(int, probsup_rrm_client_try_no_balance, (const char*, int), (const, override));
    MOCK_METHOD(int, rssi_renew_interval, (const char*, int), (const, override));
    MOCK_METHOD(int, disassoc_sta, (const char*, const char*), (const, override));
    MOCK_METHOD(int, send_bsstrans_request, (const char*, const char*, int), (const, override));
    MOCK_METHOD(int, set_vexor_roam_attempt_timeout, (const char*, int), (const, override));
    MOCK_METHOD(int, clear_vexor_nbr_ap_list, (const char*), (const, override));

  private:
    void set_up_radios();
    void default_to_context_queries();
    void default_to_vap_queries();
    void default_to_chanspec_arithmetic();
    void default_to_lists();
    void default_to_scanning();
    void default_to_lifecycle();
    void default_to_recorded_commands();
};

// Made once, in mock_driver.cpp: some ninety mock methods cost every test file a minute otherwise.
extern template class testing::NiceMock<MockDriver>;

#endif
