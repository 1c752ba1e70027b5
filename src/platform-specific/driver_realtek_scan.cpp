// driver_realtek: scans of the RF environment.
#include <algorithm>

#include "driver_realtek.h"
#include "krds.h"
#include "lum_trace.h"

namespace {

// Scan times in seconds.
constexpr int rrm_scan_time = 6;
constexpr int full_scan_time_2g = 10;
constexpr int full_scan_time_5g = 15;
constexpr std::size_t tenths_per_channel = 7;

int list_scan_time(std::size_t channels) {
    return static_cast<int>(channels * tenths_per_channel / 10) + 1;
}

const char* scan_name(bool active) {
    return active ? "active" : "RRM";
}

}  // namespace

bool driver_realtek::is_in_progress() const {
    return in_progress;
}

bool driver_realtek::may_scan(int radio) const {
    return is_enabled(radio) && !is_wds_enabled(radio) && !is_wids_enabled(radio);
}

int driver_realtek::start(bool active, const std::set<unsigned>& channels_2,
                          const std::set<unsigned>& channels_5, int& duration) {
    trace.info("Attempt to start %s scanning...\n", scan_name(active));
    if (!live() || in_progress)
        return 0;
    KRDS::for_each_radio([&](const std::string& ifname, const KRDS::RadioDescription& radio) {
        lock_scan_scand(ifname.c_str());
        const KRDS::Band band = radio.band();
        if (band != KRDS::Band::BAND_24G && band != KRDS::Band::BAND_5G)
            return false;
        const std::set<unsigned>& channels = band == KRDS::Band::BAND_24G ? channels_2 : channels_5;
        if (active)
            start_active_scan(ifname.c_str(), channels, duration);
        else
            start_rrm_scan(ifname.c_str(), channels, duration);
        return false;
    });
    in_progress = true;
    return 0;
}

int driver_realtek::stop(bool active) {
    trace.info("Attempt to stop %s scanning...\n", scan_name(active));
    if (!hostapd_status || !in_progress)
        return 0;
    KRDS::for_each_radio([&](const std::string& ifname, const KRDS::RadioDescription&) {
        if (active)
            stop_active_scan(ifname.c_str());
        else
            stop_rrm_scan(ifname.c_str());
        unlock_scan_scand(ifname.c_str());
        return false;
    });
    in_progress = false;
    return 0;
}

int driver_realtek::parse_radio_id(const char* ifname, const char* func, int line) const {
    const int radio = get_radio_id(ifname);
    if (radio < 0)
        trace.error("<%s:%d> cannot parse ifname(ifname == %s)\n", func, line, ifname);
    return radio;
}

int driver_realtek::start_active_scan(const char* ifname, const std::set<unsigned>& channels,
                                      int& duration) const {
    const int radio = parse_radio_id(ifname, __func__, __LINE__);
    if (radio < 0)
        return -1;
    if (!may_scan(radio))
        return 0;
    const std::unique_ptr<ioctl_ops> ops = make_ops(ifname);
    ops->stop_scan();
    int needed = list_scan_time(channels.size());
    if (channels.empty())
        needed =
            chanspec_band(get_chanspec(ifname)) == BAND_5G ? full_scan_time_5g : full_scan_time_2g;
    duration = std::max(duration, needed);
    return ops->start_scan(channels) != 0 ? -1 : 0;
}

int driver_realtek::stop_active_scan(const char* ifname) const {
    const int radio = parse_radio_id(ifname, __func__, __LINE__);
    if (radio < 0)
        return -1;
    if (is_enabled(radio))
        make_ops(ifname)->stop_scan();
    return 0;
}

int driver_realtek::start_rrm_scan(const char* ifname, const std::set<unsigned>& channels,
                                   int& duration) const {
    const int radio = parse_radio_id(ifname, __func__, __LINE__);
    if (radio < 0)
        return -1;
    if (!may_scan(radio))
        return 0;
    const std::unique_ptr<ioctl_ops> ops = make_ops(ifname);
    ops->stop_rrm_scan(ifname);
    duration = std::max(duration, rrm_scan_time);
    if (channels.empty()) {
        trace.error("<%s:%d> no channel to measure(ifname == %s)\n", __func__, __LINE__, ifname);
        return -1;
    }
    // One measurement per radio and scan.
    return ops->start_rrm_scan(*channels.begin(), ifname) != 0 ? -1 : 0;
}

int driver_realtek::stop_rrm_scan(const char* ifname) const {
    const int radio = parse_radio_id(ifname, __func__, __LINE__);
    if (radio < 0)
        return -1;
    if (is_enabled(radio))
        make_ops(ifname)->stop_rrm_scan(ifname);
    return 0;
}

int driver_realtek::fill_ap_table(ap_table& table) const {
    trace.info("Attempt to fill a scanning result table...\n");
    table.clear();
    int result = 0;
    KRDS::for_each_radio([&](const std::string& ifname, const KRDS::RadioDescription&) {
        result = _fill_ap_table(ifname.c_str(), table) != 0 ? -1 : 0;
        return result != 0;
    });
    return result;
}

int driver_realtek::fill_ap_table_vexor_rrm(ap_table& table) const {
    trace.info("Attempt to fill a rrm scanning result table...\n");
    table.clear();
    int result = 0;
    KRDS::for_each_radio([&](const std::string& ifname, const KRDS::RadioDescription&) {
        result = _fill_ap_table_vexor_rrm(ifname.c_str(), table) != 0 ? -1 : 0;
        return result != 0;
    });
    return result;
}

int driver_realtek::_fill_ap_table(const char* ifname, ap_table& table) const {
    return may_scan(get_radio_id(ifname)) ? make_ops(ifname)->get_scan_result(table) : 0;
}

int driver_realtek::_fill_ap_table_vexor_rrm(const char* ifname, ap_table& table) const {
    return may_scan(get_radio_id(ifname)) ? make_ops(ifname)->get_rrm_scan_result(table) : 0;
}
