// The radios as the service logic sees them: the abstract driver and the records it speaks in.
#ifndef LUMD_DRIVER_INTERFACE_H
#define LUMD_DRIVER_INTERFACE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "MacAddr.h"
#include "ipc_helper.h"

class json_writer;

// A radio band; the value is the band's name in GHz.
enum rrm_band_t : std::int32_t { BAND_NONE = 0, BAND_2G = 2, BAND_5G = 5, BAND_6G = 6 };

// A channel specification: centre channel in the low 8 bits (for 20 MHz the channel itself),
// control sub-band in bits 8 to 10, bandwidth in bits 11 to 13, band in the two highest of 16.
// Several names share the value 0: which one is meant follows from the bandwidth. No bandwidth
// bits read as 20 MHz.
enum chanspec : std::uint32_t {
    LWLIO_CHANSPEC_BW_MASK = 0x3800,
    LWLIO_CHANSPEC_BW_20 = 0x1000,
    LWLIO_CHANSPEC_BW_40 = 0x1800,
    LWLIO_CHANSPEC_BW_80 = 0x2000,
    LWLIO_CHANSPEC_CTL_SB_MASK = 0x0700,
    LWLIO_CHANSPEC_CTL_SB_NONE = 0,        // 20 MHz: no sub-band
    LWLIO_CHANSPEC_CTL_SB_LOWER = 0,       // 40 MHz: the primary is the lower 20 MHz
    LWLIO_CHANSPEC_CTL_SB_UPPER = 0x0100,  // 40 MHz: the primary is the upper 20 MHz
    LWLIO_CHANSPEC_CTL_SB_LL = 0,          // 80 MHz: the lowest 20 MHz
    LWLIO_CHANSPEC_CTL_SB_LU = 0x0100,     // 80 MHz: second from below
    LWLIO_CHANSPEC_CTL_SB_UL = 0x0200,     // 80 MHz: third from below
    LWLIO_CHANSPEC_CTL_SB_UU = 0x0300,     // 80 MHz: the highest
    LWLIO_CHANSPEC_BAND_2G = 0,
    LWLIO_CHANSPEC_BAND_5G = 0xC000
};

// On which side of a 40 MHz pair the primary channel lies.
enum primary_channel_mode : std::int32_t {
    PRIMARY_CHANNEL_NONE = 0,
    PRIMARY_CHANNEL_LOWER = 1,
    PRIMARY_CHANNEL_UPPER = 2
};

// Why the service's settings are taken back.
enum ResetOrvantaCause : std::int32_t { UNKNOWN = 0, DAEMON_STOPPED = 1, ORVANTA_DISCONNECTED = 2 };

enum driver_event : std::int32_t {
    RRM_STA_ROAM = 0,
    RRM_ASSOC_STATE_CHANGED = 1,
    RRM_CHANSPEC_ACSD = 2,
    RRM_UNDEFINED_EVENT = 3
};

// Client events as the service logic tells them apart.
enum driver_event_id : std::int32_t { CLIENT_ASSOC = 0, CLIENT_DISSASSOC = 1, CLIENT_ROAM = 2 };

// One associated client.
struct rrm_sta_s {
    static constexpr std::size_t chains = 4;

    rrm_sta_s() = default;
    rrm_sta_s(const rrm_sta_s&) = default;
    rrm_sta_s& operator=(const rrm_sta_s&) = default;
    virtual ~rrm_sta_s() = default;

    std::string mac;                          // six lower-case hex pairs joined by colons
    std::string target_roaming_mac;           // BSSID the client is steered to; empty when none
    std::string ssid;                         // of the VAP the client is on
    std::string ifname;                       // of that VAP
    bool roam_attempt = false;                // the driver has already tried to roam the client
    std::array<std::int32_t, chains> rssi{};  // dBm per receive chain
    std::int32_t max_rssi = 0;                // dBm, the largest of them
    std::int32_t tx_rate = 0;                 // 100 kbit/s; 0 when not told
    std::int32_t rx_rate = 0;
    bool need_ack = false;
    bool is_enterprise = false;  // the VAP uses 802.1X security
    bool is_no_balance = false;  // excluded from load balancing: no 802.11v support
    bool is_rrm_stable = false;
};
using rrm_sta_t = rrm_sta_s;

// One neighbouring access point heard in a scan.
struct ap_info {
    std::array<std::uint8_t, 6> bssid{};
    std::int32_t signal = 0;  // dBm
    std::int32_t channel = 0;
    std::int32_t bw = 0;               // MHz
    std::int32_t tx_power = 0;         // dBm; 0 when not told
    std::int32_t primary_channel = 0;  // control sub-band bits of its chanspec
};

using ap_table = std::vector<ap_info>;

// What process_driver_events() delivers; valid only during the callback.
struct driver_event_desc {
    driver_event event;
    std::int32_t radio;
    const rrm_sta_t& sta;
};

// The unit's factory data: NUL-terminated texts.
struct lumd_factory_t {
    char board[32];
    char hw[32];
    char serial[32];
    char mac[32];  // base MAC address as text
};

struct antenna_config_t {
    std::int32_t ant_gain;    // dB
    std::int32_t cable_loss;  // dB
};

// The access point's radios. Radios are numbered from 0 and named "wlan0", "wlan1"; the VAPs of a
// radio are numbered from 0 and named "wlan<radio>-va<vap>". Questions about a radio or VAP answer
// null, false, -1 or the stated default unless hostapd is up and the run flag is set.
//
// Not thread-safe: used from the RRM or WIDS worker's thread. Returned texts belong to the driver
// and live until its context is next rebuilt. Results of type int are 0 or negative for failure
// unless stated.
class driver_interface : public ipc_helper {
  public:
    using ipc_helper::ipc_helper;

    using assoclist_callback = std::function<void(const rrm_sta_s&)>;
    using ssidlist_callback =
        std::function<void(int vap, const char* ssid, const char* mac, bool dot11k)>;
    using driver_event_callback = std::function<void(const driver_event_desc&)>;

    // 20/40 MHz coexistence as the driver has it now (IEEE 802.11, 11.15): non-zero means on.
    virtual int get_obss_coex(const char* ifname) const = 0;

    virtual int chanspec_band(unsigned chanspec) const = 0;  // 2 or 5
    virtual int channel_band(int channel) const = 0;         // 2 below channel 30, else 5
    virtual primary_channel_mode chanspec_primary_40(const char* text) const = 0;

    virtual bool get_status(const char* ifname) const = 0;  // the interface is up
    virtual const lumd_factory_t& get_factory() const = 0;
    virtual const char* get_mac() const = 0;  // factory base MAC text, never null

    // Starts a scan of the two bands' channels: the generic (active) one, or the vendor RRM scan.
    // Raises `duration` (seconds) to what the slowest radio needs. Ignored while one runs.
    virtual int start(bool active, const std::set<unsigned>& channels_2,
                      const std::set<unsigned>& channels_5, int& duration) = 0;
    virtual int stop(bool active) = 0;

    virtual void reset_orvanta(ResetOrvantaCause cause) = 0;
    virtual void init() = 0;              // brings the radios to a clean state
    virtual void set_vapcontext() = 0;    // reads radios and VAPs anew
    virtual void close_vapcontext() = 0;  // forgets them
    virtual void set_hostapd_initialized(bool up) = 0;
    virtual bool is_hostapd_initialized() const = 0;
    virtual bool is_in_progress() const = 0;  // a scan runs

    virtual bool is_wids_enabled(int radio) const = 0;
    // Radio that WIDS scans on; get_max_radios() for all of them; -1 when not known.
    virtual int get_config_wids_interface() const = 0;
    virtual bool is_wds_enabled(int radio) const = 0;
    virtual bool is_enabled(int radio) const = 0;
    virtual bool has_enabled_vaps(int radio) const = 0;
    virtual bool get_vap_status(const char* ifname, int vap) const = 0;
    virtual bool is_vap_enabled(int radio, int vap) const = 0;
    virtual bool is_802dot11k(int radio, int vap) const = 0;
    virtual bool is_band(int radio, rrm_band_t band) const = 0;

    // Transmit power and EIRP in dBm.
    virtual int set_tx_power(const char* ifname, int power) const = 0;
    virtual int get_tx_power(const char* ifname) const = 0;
    virtual void get_min_max_tx_power(const char* ifname, int* min, int* max,
                                      rrm_band_t band) const = 0;
    virtual int get_tx_power_max(int radio) const = 0;
    virtual int get_tx_power_min(int radio) const = 0;
    virtual std::optional<antenna_config_t> get_antenna_description(
        const std::string& ifname) const = 0;
    virtual std::optional<antenna_config_t> get_antenna_configuration(int radio) const = 0;
    virtual void get_min_max_eirp(const std::string& ifname, int* min, int* max) const = 0;
    virtual int get_eirp_max(int radio) const = 0;
    virtual int get_eirp_min(int radio) const = 0;

    virtual int get_mac_offset(int radio) const = 0;
    virtual int get_radio_mac_count(int radio) const = 0;

    // Configured values as chanspec bits.
    virtual unsigned get_config_primary(const char* ifname) const = 0;
    virtual unsigned get_config_bandwidth(const char* ifname) const = 0;
    virtual unsigned get_config_spec(int radio) const = 0;
    virtual bool is_obss_coex(int radio) const = 0;
    virtual bool is_auto_channel(int radio) const = 0;

    // Asks hubd for a channel; `bw` in MHz.
    virtual int set_chanspec(const char* ifname, int channel, int bw,
                             primary_channel_mode mode) const = 0;
    virtual unsigned get_chanspec(const char* ifname) const = 0;        // in use; 0 when not known
    virtual int chanspec_channel(unsigned chanspec) const = 0;          // primary channel
    virtual const char* chanspec_primary(unsigned chanspec) const = 0;  // "upper", "lower", "none"
    virtual int chanspec_bw(unsigned chanspec) const = 0;               // 20, 40 or 80 MHz

    virtual int get_assoclist(const char* ifname, const assoclist_callback& callback) const = 0;
    virtual int get_ssidlist(const char* ifname, const ssidlist_callback& callback) const = 0;

    // Replace `table` by the neighbours of the last generic or RRM scan.
    virtual int fill_ap_table(ap_table& table) const = 0;
    virtual int fill_ap_table_vexor_rrm(ap_table& table) const = 0;
    // Channels the radio may use, each followed by a blank; `out` is untouched when not known.
    virtual int fill_chanspecs(const char* ifname, std::string& out) const = 0;
    virtual const char* primary_channel_to_string(int sub_band, int bw) const = 0;

    virtual int get_max_radios() const = 0;
    virtual int get_max_vap() const = 0;

    // Waits for driver events for at most 100 ms and hands each to `callback`.
    virtual int process_driver_events(const driver_event_callback& callback) const = 0;

    virtual const char* SsidToVap(const char* ssid, int radio) const = 0;
    virtual int SsidToVapId(const char* ssid, int radio) const = 0;  // -1 when there is none
    virtual const char* VapIdToVap(unsigned vap, int radio) const = 0;
    virtual const char* VapIdToSsid(unsigned vap, int radio) const = 0;
    virtual const char* VapIdToMac(unsigned vap, int radio) const = 0;

    // Adds one neighbour to the 802.11k list (`custom` 0) or to the driver's own candidate list of
    // every VAP that bears the SSID (IEEE 802.11, 9.4.2.36).
    virtual int set_rrm_nbr_ap_list(const char* bssid, const char* ssid, int channel, int value,
                                    int custom) const = 0;
    // Inserts "radio", the radio number of a VAP interface name; false for any other name.
    virtual bool add_radio_id(const char* vap_ifname, json_writer* writer) const = 0;
    virtual int clear_rrm_nbr_ap_list(const char* ifname) const = 0;

    // Fast-transition parameters: start, set once per VAP (a JSON text), finish pushes them.
    virtual void set_orvanta_fbt_params(const std::string& name, const std::string& json) = 0;
    virtual int start_orvanta_fbt_params() = 0;
    virtual int finish_orvanta_fbt_params() = 0;
    virtual int reset_orvanta_fbt(ResetOrvantaCause cause) const = 0;

    // Writes the VAP's name as snprintf(3) does.
    virtual int fill_vap_name(int radio, int vap, char* buf, unsigned len) const = 0;
    virtual bool is_guardd_sentry_mode() const = 0;
    virtual int get_band_from_ifname(const char* ifname) const = 0;

    // Client control.
    virtual int block_sta(const char* ifname, const char* mac) const = 0;
    virtual int block_sta_data(const char* ifname, const char* mac) const = 0;
    virtual int unblock_sta(const char* ifname, const char* mac) const = 0;
    virtual int unblock_all_sta(const char* ifname) const = 0;
    virtual int set_vexor_sta_rssi_thr_high(const char* ifname, int threshold) const = 0;
    virtual int set_vexor_sta_rssi_thr_low(const char* ifname, int threshold) const = 0;
    virtual int probsup_find(const char* ifname, const char* mac) const = 0;  // 0: not found
    virtual int probsup_rrm_max_age(const char* ifname, int age) const = 0;
    virtual int probsup_rrm_client_try_no_balance(const char* ifname, int tries) const = 0;
    virtual int rssi_renew_interval(const char* ifname, int interval) const = 0;
    virtual int disassoc_sta(const char* ifname, const char* mac) const = 0;
    // BSS transition management request (IEEE 802.11, 9.6.13.9) to one client.
    virtual int send_bsstrans_request(const char* ifname, const char* mac, int value) const = 0;
    virtual int set_vexor_roam_attempt_timeout(const char* ifname, int timeout) const = 0;
    virtual int clear_vexor_nbr_ap_list(const char* ifname) const = 0;

  protected:
    ~driver_interface() = default;
};

// The one driver of the process, made at the first call and destroyed at process exit; later calls
// ignore their argument. `run_flag` is borrowed for the process's life: false makes every question
// answer "nothing". Thread-safe.
driver_interface& make_driver(volatile bool& run_flag);

#endif
