// What the kernel answers to the driver's commands, for both chip families: a byte for the
// question, a byte for the result (0: the call succeeds), the length that a MIB claims, then the
// buffer.
#include <algorithm>
#include <array>
#include <functional>

#include "access_point.h"
#include "input.h"
#include "live_driver.h"
#include "lum_trace.h"
#include "platform-specific/ioctl_ops_factory.h"
#include "platform-specific/rrm_sta_realtek.h"

namespace {

constexpr int all_but_debug = 7;  // a line for each of thousands of entries is only slow

void ask_mib(const driver_realtek& driver, const char* ifname) {
    const auto ops = ioctl_ops_factory::get(driver.get_ioctl_type(ifname), driver, ifname);
    for (const std::size_t size : {0U, 1U, 4U, 3000U}) {
        std::vector<std::byte> out(size);
        ops->get_mib("chanspec", out, ifname);
        ops->get_actual_tx_power(out, ifname);
    }
}

void ask_available_channels(const driver_realtek& driver, const char* ifname) {
    std::string channels;
    driver.fill_chanspecs(ifname, channels);
}

void ask_stations(const driver_realtek& driver, const char* ifname) {
    driver.get_assoclist(ifname, [](const rrm_sta_s& station) {
        fuzz::require(station.mac.size() == sizeof "00:00:00:00:00:00" - 1);
    });
}

void ask_scan(const driver_realtek& driver, const char*) {
    ap_table table;
    driver.fill_ap_table(table);
}

void ask_rrm_scan(const driver_realtek& driver, const char*) {
    ap_table table;
    driver.fill_ap_table_vexor_rrm(table);
}

void ask_chanspec(const driver_realtek& driver, const char* ifname) {
    const unsigned chanspec = driver.get_chanspec(ifname);
    driver.chanspec_channel(chanspec);
    driver.chanspec_primary(chanspec);
    driver.chanspec_band(chanspec);
}

void ask_tx_power(const driver_realtek& driver, const char* ifname) {
    driver.get_tx_power(ifname);
}

void ask_events(const driver_realtek& driver, const char*) {
    driver.process_driver_events([](const driver_event_desc&) {});
}

constexpr std::array questions = {ask_scan, ask_rrm_scan, ask_stations, ask_available_channels,
                                  ask_mib,  ask_chanspec, ask_tx_power, ask_events};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static driver_realtek& driver = fuzz::live_driver();
    trace.set_log_level(all_but_debug);
    fuzz::Reader input{fuzz::as_text(data, size)};
    const unsigned question = input.byte();
    const int error = input.byte();
    const std::uint16_t claimed_length = input.word();
    AccessPoint::instance().answer(input.rest(), claimed_length, -error);
    questions[(question >> 1) % questions.size()](driver, (question & 1) == 0 ? "wlan0" : "wlan1");
    AccessPoint::instance().reset();
    return 0;
}
