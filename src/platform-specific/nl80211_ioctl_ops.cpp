#include "nl80211_ioctl_ops.h"

#include <linux/nl80211.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "krds.h"
#include "lum_trace.h"
#include "rrm_sta_realtek.h"
#include "text.h"

namespace {

constexpr std::int32_t signal_offset = 100;  // of a station record's dBm

std::string radio_of(const std::string& ifname) {
    return ifname.substr(0, ifname.find('-'));
}

// The record that the chip families' kernels tell, in which a chain that is none reads 0.
sta_info_s to_record(const station_record& station, bool roam_attempt, bool supports_transition) {
    sta_info_s record{};
    std::copy(station.mac.begin(), station.mac.end(), record.mac);
    const std::size_t chains = std::min(station.signals.size(), std::size(record.rssi));
    std::transform(station.signals.begin(),
                   station.signals.begin() + static_cast<std::ptrdiff_t>(chains), record.rssi,
                   [](int signal) { return signal + signal_offset; });
    record.roam_attempt = roam_attempt ? 1 : 0;
    record.is_no_balance = supports_transition ? 0 : 1;
    return record;
}

}  // namespace

nl80211_ioctl_ops::nl80211_ioctl_ops(const std::string& ifname, nl80211_radios& radios)
    : ifname_(ifname), radios_(radios) {}

// --- interfaces ---

std::optional<interface_record> nl80211_ioctl_ops::find_interface(const std::string& ifname) {
    std::vector<interface_record> all;
    const int result = radios_.interfaces(all);
    if (result != 0) {
        trace.error("<%s:%d> %s: cannot read the interfaces: %s\n", __func__, __LINE__,
                    ifname.c_str(), std::strerror(-result));
        return std::nullopt;
    }
    const auto found = std::find_if(all.begin(), all.end(), [&](const interface_record& entry) {
        return entry.name == ifname;
    });
    if (found != all.end())
        return *found;
    trace.error("<%s:%d> %s: no such wireless interface\n", __func__, __LINE__, ifname.c_str());
    return std::nullopt;
}

std::optional<interface_record> nl80211_ioctl_ops::access_point_of(const std::string& ifname) {
    std::optional<interface_record> own = find_interface(ifname);
    if (!own || own->is_ap)
        return own;
    std::vector<interface_record> all;
    radios_.interfaces(all);
    std::sort(all.begin(), all.end(),
              [](const interface_record& a, const interface_record& b) { return a.name < b.name; });
    for (const interface_record& entry : all)
        if (entry.wiphy == own->wiphy && entry.is_ap && entry.frequency != 0)
            return entry;
    return own;
}

rrm_band_t nl80211_ioctl_ops::band() const {
    const std::optional<KRDS::RadioDescription> radio = KRDS::find_radio(radio_of(ifname_));
    switch (radio ? radio->band() : KRDS::Band::UNSUPPORTED) {
        case KRDS::Band::BAND_24G:
            return BAND_2G;
        case KRDS::Band::BAND_5G:
            return BAND_5G;
        case KRDS::Band::BAND_6G:
            return BAND_6G;
        default:
            return BAND_NONE;
    }
}

// --- MIBs ---

std::optional<std::int32_t> nl80211_ioctl_ops::mib_value(const std::string& name,
                                                         const std::string& ifname, int& error) {
    if (name == "rrm_scan_chan") {
        const auto measured = radios_.measured.find(radio_of(ifname));
        return measured == radios_.measured.end() ? 0 : static_cast<std::int32_t>(measured->second);
    }
    if (name == "roam_attempt_timeout")
        return radios_.roam_timeout(ifname);
    const bool channel = name == "chanspec";
    if (!channel && name != "actual_tx_power" && name != "power_target") {
        error = EOPNOTSUPP;
        return std::nullopt;
    }
    const std::optional<interface_record> access_point = access_point_of(ifname);
    error = ENODEV;
    if (!access_point || (channel && access_point->frequency == 0))
        return std::nullopt;
    return channel ? static_cast<std::int32_t>(access_point->channel.chanspec())
                   : access_point->tx_power;
}

int nl80211_ioctl_ops::get_mib(const std::string& name, std::span<std::byte> out,
                               const std::string& ifname) {
    int error = 0;
    const std::optional<std::int32_t> value = mib_value(name, ifname, error);
    if (!value) {
        trace.error("<%s:%d> cannot get MIB parametr '%s'(errno = (%d)%s)(rc == %d)\n", __func__,
                    __LINE__, name.c_str(), error, std::strerror(error), -1);
        return -1;
    }
    const auto bytes = std::as_bytes(std::span{&*value, 1});
    std::copy_n(bytes.begin(), std::min(bytes.size(), out.size()), out.begin());
    return 0;
}

int nl80211_ioctl_ops::set_mib(const std::string& name, const std::string& value,
                               const std::string& ifname) {
    if (name == "roam_attempt_timeout") {
        radios_.set_roam_timeout(ifname, to_int(value.c_str()));
        return 0;
    }
    trace.error("<%s:%d> cannot set MIB parametr '%s=%s'(errno = %s)()\n", __func__, __LINE__,
                name.c_str(), value.c_str(), std::strerror(EOPNOTSUPP));
    return -1;
}

int nl80211_ioctl_ops::get_actual_tx_power(std::span<std::byte> out, const std::string& ifname) {
    return get_mib("actual_tx_power", out, ifname);
}

bool nl80211_ioctl_ops::get_obss_coex(const std::string&) {
    return false;
}

// --- stations ---

int nl80211_ioctl_ops::get_assoc_sta(std::vector<rrm_sta_realtek>& stations) {
    const std::optional<interface_record> own = find_interface(ifname_);
    if (!own)
        return -1;
    nl_request request{NL80211_CMD_GET_STATION, nl_request::dump};
    request.put_u32(NL80211_ATTR_IFINDEX, own->index);
    std::vector<station_record> records;
    if (const int result = radios_.dump(request, records); result != 0) {
        trace.error("<%s:%d> %s: cannot read the stations: %s\n", __func__, __LINE__,
                    ifname_.c_str(), std::strerror(-result));
        return -1;
    }
    if (records.empty())
        trace.info("<%s:%d> associated clients are absent\n", __func__, __LINE__);
    stations.reserve(stations.size() + records.size());
    for (const station_record& record : records) {
        const std::string mac = libhubd::MacAddr{record.mac}.str();
        trace.debug("mac == %s\n", mac.c_str());
        const std::optional<std::string> answer = radios_.ask_hostapd(ifname_, "STA " + mac);
        rrm_sta_realtek& station =
            stations.emplace_back(to_record(record, radios_.was_asked_to_roam(ifname_, mac),
                                            answer && hostapd_texts::supports_transition(*answer)));
        station.tx_rate = record.tx_rate;
        station.rx_rate = record.rx_rate;
    }
    return 0;
}
