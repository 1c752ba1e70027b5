#include "rrm_sta_realtek.h"

#include <algorithm>
#include <cstdio>

namespace {

// The kernel reports dBm + 100. Wraps for a figure that is no signal at all.
std::int32_t to_dbm(std::int32_t reported) {
    constexpr std::uint32_t offset = 100;
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(reported) - offset);
}

}  // namespace

rrm_sta_realtek::rrm_sta_realtek(const sta_info_s& entry) {
    char text[32];
    const auto& m = entry.mac;
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4],
                  m[5]);
    mac = text;
    std::transform(std::begin(entry.rssi), std::end(entry.rssi), rssi.begin(), to_dbm);
    max_rssi = *std::max_element(rssi.begin(), rssi.end());
    roam_attempt = entry.roam_attempt != 0;
    is_no_balance = entry.is_no_balance != 0;
}
