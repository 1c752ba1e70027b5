// nl80211_ioctl_ops: neighbours of 802.11k, candidates and requests of 802.11v.
#include <algorithm>

#include "driver_io.h"
#include "lum_trace.h"
#include "nl80211_ioctl_ops.h"

namespace {

constexpr std::size_t most_candidates = 256;
// hostapd cuts its list at 4 KiB, and there is more of it when some are gone.
constexpr int removal_rounds = 16;

}  // namespace

int nl80211_ioctl_ops::set_rrm_nbr_ap(const std::string& ifname, const libhubd::MacAddr& bssid,
                                      const std::string& ssid, int channel, int, int,
                                      std::uint8_t operating_class, int value, int custom) {
    if (!driver_io::accepts(ifname, __func__, __LINE__))
        return -1;
    const std::optional<interface_record> own = find_interface(ifname);
    if (!own)
        return -1;
    if (libhubd::MacAddr{own->mac} == bssid) {
        trace.debug("<%s:%d> %s is its own neighbour already\n", __func__, __LINE__,
                    ifname.c_str());
        return 0;
    }
    const hostapd_neighbour neighbour{
        bssid, channel, hostapd_texts::operating_class_of(operating_class, channel), value};
    if (custom == 0)
        return radios_.tell_hostapd(ifname, hostapd_texts::set_neighbour(neighbour, ssid)) ? 0 : -1;
    std::vector<hostapd_neighbour>& candidates = radios_.candidates[ifname];
    std::erase_if(candidates, [&](const hostapd_neighbour& other) { return other.bssid == bssid; });
    if (candidates.size() == most_candidates) {
        trace.error("<%s:%d> %s: more than %zu candidates\n", __func__, __LINE__, ifname.c_str(),
                    most_candidates);
        return -1;
    }
    candidates.push_back(neighbour);
    return 0;
}

int nl80211_ioctl_ops::clear_vexor_nbr_ap_list(const std::string& ifname) {
    radios_.candidates.erase(ifname);
    return 0;
}

int nl80211_ioctl_ops::clear_rrm_nbr_ap_list(const std::string& ifname) {
    if (!driver_io::accepts(ifname, __func__, __LINE__))
        return -1;
    const std::optional<interface_record> own = find_interface(ifname);
    if (!own)
        return -1;
    for (int round = 0; round < removal_rounds; ++round) {
        const std::optional<std::string> list = radios_.ask_hostapd(ifname, "SHOW_NEIGHBOR");
        if (!list)
            return -1;
        std::vector<libhubd::MacAddr> others = hostapd_texts::neighbours(*list);
        std::erase(others, libhubd::MacAddr{own->mac});
        if (others.empty())
            return 0;
        for (const libhubd::MacAddr& bssid : others)
            if (!radios_.tell_hostapd(ifname, hostapd_texts::remove_neighbour(bssid)))
                return -1;
    }
    trace.error("<%s:%d> %s: hostapd keeps neighbours\n", __func__, __LINE__, ifname.c_str());
    return -1;
}

int nl80211_ioctl_ops::send_bsstrans_request(const std::string& ifname, const char* mac, int) {
    const libhubd::MacAddr station = libhubd::MacAddr::from_str(mac);
    if (!station.is_valid()) {
        trace.error("Error: Could not read sta_mac at iface %s\n", ifname.c_str());
        return -1;
    }
    if (!driver_io::accepts(ifname, __func__, __LINE__))
        return -1;
    const auto kept = radios_.candidates.find(ifname);
    std::size_t left_out = 0;
    const std::string request = hostapd_texts::transition_request(
        station, kept == radios_.candidates.end() ? std::vector<hostapd_neighbour>{} : kept->second,
        left_out);
    if (left_out > 0)
        trace.warn("<%s:%d> %s: %zu candidates find no place in a request\n", __func__, __LINE__,
                   ifname.c_str(), left_out);
    const std::optional<std::string> answer = radios_.ask_hostapd(ifname, request);
    // hostapd tells the number of the request's dialogue, or what it minds.
    if (!answer || answer->starts_with("FAIL") || answer->starts_with("UNKNOWN")) {
        trace.error("Error: %s not found on %s\n", mac == nullptr ? "" : mac, ifname.c_str());
        return -1;
    }
    radios_.note_roam_attempt(ifname, station.str());
    return 0;
}

int nl80211_ioctl_ops::set_vexor_roam_attempt_timeout(const std::string& ifname, int timeout) {
    return set_mib("roam_attempt_timeout", std::to_string(timeout), ifname);
}
