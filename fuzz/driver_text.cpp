// Texts that the driver reads: a byte for which of them, then the text. Of iwpriv's output; of the
// entries mib_11n, coex_2g_40m and the interface's flags.
#include "access_point.h"
#include "file.h"
#include "input.h"
#include "live_driver.h"
#include "quiet.h"

namespace {

struct Entries {
    fuzz::File mib_11n{AccessPoint::instance().folder() + "/proc/wlan0/mib_11n"};
    fuzz::File coex{AccessPoint::instance().folder() + "/proc/net/rtk_wifi6/wlan1/coex_2g_40m"};
    fuzz::File flags{AccessPoint::instance().folder() + "/sys/class/net/wlan0-va0/flags"};
};

void ask_tool(const driver_realtek& driver, std::string_view output) {
    AccessPoint::instance().print(output);
    driver.get_chanspec("wlan1");
    driver.get_tx_power("wlan1");
    AccessPoint::instance().reset();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static driver_realtek& driver = fuzz::live_driver();
    static const Entries entries;
    fuzz::log_everything();
    fuzz::Reader input{fuzz::as_text(data, size)};
    switch (input.byte() % 4) {
        case 0:
            ask_tool(driver, input.rest());
            break;
        case 1:
            entries.mib_11n.set(input.rest());
            driver.get_obss_coex("wlan0");
            break;
        case 2:
            entries.coex.set(input.rest());
            driver.get_obss_coex("wlan1");
            break;
        default:
            entries.flags.set(input.rest());
            driver.interface_is_up("wlan0-va0");
            break;
    }
    return 0;
}
