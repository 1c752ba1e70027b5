// ioctl_ops: the commands that a radio driver takes, whichever chip family serves the interface.
#ifndef LUMD_IOCTL_OPS_H
#define LUMD_IOCTL_OPS_H

#include <cstddef>
#include <cstdint>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "driver_interface.h"

class rrm_sta_realtek;

enum ioctl_ops_type : std::int32_t { RTL8192CD = 0, G6 = 1, NL80211 = 2 };

// A back-end serves one interface and is used by one thread, one command at a time. Results of
// type int are 0 or negative for failure; the reason is logged.
class ioctl_ops {
  public:
    // Vendor commands. An empty channel set means all channels.
    virtual int start_scan(const std::set<unsigned>& channels) = 0;
    virtual int stop_scan() = 0;
    virtual int get_scan_result(ap_table& table) = 0;  // appends

    // The RRM measurement of one channel (IEEE 802.11, 9.4.2.20).
    virtual int start_rrm_scan(unsigned channel, const std::string& ifname) = 0;
    virtual int stop_rrm_scan(const std::string& ifname) = 0;
    virtual int get_rrm_scan_result(ap_table& table) = 0;  // appends

    virtual int get_available_channels(std::set<unsigned>& channels) = 0;
    virtual int get_assoc_sta(std::vector<rrm_sta_realtek>& stations) = 0;  // appends
    virtual int send_bsstrans_request(const std::string& ifname, const char* mac, int value) = 0;
    virtual int set_vexor_roam_attempt_timeout(const std::string& ifname, int timeout) = 0;
    virtual int clear_vexor_nbr_ap_list(const std::string& ifname) = 0;

    // MIB values of the driver. `out` is filled from its beginning, never past its end; a value is
    // normally one 32-bit integer in host byte order.
    virtual int set_mib(const std::string& name, const std::string& value,
                        const std::string& ifname) = 0;
    virtual int get_mib(const std::string& name, std::span<std::byte> out,
                        const std::string& ifname) = 0;
    virtual int get_actual_tx_power(std::span<std::byte> out, const std::string& ifname) = 0;

    // Adds one neighbour report (IEEE 802.11, 9.4.2.36) to the standard or the custom list.
    virtual int set_rrm_nbr_ap(const std::string& ifname, const libhubd::MacAddr& bssid,
                               const std::string& ssid, int channel, int bss_load_stations,
                               int bss_load_utilisation, std::uint8_t operating_class, int value,
                               int custom) = 0;
    virtual int clear_rrm_nbr_ap_list(const std::string& ifname) = 0;

    // 20/40 MHz coexistence as the driver has it now.
    virtual bool get_obss_coex(const std::string& ifname) = 0;

    virtual ~ioctl_ops() = default;
};

#endif
