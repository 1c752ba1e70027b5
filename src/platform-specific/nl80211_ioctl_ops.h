// nl80211_ioctl_ops: the back-end of radios that Linux' own drivers serve (mac80211), over nl80211
// and the control socket of hostapd. "wlanN" is a managed interface, which scans; "wlanN-vaM" are
// access points of the same radio.
#ifndef LUMD_NL80211_IOCTL_OPS_H
#define LUMD_NL80211_IOCTL_OPS_H

#include <cstdint>
#include <optional>
#include <string>

#include "ioctl_ops.h"
#include "nl80211_radios.h"

class nl80211_ioctl_ops : public ioctl_ops {
  public:
    // `radios` is borrowed for the object's life.
    nl80211_ioctl_ops(const std::string& ifname, nl80211_radios& radios);

    // --- nl80211_ioctl_ops_scan.cpp ---

    // An active scan, in which the access points go on. Channels that the radio may not use are
    // left out.
    int start_scan(const std::set<unsigned>& channels) override;
    int stop_scan() override;
    int get_scan_result(ap_table& table) override;
    // A passive scan, with a dwell time where the radio takes one.
    int start_rrm_scan(unsigned channel, const std::string& ifname) override;
    int stop_rrm_scan(const std::string& ifname) override;
    // What was heard on the measured channel; the survey behind it (noise, busy time) is an info
    // line.
    int get_rrm_scan_result(ap_table& table) override;
    // Of the band that the radio is described with: those that are not disabled and on which the
    // radio may send without having heard another (those with radar, too).
    int get_available_channels(std::set<unsigned>& channels) override;

    // --- nl80211_ioctl_ops.cpp ---

    // Signals and rates from the kernel, 802.11v support from hostapd; a station that hostapd does
    // not tell about counts as one without it.
    int get_assoc_sta(std::vector<rrm_sta_realtek>& stations) override;

    // MIBs are names of the chip families' drivers. Answered are "chanspec" (of the access points;
    // not known while there is none), "actual_tx_power" and "power_target" (dBm), "rrm_scan_chan"
    // and "roam_attempt_timeout"; taken is "roam_attempt_timeout". All others are refused.
    int set_mib(const std::string& name, const std::string& value,
                const std::string& ifname) override;
    int get_mib(const std::string& name, std::span<std::byte> out,
                const std::string& ifname) override;
    int get_actual_tx_power(std::span<std::byte> out, const std::string& ifname) override;
    // Never: hostapd judges once, before it starts, and the width in use is then what holds.
    bool get_obss_coex(const std::string& ifname) override;

    // --- nl80211_ioctl_ops_neighbour.cpp ---

    // Asks the client to move to one of the VAP's candidates.
    int send_bsstrans_request(const std::string& ifname, const char* mac, int value) override;
    int set_vexor_roam_attempt_timeout(const std::string& ifname, int timeout) override;
    // The standard list is hostapd's, the custom one is kept here. An operating class of 255
    // becomes that of the channel; `value` is the preference of a candidate.
    int set_rrm_nbr_ap(const std::string& ifname, const libhubd::MacAddr& bssid,
                       const std::string& ssid, int channel, int bss_load_stations,
                       int bss_load_utilisation, std::uint8_t operating_class, int value,
                       int custom) override;
    int clear_vexor_nbr_ap_list(const std::string& ifname) override;
    // hostapd's own BSS stays in its list.
    int clear_rrm_nbr_ap_list(const std::string& ifname) override;

  private:
    // The interface of that name; empty, with an error line, when there is none.
    std::optional<interface_record> find_interface(const std::string& ifname);
    // The interface itself when it is an access point, else the first one of its radio that has a
    // channel.
    std::optional<interface_record> access_point_of(const std::string& ifname);
    [[nodiscard]] rrm_band_t band() const;

    // Channels of the radio and its band that are not disabled.
    int usable_frequencies(const interface_record& own, std::vector<frequency_record>& result);
    int trigger(const interface_record& own, const std::vector<std::uint32_t>& frequencies,
                bool active, std::uint16_t dwell);
    int heard(std::vector<bss_record>& result);
    void log_survey(std::uint32_t frequency);

    // `error` is an errno where there is no value.
    std::optional<std::int32_t> mib_value(const std::string& name, const std::string& ifname,
                                          int& error);

    std::string ifname_;
    nl80211_radios& radios_;
};

#endif
