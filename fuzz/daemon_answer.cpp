// What the sibling daemons answer to the driver's requests: a byte for the request, then answers,
// the last of which is given to every further question.
#include <array>
#include <deque>
#include <stdexcept>

#include "input.h"
#include "live_driver.h"
#include "quiet.h"
#include "stub_bus.h"

namespace {

constexpr const char* radio = "wlan0";
constexpr const char* vap = "wlan1-va0";

void ask_radios(driver_realtek& driver) {
    driver.close_vapcontext();
    driver.set_vapcontext();
    fuzz::live_driver();
}

void ask_channels(driver_realtek& driver) {
    std::string text;
    driver.fill_chanspecs(radio, text);
    std::set<int> channels;
    try {
        driver.fill_limit_channels(radio, channels);
    } catch (const std::invalid_argument&) {  // as its header says
    } catch (const std::out_of_range&) {
    }
}

void ask_vap(driver_realtek& driver) {
    fuzz::require(driver.get_ssid(vap).size() <= 129);
    driver.get_enterprise_vap(vap);
    driver.is_wpa23_vap(vap);
    driver.is_fbt_enabled(1, 0);
    driver.ipc_helper::is_fbt_enabled(1, 0);
    driver.ipc_helper::get_ssid(vap);
}

void ask_limits(driver_realtek& driver) {
    int least = 0;
    int most = 0;
    driver.get_min_max_tx_power(radio, &least, &most, BAND_2G);
    driver.get_min_max_eirp(radio, &least, &most);
    driver.get_config_bandwidth(radio);
    driver.get_config_primary(radio);
    driver.get_country(radio);
    driver.get_antenna_description(radio);
}

void ask_wids(driver_realtek& driver) {
    driver.get_config_wids();
    driver.get_config_wids_interface();
}

void push(driver_realtek& driver) {
    driver.set_chanspec(radio, 11, 40, PRIMARY_CHANNEL_UPPER);
    driver.set_wisd_bw_list(R"({"Name":"list-7"})");
    driver.reset_orvanta(UNKNOWN);
    driver.reset_orvanta_fbt(UNKNOWN);
}

void push_fast_transition(driver_realtek& driver) {
    driver.start_orvanta_fbt_params();
    driver.set_orvanta_fbt_params(vap, R"({"ft-config":{"enabled":"true"}})");
    driver.finish_orvanta_fbt_params();
}

constexpr std::array requests = {ask_radios, ask_channels,        ask_vap, ask_limits, ask_wids,
                                 push,       push_fast_transition};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static driver_realtek& driver = fuzz::live_driver();
    fuzz::log_everything();
    fuzz::Reader input{fuzz::as_text(data, size)};
    const unsigned request = input.byte();
    const std::vector<std::string> answers = fuzz::records(input.rest());
    std::size_t next = 0;
    stub_bus::serve([&](std::string_view) {
        return std::optional{answers[std::min(next++, answers.size() - 1)]};
    });
    requests[request % requests.size()](driver);
    stub_bus::serve(stub_bus::agreeable);
    return 0;
}
