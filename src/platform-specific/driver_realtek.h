// driver_realtek: the radios of an access point with Realtek chips.
#ifndef LUMD_DRIVER_REALTEK_H
#define LUMD_DRIVER_REALTEK_H

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "driver_interface.h"
#include "ioctl_ops.h"

class nl80211_radios;

inline constexpr int realtek_max_radios = 2;
inline constexpr int realtek_max_vaps = 7;  // per radio

// One VAP as last read.
struct vap_context {
    std::string ifname;
    std::string mac;  // 17 characters, lower case
    std::string ssid;
    bool cp_vap = false;  // captive portal
    bool status = false;  // up and switched on
    bool enterprise_vap = false;
    bool rrm_vap = false;  // 802.11k
};

// One radio as last read. Power and EIRP in dBm, antenna figures in dB.
struct interface_context {
    static constexpr std::int32_t default_tx_power_max = 16;
    static constexpr std::int32_t default_tx_power_min = 11;
    static constexpr std::int32_t default_eirp_max = 100;
    static constexpr std::int32_t default_eirp_min = 0;

    std::array<vap_context, realtek_max_vaps> vap;
    std::string ifname;
    bool status = false;  // the root interface is up
    std::int32_t mac_offset = 0;
    std::int32_t radio_mac_count = 0;
    bool wds_status = false;
    bool wids_status = false;  // the radio scans for guardd
    bool coex_status = false;
    bool auto_channel = false;
    std::string country;
    std::int32_t tx_power_max = default_tx_power_max;
    std::int32_t tx_power_min = default_tx_power_min;
    std::int32_t eirp_max = default_eirp_max;
    std::int32_t eirp_min = default_eirp_min;
    antenna_config_t antenna_config{0, 0};
    std::uint32_t config_spec = 0;  // configured chanspec bits
    rrm_band_t band = BAND_NONE;

    // Null, with an error line, when there is no such VAP number.
    vap_context* get_vap(int number);
    const vap_context* get_vap(int number) const;
};

class driver_realtek final : public driver_interface {
  public:
    // `process_run_flag` is borrowed for the process's life.
    explicit driver_realtek(volatile bool& process_run_flag);
    ~driver_realtek();

    // --- driver_realtek.cpp: accessors and fixed answers ---
    const lumd_factory_t& get_factory() const override;
    const char* get_mac() const override;
    void set_hostapd_initialized(bool up) override;
    bool is_hostapd_initialized() const override;
    bool is_guardd_sentry_mode() const override;
    int get_max_radios() const override;
    int get_max_vap() const override;
    void init() override;

    // --- driver_realtek_context.cpp: radios and VAPs as last read ---
    void set_vapcontext() override;
    void close_vapcontext() override;
    bool is_wids_enabled(int radio) const override;
    bool is_wds_enabled(int radio) const override;
    bool is_enabled(int radio) const override;
    bool has_enabled_vaps(int radio) const override;
    bool get_vap_status(const std::string& ifname) const;
    bool get_vap_status(const char* ifname, int vap) const override;
    bool is_vap_enabled(int radio, int vap) const override;
    bool is_802dot11k(int radio, int vap) const override;
    bool is_band(int radio, rrm_band_t band) const override;
    int get_tx_power_max(int radio) const override;
    int get_tx_power_min(int radio) const override;
    std::optional<antenna_config_t> get_antenna_configuration(int radio) const override;
    int get_eirp_max(int radio) const override;
    int get_eirp_min(int radio) const override;
    int get_mac_offset(int radio) const override;
    int get_radio_mac_count(int radio) const override;
    unsigned get_config_spec(int radio) const override;
    bool is_obss_coex(int radio) const override;
    bool is_auto_channel(int radio) const override;
    int get_ssidlist(const char* ifname, const ssidlist_callback& callback) const override;
    const char* SsidToVap(const char* ssid, int radio) const override;
    int SsidToVapId(const char* ssid, int radio) const override;
    const char* VapIdToVap(unsigned vap, int radio) const override;
    const char* VapIdToSsid(unsigned vap, int radio) const override;
    const char* VapIdToMac(unsigned vap, int radio) const override;
    bool add_radio_id(const char* vap_ifname, json_writer* writer) const override;
    int fill_vap_name(int radio, int vap, char* buf, unsigned len) const override;
    int get_band_from_ifname(const char* ifname) const override;
    // Radio number of an interface name, not checked against a range; -1 when it has none.
    int get_radio_id(const std::string& ifname) const;
    // The radio a radio's or VAP's interface name belongs to; null, with an error line for a
    // number out of range, when there is none.
    interface_context* radio_by_ifname(const std::string& ifname);
    const interface_context* radio_by_ifname(const std::string& ifname) const;
    // Null, with an error line, when there is no such radio number.
    interface_context* get_radio(int radio);
    const interface_context* get_radio(int radio) const;

    // --- driver_realtek_config.cpp: configuration store look-ups ---
    bool get_wds_enabled(const char* ifname) const override;
    bool get_wlan_wds_enabled(const char* ifname) const;
    bool is_wpa23_vap(const std::string& ifname) const;
    using ipc_helper::is_wpa23_vap;
    bool is_fbt_enabled(int radio, int vap) const override;
    bool get_enterprise_vap(const std::string& ifname) const override;
    bool get_802dot11k_vap(const std::string& ifname) const override;
    std::string get_ssid(const std::string& ifname) const override;
    bool get_vap_enabled_state(const std::string& ifname) const override;
    bool get_captive_portal_state(const std::string& ifname) const override;
    int get_config_wids_interface() const override;
    void get_min_max_tx_power(const char* ifname, int* min, int* max,
                              rrm_band_t band) const override;
    void get_min_max_eirp(const std::string& ifname, int* min, int* max) const override;
    std::optional<antenna_config_t> get_antenna_description(
        const std::string& ifname) const override;
    unsigned get_config_primary(const char* ifname) const override;
    unsigned get_config_bandwidth(const char* ifname) const override;

    // --- driver_realtek_channel.cpp: channel and power ---
    int chanspec_band(unsigned chanspec) const override;
    int channel_band(int channel) const override;
    primary_channel_mode chanspec_primary_40(const char* text) const override;
    int chanspec_channel(unsigned chanspec) const override;
    const char* chanspec_primary(unsigned chanspec) const override;
    int chanspec_bw(unsigned chanspec) const override;
    const char* primary_channel_to_string(int sub_band, int bw) const override;
    int set_tx_power(const char* ifname, int power) const override;
    int set_chanspec(const char* ifname, int channel, int bw,
                     primary_channel_mode mode) const override;
    unsigned get_chanspec(const char* ifname) const override;
    int fill_chanspecs(const char* ifname, std::string& out) const override;

    // --- driver_realtek_scan.cpp: scans ---
    int start(bool active, const std::set<unsigned>& channels_2,
              const std::set<unsigned>& channels_5, int& duration) override;
    int stop(bool active) override;
    bool is_in_progress() const override;
    int fill_ap_table(ap_table& table) const override;
    int fill_ap_table_vexor_rrm(ap_table& table) const override;

    // --- driver_realtek_station.cpp: chip families, stations and interface state ---
    // Family of the chip behind an interface, by the part of its name before the first "-".
    ioctl_ops_type get_ioctl_type(const char* ifname) const;
    // What the back-end for mac80211 keeps; null in a build without it.
    nl80211_radios* get_nl80211_radios() const { return nl80211.get(); }
    int get_obss_coex(const char* ifname) const override;
    bool get_status(const char* ifname) const override;
    bool interface_is_up(const std::string& ifname) const;
    int get_tx_power(const char* ifname) const override;
    int get_assoclist(const char* ifname, const assoclist_callback& callback) const override;
    int process_driver_events(const driver_event_callback& callback) const override;
    int send_bsstrans_request(const char* ifname, const char* mac, int value) const override;
    int set_vexor_roam_attempt_timeout(const char* ifname, int timeout) const override;

    // --- driver_realtek_unsupported.cpp: client control without a counterpart in these drivers ---
    // Each leaves a debug line and answers 0.
    int block_sta(const char* ifname, const char* mac) const override;
    int block_sta_data(const char* ifname, const char* mac) const override;
    int unblock_sta(const char* ifname, const char* mac) const override;
    int unblock_all_sta(const char* ifname) const override;
    int set_vexor_sta_rssi_thr_high(const char* ifname, int threshold) const override;
    int set_vexor_sta_rssi_thr_low(const char* ifname, int threshold) const override;
    int probsup_find(const char* ifname, const char* mac) const override;
    int probsup_rrm_max_age(const char* ifname, int age) const override;
    int probsup_rrm_client_try_no_balance(const char* ifname, int tries) const override;
    int rssi_renew_interval(const char* ifname, int interval) const override;
    int disassoc_sta(const char* ifname, const char* mac) const override;

    // --- driver_realtek_neighbour.cpp: 802.11k and candidate lists ---
    int set_rrm_nbr_ap_list(const char* bssid, const char* ssid, int channel, int value,
                            int custom) const override;
    int clear_rrm_nbr_ap_list(const char* ifname) const override;
    int clear_vexor_nbr_ap_list(const char* ifname) const override;

    // --- driver_realtek_fbt.cpp: fast transition and resets ---
    void reset_orvanta(ResetOrvantaCause cause) override;
    void set_orvanta_fbt_params(const std::string& name, const std::string& json) override;
    int start_orvanta_fbt_params() override;
    int finish_orvanta_fbt_params() override;
    int reset_orvanta_fbt(ResetOrvantaCause cause) const override;

  private:
    // hostapd is up and the process is not stopping.
    [[nodiscard]] bool live() const { return hostapd_status && run_flag; }

    // The back-end for an interface; never null.
    [[nodiscard]] std::unique_ptr<ioctl_ops> make_ops(const char* ifname) const;

    static std::string vap_name(int radio, int vap);

    void name_interfaces();
    void set_radio_context(int radio, int wids_radio);
    void read_radio_settings(interface_context& context) const;
    void read_radio_limits(interface_context& context) const;
    void set_vap_context(int radio, int vap);

    // The radio when the driver is live and the number is good.
    [[nodiscard]] const interface_context* live_radio(int radio) const;
    // The VAP of an enabled radio; null, with an error line, for a bad number.
    [[nodiscard]] const vap_context* vap_of_enabled(unsigned vap, int radio) const;
    static bool has_number(int radio) { return radio >= 0 && radio < realtek_max_radios; }

    // Turn a configuration value's text into what it means; the radio is null when the interface
    // belongs to none.
    template <typename T>
    using radio_converter = std::optional<T> (*)(const interface_context* radio,
                                                 const std::string& value);
    template <typename T>
    using vap_converter = std::optional<T> (*)(const interface_context* radio,
                                               const std::string& ifname, const std::string& value);
    static std::optional<std::string> empty_callback_radio(const interface_context* radio,
                                                           const std::string& value);
    static std::optional<std::set<unsigned>> get_config_limit_channels_cb(
        const interface_context* radio, const std::string& value);

    // A configuration value below a radio's or a VAP's branch; empty, with an error line, when
    // there is none.
    template <typename T>
    std::optional<T> getconf_radio(const std::string& ifname, const std::string& key,
                                   radio_converter<T> converter) const;
    template <typename T>
    std::optional<T> getconf_vap(const std::string& ifname, const std::string& suffix,
                                 vap_converter<T> converter) const;
    // Whether a VAP's value is the text "true"; false unless live.
    bool is_vap_switched_on(const std::string& ifname, const char* suffix) const;
    // The text at `path`; empty, with an error line under the caller's name, when there is none.
    std::optional<std::string> getconf_of(const std::string& ifname, const std::string& path,
                                          const char* func, int line) const;
    std::string get_radio_config_path(const std::string& ifname, const std::string& key) const;
    std::string get_vap_config_path(const std::string& ifname, const std::string& suffix) const;

    // A radio that a survey may use: enabled, no WDS, no WIDS.
    [[nodiscard]] bool may_scan(int radio) const;
    // As get_radio_id(), with an error line under the caller's name for a name without a number.
    int parse_radio_id(const char* ifname, const char* func, int line) const;
    int start_active_scan(const char* ifname, const std::set<unsigned>& channels,
                          int& duration) const;
    int stop_active_scan(const char* ifname) const;
    int start_rrm_scan(const char* ifname, const std::set<unsigned>& channels, int& duration) const;
    int stop_rrm_scan(const char* ifname) const;
    int _fill_ap_table(const char* ifname, ap_table& table) const;
    int _fill_ap_table_vexor_rrm(const char* ifname, ap_table& table) const;

    int __reset_orvanta_fbt(ResetOrvantaCause cause) const;

    volatile bool& run_flag;
    lumd_factory_t factory{};
    bool in_progress = false;     // a scan was started and not stopped
    bool hostapd_status = false;  // hostapd is up
    std::array<interface_context, realtek_max_radios> interfaces;
    const std::shared_ptr<nl80211_radios> nl80211;
    cfgtree_ptr realtek_fbt_msg;        // fast-transition parameters being staged; null when none
    bool guardd_sentry_status = false;  // guardd scans on all radios
};

#endif
