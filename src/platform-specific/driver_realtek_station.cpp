// driver_realtek: back-ends, associated stations and the state of interfaces.
#include <sys/select.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>

#include "driver_io.h"
#include "driver_realtek.h"
#include "ioctl_ops_factory.h"
#include "krds.h"
#include "lum_trace.h"
#include "nl80211_backend.h"
#include "rrm_sta_realtek.h"

namespace {

constexpr int default_tx_power = 16;       // dBm
constexpr long event_wait_us = 100000;     // paces the caller's loop
constexpr std::uint32_t interface_up = 1;  // IFF_UP of netdevice(7)

// Flags of sysfs, hexadecimal; -1 for anything else.
std::int32_t parse_flags(const std::string& line) {
    char* end = nullptr;
    const unsigned long long value = std::strtoull(line.c_str(), &end, 16);
    if (end == line.c_str() || value > UINT32_MAX)
        return -1;
    return static_cast<std::int32_t>(value);
}

// The name's radio is enabled, which also means that hostapd is up and the process not stopping.
bool is_usable(const driver_realtek& driver, const char* ifname) {
    return ifname != nullptr && driver.is_enabled(driver.get_radio_id(ifname));
}

bool has_nl80211_radio() {
    bool found = false;
    KRDS::for_each_radio([&found](const std::string&, const KRDS::RadioDescription& radio) {
        found = radio.driver == KRDS::Driver::NL80211;
        return found;
    });
    return found;
}

template <typename Visit>
void for_each_enabled_vap(const driver_realtek& driver, const char* ifname, const Visit& visit) {
    if (!is_usable(driver, ifname))
        return;
    const interface_context* const radio = driver.radio_by_ifname(ifname);
    if (radio == nullptr)
        return;
    for (int vap = 0; vap < realtek_max_vaps; ++vap)
        if (driver.is_vap_enabled(driver.get_radio_id(ifname), vap))
            visit(radio->vap[static_cast<std::size_t>(vap)]);
}

}  // namespace

ioctl_ops_type driver_realtek::get_ioctl_type(const char* ifname) const {
    const std::string name{ifname == nullptr ? "" : ifname};
    const std::optional<KRDS::RadioDescription> radio =
        KRDS::find_radio(name.substr(0, name.find('-')));
    switch (radio ? radio->driver : KRDS::Driver::RTL8192CD) {
        case KRDS::Driver::G6:
            return G6;
        case KRDS::Driver::NL80211:
            return NL80211;
        default:
            return RTL8192CD;
    }
}

std::unique_ptr<ioctl_ops> driver_realtek::make_ops(const char* ifname) const {
    return ioctl_ops_factory::get(get_ioctl_type(ifname), *this, ifname);
}

// --- stations ---

int driver_realtek::get_assoclist(const char* ifname, const assoclist_callback& callback) const {
    for_each_enabled_vap(*this, ifname, [&](const vap_context& vap) {
        std::vector<rrm_sta_realtek> stations;
        make_ops(vap.ifname.c_str())->get_assoc_sta(stations);
        for (rrm_sta_realtek& station : stations) {
            station.ssid = vap.ssid;
            station.ifname = vap.ifname;
            station.is_enterprise = vap.enterprise_vap;
            callback(station);
        }
    });
    return 0;
}

int driver_realtek::send_bsstrans_request(const char* ifname, const char* mac, int value) const {
    if (is_usable(*this, ifname))
        make_ops(ifname)->send_bsstrans_request(ifname, mac, value);
    return 0;
}

int driver_realtek::set_vexor_roam_attempt_timeout(const char* ifname, int roam_timeout) const {
    for_each_enabled_vap(*this, ifname, [&](const vap_context& vap) {
        make_ops(vap.ifname.c_str())->set_vexor_roam_attempt_timeout(vap.ifname, roam_timeout);
    });
    return 0;
}

// --- interfaces ---

int driver_realtek::get_tx_power(const char* ifname) const {
    std::int32_t power = default_tx_power;
    if (live() && ifname != nullptr)
        make_ops(ifname)->get_actual_tx_power(std::as_writable_bytes(std::span{&power, 1}), ifname);
    return power;
}

int driver_realtek::get_obss_coex(const char* ifname) const {
    return ifname != nullptr && make_ops(ifname)->get_obss_coex(ifname) ? 1 : 0;
}

bool driver_realtek::get_status(const char* ifname) const {
    return live() && ifname != nullptr && interface_is_up(ifname);
}

bool driver_realtek::interface_is_up(const std::string& ifname) const {
    if (!driver_io::accepts(ifname, __func__, __LINE__))
        return false;
    const std::string path = "/sys/class/net/" + ifname + "/flags";
    std::ifstream file{path};
    if (!file) {
        trace.error("<%s:%d> cannot open entry from sysfs(%s)\n", __func__, __LINE__, path.c_str());
        return false;
    }
    std::string line;
    if (!std::getline(file, line)) {
        trace.error("<%s:%d> cannot read entry from sysfs(%s)\n", __func__, __LINE__, path.c_str());
        return false;
    }
    const std::int32_t flags = parse_flags(line);
    const auto bits = static_cast<std::uint32_t>(flags);
    trace.debug("<%s:%d> /sys/class/net/%s/flags == 0x%0x\n", __func__, __LINE__, ifname.c_str(),
                bits);
    return flags != -1 && (bits & interface_up) != 0;
}

int driver_realtek::process_driver_events(const driver_event_callback& callback) const {
    // The chip families' drivers deliver none.
    if (has_nl80211_radio())
        return process_nl80211_events(*this, nl80211.get(), event_wait_us, callback);
    timeval pace{0, event_wait_us};
    return select(0, nullptr, nullptr, nullptr, &pace);
}
