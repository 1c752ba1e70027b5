// driver_realtek: 802.11k neighbours and the driver's own candidate list.
#include "driver_realtek.h"
#include "lum_trace.h"

namespace {

// Fixed figures of every neighbour that the service names.
constexpr int bss_load_stations = 0;
constexpr int bss_load_utilisation = 0;
constexpr std::uint8_t operating_class = 255;

}  // namespace

int driver_realtek::set_rrm_nbr_ap_list(const char* bssid, const char* ssid, int channel, int value,
                                        int custom) const {
    const libhubd::MacAddr address = libhubd::MacAddr::from_str(bssid);
    if (!live() || bssid == nullptr || ssid == nullptr || !address.is_valid())
        return 0;
    const auto band = static_cast<rrm_band_t>(channel_band(channel));
    for (int radio = 0; radio < get_max_radios(); ++radio) {
        if (!is_band(radio, band) || !is_802dot11k(radio, SsidToVapId(ssid, radio)))
            continue;
        const char* const ifname = SsidToVap(ssid, radio);
        if (ifname == nullptr)
            continue;
        trace.debug("Execute rrm_nbr_add_nbr '%s' - '%s' - '%s'\n", ifname, ssid, bssid);
        make_ops(ifname)->set_rrm_nbr_ap(ifname, address, ssid, channel, bss_load_stations,
                                         bss_load_utilisation, operating_class, value, custom);
    }
    return 0;
}

int driver_realtek::clear_vexor_nbr_ap_list(const char* ifname) const {
    if (hostapd_status && ifname != nullptr) {
        trace.debug("Execute vexor_rrm_nbr_del_nbr '%s'\n", ifname);
        make_ops(ifname)->clear_vexor_nbr_ap_list(ifname);
    }
    return 0;
}

int driver_realtek::clear_rrm_nbr_ap_list(const char* ifname) const {
    if (hostapd_status && ifname != nullptr) {
        trace.debug("Execute rrm_nbr_del_nbr '%s'\n", ifname);
        make_ops(ifname)->clear_rrm_nbr_ap_list(ifname);
    }
    return 0;
}
