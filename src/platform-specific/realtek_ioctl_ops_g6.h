// g6_ioctl_ops: the back-end of the Wi-Fi 6 ("g6") chip family. MIBs go through the iwpriv tool,
// neighbour lists through the driver's rtk_wifi6 folder and hostapd's neighbour table.
#ifndef LUMD_REALTEK_IOCTL_OPS_G6_H
#define LUMD_REALTEK_IOCTL_OPS_G6_H

#include "realtek_ioctl_ops.h"

class g6_ioctl_ops : public realtek_ioctl_ops {
  public:
    g6_ioctl_ops(const driver_realtek& owner, const std::string& ifname);

    int clear_vexor_nbr_ap_list(const std::string& ifname) override;
    // Always 0: the tool does not tell whether the driver took the value.
    int set_mib(const std::string& name, const std::string& value,
                const std::string& ifname) override;
    // A negative value counts as a failure.
    int get_mib(const std::string& name, std::span<std::byte> out,
                const std::string& ifname) override;
    int get_actual_tx_power(std::span<std::byte> out, const std::string& ifname) override;
    int set_rrm_nbr_ap(const std::string& ifname, const libhubd::MacAddr& bssid,
                       const std::string& ssid, int channel, int bss_load_stations,
                       int bss_load_utilisation, std::uint8_t operating_class, int value,
                       int custom) override;
    int clear_rrm_nbr_ap_list(const std::string& ifname) override;
    bool get_obss_coex(const std::string& ifname) override;

  private:
    // One integer MIB; 0 when it cannot be read.
    int read_mib(const std::string& name, const std::string& ifname);
    int add_to_hostapd(const std::string& ifname, const libhubd::MacAddr& bssid,
                       const std::string& ssid, int channel, std::uint8_t operating_class);
};

#endif
