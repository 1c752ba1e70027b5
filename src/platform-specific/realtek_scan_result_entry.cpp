#include "realtek_scan_result_entry.h"

#include <algorithm>

#include "driver_realtek.h"

namespace {

constexpr std::int32_t tx_power_units_per_db = 4;

}  // namespace

scan_result_entry::scan_result_entry(const driver_realtek& drv, const ap_info_s& entry,
                                     scan_kind kind) {
    std::copy(std::begin(entry.bssid), std::end(entry.bssid), bssid.begin());
    signal = entry.signal;
    primary_channel = static_cast<std::int32_t>(entry.chanspec & LWLIO_CHANSPEC_CTL_SB_MASK);
    if (kind == SCAN_RRM) {
        channel = drv.chanspec_channel(entry.chanspec);
        bw = drv.chanspec_bw(entry.chanspec);
        tx_power = entry.tx_power / tx_power_units_per_db;
    } else {
        channel = entry.channel;
        bw = entry.bw;
    }
}
