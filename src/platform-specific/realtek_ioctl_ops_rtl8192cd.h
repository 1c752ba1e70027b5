// rtl8192cd_ioctl_ops: the back-end of the rtl8192cd chip family. MIBs go by ioctl, neighbour
// lists through the interface's own procfs folder.
#ifndef LUMD_REALTEK_IOCTL_OPS_RTL8192CD_H
#define LUMD_REALTEK_IOCTL_OPS_RTL8192CD_H

#include "realtek_ioctl_ops.h"

class rtl8192cd_ioctl_ops : public realtek_ioctl_ops {
  public:
    rtl8192cd_ioctl_ops(const driver_realtek& owner, const std::string& ifname);

    int clear_vexor_nbr_ap_list(const std::string& ifname) override;
    // On the back-end's own interface, whatever `ifname` says.
    int set_mib(const std::string& name, const std::string& value,
                const std::string& ifname) override;
    int get_mib(const std::string& name, std::span<std::byte> out,
                const std::string& ifname) override;
    int get_actual_tx_power(std::span<std::byte> out, const std::string& ifname) override;
    int set_rrm_nbr_ap(const std::string& ifname, const libhubd::MacAddr& bssid,
                       const std::string& ssid, int channel, int bss_load_stations,
                       int bss_load_utilisation, std::uint8_t operating_class, int value,
                       int custom) override;
    int clear_rrm_nbr_ap_list(const std::string& ifname) override;
    bool get_obss_coex(const std::string& ifname) override;
};

#endif
