// driver_realtek: its making, plain accessors and fixed answers.
#include "driver_realtek.h"

#include <cstring>

#include "factorydata.h"
#include "krds.h"
#include "nl80211_backend.h"

namespace {

constexpr int bus_timeout = 20;  // seconds that an answer over the bus may take

template <std::size_t size>
void copy_text(char (&to)[size], const char* from) {
    const std::size_t length = strnlen(from, size - 1);
    std::memcpy(to, from, length);
    std::memset(to + length, 0, size - length);
}

}  // namespace

driver_interface& make_driver(volatile bool& run_flag) {
    static driver_realtek driver{run_flag};
    return driver;
}

driver_realtek::driver_realtek(volatile bool& process_run_flag)
    : driver_interface(ORVANTAMOD, bus_timeout, &process_run_flag),
      run_flag(process_run_flag),
      nl80211(make_nl80211_radios()) {
    factorydata_record record{};
    if (factorydata_load(&record) == 0) {
        copy_text(factory.board, record.board);
        copy_text(factory.mac, record.mac);
        copy_text(factory.hw, record.hw);
        copy_text(factory.serial, record.serial);
    }
    name_interfaces();
}

driver_realtek::~driver_realtek() = default;

const lumd_factory_t& driver_realtek::get_factory() const {
    return factory;
}

const char* driver_realtek::get_mac() const {
    return factory.mac;
}

void driver_realtek::set_hostapd_initialized(bool up) {
    hostapd_status = up;
}

bool driver_realtek::is_hostapd_initialized() const {
    return hostapd_status;
}

bool driver_realtek::is_guardd_sentry_mode() const {
    return guardd_sentry_status;
}

int driver_realtek::get_max_radios() const {
    return realtek_max_radios;
}

int driver_realtek::get_max_vap() const {
    return realtek_max_vaps;
}

void driver_realtek::init() {
    if (!hostapd_status)
        return;
    KRDS::for_each_radio([this](const std::string& ifname, const KRDS::RadioDescription&) {
        unblock_all_sta(ifname.c_str());
        return false;
    });
    stop(true);
    stop(false);
}
