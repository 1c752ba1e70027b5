// driver_realtek: radios and VAPs as last read, and the questions that this answers.
#include <dirent.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "driver_realtek.h"
#include "json_writer.h"
#include "lum_trace.h"
#include "text.h"

namespace {

constexpr int macs_per_radio = 8;  // one for the radio itself, then one per VAP

struct vap_numbers {
    int radio;
    int vap;
};

// Takes `word` from the front of `text`.
bool take_word(const char*& text, const char* word) {
    const std::size_t length = std::strlen(word);
    if (std::strncmp(text, word, length) != 0)
        return false;
    text += length;
    return true;
}

// Takes a number as scanf(3) "%d" does; one beyond int's range does not match.
bool take_number(const char*& text, int& number) {
    char* end = nullptr;
    const long long value = std::strtoll(text, &end, 10);
    if (end == text || !std::in_range<int>(value))
        return false;
    text = end;
    number = static_cast<int>(value);
    return true;
}

// "wlan%d" at the beginning of the name.
std::optional<int> read_radio_number(const char* ifname) {
    int radio = 0;
    if (!take_word(ifname, "wlan") || !take_number(ifname, radio))
        return std::nullopt;
    return radio;
}

// "wlan%d-va%d" at the beginning of the name.
std::optional<vap_numbers> read_vap_numbers(const char* ifname) {
    vap_numbers numbers{};
    if (!take_word(ifname, "wlan") || !take_number(ifname, numbers.radio) ||
        !take_word(ifname, "-va") || !take_number(ifname, numbers.vap))
        return std::nullopt;
    return numbers;
}

// MAC of a VAP: the last byte counts from the base address on and wraps without a carry.
std::string vap_mac(const char* ifname, const char* base_mac) {
    const std::optional<vap_numbers> numbers = read_vap_numbers(ifname);
    if (!numbers)
        return {};
    libhubd::MacAddr::bytes_type bytes = libhubd::MacAddr::from_str(base_mac).bytes();
    bytes.back() = static_cast<std::uint8_t>(bytes.back() + 1 + numbers->vap +
                                             macs_per_radio * numbers->radio);
    return libhubd::MacAddr{bytes}.str();
}

// The entry of that number; null, with an error line under the caller's name, when there is none.
template <typename Entry, std::size_t size>
const Entry* entry_at(const std::array<Entry, size>& array, int number, const char* what,
                      const char* function, int line) {
    try {
        return &array.at(static_cast<std::size_t>(number));
    } catch (const std::out_of_range& error) {
        trace.error("<%s:%d> %s %d are absence: %s\n", function, line, what, number, error.what());
        return nullptr;
    }
}

bool is_if_exists(const std::string& ifname) {
    struct dir_closer {
        void operator()(DIR* dir) const { closedir(dir); }
    };
    const std::unique_ptr<DIR, dir_closer> entry{opendir(("/sys/class/net/" + ifname).c_str())};
    if (entry)
        return true;
    trace.debug("<%s:%d> %s interface not exists\n", __func__, __LINE__, ifname.c_str());
    return false;
}

// Back to the figures of a radio that nothing was read about.
void forget_limits(interface_context& context) {
    context.tx_power_max = interface_context::default_tx_power_max;
    context.tx_power_min = interface_context::default_tx_power_min;
    context.eirp_max = interface_context::default_eirp_max;
    context.eirp_min = interface_context::default_eirp_min;
    context.antenna_config = {0, 0};
    context.config_spec = 0;
    context.band = BAND_NONE;
}

void forget_vap(vap_context& vap) {
    vap.ssid.clear();
    vap.cp_vap = false;
    vap.status = false;
    vap.enterprise_vap = false;
    vap.rrm_vap = false;
}

}  // namespace

const vap_context* interface_context::get_vap(int number) const {
    return entry_at(vap, number, "vap_id", __func__, __LINE__);
}

vap_context* interface_context::get_vap(int number) {
    return const_cast<vap_context*>(std::as_const(*this).get_vap(number));
}

std::string driver_realtek::vap_name(int radio, int vap) {
    return "wlan" + std::to_string(radio) + "-va" + std::to_string(vap);
}

void driver_realtek::name_interfaces() {
    for (int radio = 0; radio < realtek_max_radios; ++radio) {
        interface_context& context = interfaces[static_cast<std::size_t>(radio)];
        context.ifname = "wlan" + std::to_string(radio);
        context.mac_offset = radio * macs_per_radio;
        context.radio_mac_count = macs_per_radio;
        for (int vap = 0; vap < realtek_max_vaps; ++vap) {
            vap_context& vap_entry = context.vap[static_cast<std::size_t>(vap)];
            vap_entry.ifname = vap_name(radio, vap);
            vap_entry.mac = vap_mac(vap_entry.ifname.c_str(), factory.mac);
        }
    }
}

const interface_context* driver_realtek::get_radio(int radio) const {
    return entry_at(interfaces, radio, "radio_id", __func__, __LINE__);
}

interface_context* driver_realtek::get_radio(int radio) {
    return const_cast<interface_context*>(std::as_const(*this).get_radio(radio));
}

const interface_context* driver_realtek::radio_by_ifname(const std::string& ifname) const {
    const std::optional<int> radio = read_radio_number(ifname.c_str());
    return radio ? entry_at(interfaces, *radio, "radio_id", __func__, __LINE__) : nullptr;
}

interface_context* driver_realtek::radio_by_ifname(const std::string& ifname) {
    return const_cast<interface_context*>(std::as_const(*this).radio_by_ifname(ifname));
}

int driver_realtek::get_radio_id(const std::string& ifname) const {
    return read_radio_number(ifname.c_str()).value_or(-1);
}

bool driver_realtek::add_radio_id(const char* vap_ifname, json_writer* writer) const {
    if (vap_ifname == nullptr || writer == nullptr)
        return false;
    const std::optional<vap_numbers> numbers = read_vap_numbers(vap_ifname);
    if (!numbers)
        return false;
    writer->insert_int("radio", numbers->radio);
    return true;
}

int driver_realtek::fill_vap_name(int radio, int vap, char* buf, unsigned len) const {
    return std::snprintf(buf, buf != nullptr ? len : 0, "wlan%d-va%d", radio, vap);
}

int driver_realtek::get_band_from_ifname(const char* ifname) const {
    return chanspec_band(get_chanspec(ifname));
}

// ---- reading anew and forgetting

void driver_realtek::set_vapcontext() {
    if (!run_flag)
        return;
    trace.info("Attempt to initialize interface_context...\n");
    guardd_sentry_status = false;
    int wids_radio = -1;
    if (get_config_wids()) {
        wids_radio = get_config_wids_interface();
        guardd_sentry_status = wids_radio == get_max_radios();
    }
    for (int radio = 0; radio < get_max_radios(); ++radio)
        set_radio_context(radio, wids_radio);
}

void driver_realtek::set_radio_context(int radio, int wids_radio) {
    interface_context& context = *get_radio(radio);
    trace.info("Initializing %s radio...\n", context.ifname.c_str());
    context.status = get_status(context.ifname.c_str());
    if (!is_enabled(radio))
        return;
    context.wds_status = get_wds_enabled(context.ifname.c_str());
    // "No WIDS radio" never clears the flag: close_vapcontext() does.
    if (wids_radio >= 0 && (wids_radio == radio || wids_radio == get_max_radios()))
        context.wids_status = true;
    read_radio_settings(context);
    read_radio_limits(context);
    if (is_wids_enabled(radio) || !hostapd_status)
        return;
    for (int vap = 0; vap < get_max_vap(); ++vap)
        set_vap_context(radio, vap);
}

void driver_realtek::read_radio_settings(interface_context& context) const {
    const char* ifname = context.ifname.c_str();
    context.band = static_cast<rrm_band_t>(chanspec_band(get_chanspec(ifname)));
    context.country = get_country(ifname);
    context.coex_status = get_obss_coex(ifname) != 0;
    context.auto_channel = get_auto_channel(ifname);
    context.config_spec = get_config_bandwidth(ifname);
    // The 40 MHz bits as a mask hold for 20 MHz too, but not for 80 MHz.
    if ((context.config_spec & LWLIO_CHANSPEC_BW_40) != 0)
        context.config_spec |= get_config_primary(ifname);
}

void driver_realtek::read_radio_limits(interface_context& context) const {
    get_min_max_tx_power(context.ifname.c_str(), &context.tx_power_min, &context.tx_power_max,
                         context.band);
    get_min_max_eirp(context.ifname, &context.eirp_min, &context.eirp_max);
    if (const std::optional<antenna_config_t> antenna = get_antenna_description(context.ifname))
        context.antenna_config = *antenna;
}

void driver_realtek::set_vap_context(int radio, int vap) {
    vap_context& context = *get_radio(radio)->get_vap(vap);
    if (!is_if_exists(context.ifname))
        return;
    trace.info("Initializing %s vap...\n", context.ifname.c_str());
    context.status = get_vap_status(context.ifname);
    if (!is_vap_enabled(radio, vap) || !get_vap_enabled_state(context.ifname)) {
        context.status = false;
        return;
    }
    context.ssid = get_ssid(context.ifname);
    context.cp_vap = get_captive_portal_state(context.ifname);
    context.enterprise_vap = get_enterprise_vap(context.ifname);
    context.rrm_vap = get_802dot11k_vap(context.ifname);
}

void driver_realtek::close_vapcontext() {
    for (interface_context& context : interfaces) {
        context.status = false;
        context.wds_status = false;
        context.wids_status = false;
        context.coex_status = false;
        context.auto_channel = false;
        forget_limits(context);
        for (vap_context& vap : context.vap)
            forget_vap(vap);
    }
}

// ---- questions about radios

const interface_context* driver_realtek::live_radio(int radio) const {
    return live() ? get_radio(radio) : nullptr;
}

bool driver_realtek::is_enabled(int radio) const {
    const interface_context* context = live_radio(radio);
    return context != nullptr && context->status;
}

bool driver_realtek::is_wds_enabled(int radio) const {
    const interface_context* context = live_radio(radio);
    return context != nullptr && context->wds_status;
}

bool driver_realtek::is_wids_enabled(int radio) const {
    const interface_context* context = live_radio(radio);
    return context != nullptr && context->wids_status;
}

bool driver_realtek::has_enabled_vaps(int radio) const {
    const interface_context* context = live_radio(radio);
    if (context == nullptr)
        return false;
    for (const vap_context& vap : context->vap) {
        if (vap.status)
            return true;
    }
    return false;
}

bool driver_realtek::is_band(int radio, rrm_band_t band) const {
    return is_enabled(radio) && get_radio(radio)->band == band;
}

bool driver_realtek::is_obss_coex(int radio) const {
    const interface_context* context = get_radio(radio);
    return context != nullptr && context->coex_status;
}

bool driver_realtek::is_auto_channel(int radio) const {
    return has_number(radio) && get_radio(radio)->auto_channel;
}

unsigned driver_realtek::get_config_spec(int radio) const {
    const interface_context* context = get_radio(radio);
    return context != nullptr ? context->config_spec : 0;
}

int driver_realtek::get_tx_power_max(int radio) const {
    const interface_context* context = get_radio(radio);
    return context != nullptr ? context->tx_power_max : interface_context::default_tx_power_max;
}

int driver_realtek::get_tx_power_min(int radio) const {
    const interface_context* context = get_radio(radio);
    return context != nullptr ? context->tx_power_min : interface_context::default_tx_power_min;
}

int driver_realtek::get_eirp_max(int radio) const {
    const interface_context* context = get_radio(radio);
    return context != nullptr ? context->eirp_max : interface_context::default_eirp_max;
}

int driver_realtek::get_eirp_min(int radio) const {
    const interface_context* context = get_radio(radio);
    return context != nullptr ? context->eirp_min : interface_context::default_eirp_min;
}

std::optional<antenna_config_t> driver_realtek::get_antenna_configuration(int radio) const {
    const interface_context* context = get_radio(radio);
    if (context == nullptr)
        return std::nullopt;
    return context->antenna_config;
}

int driver_realtek::get_mac_offset(int radio) const {
    return has_number(radio) ? get_radio(radio)->mac_offset : 0;
}

int driver_realtek::get_radio_mac_count(int radio) const {
    return has_number(radio) ? get_radio(radio)->radio_mac_count : 0;
}

// ---- questions about VAPs

bool driver_realtek::get_vap_status(const std::string& ifname) const {
    return live() && !ifname.empty() && interface_is_up(ifname);
}

bool driver_realtek::get_vap_status(const char* ifname, int vap) const {
    if (!live() || ifname == nullptr)
        return false;
    const interface_context* radio = radio_by_ifname(ifname);
    const vap_context* context = radio != nullptr ? radio->get_vap(vap) : nullptr;
    return context != nullptr && get_vap_status(context->ifname);
}

bool driver_realtek::is_vap_enabled(int radio, int vap) const {
    const interface_context* context = live_radio(radio);
    const vap_context* vap_entry = context != nullptr ? context->get_vap(vap) : nullptr;
    return vap_entry != nullptr && vap_entry->status;
}

bool driver_realtek::is_802dot11k(int radio, int vap) const {
    return is_enabled(radio) && is_vap_enabled(radio, vap) &&
           get_radio(radio)->get_vap(vap)->rrm_vap;
}

const vap_context* driver_realtek::vap_of_enabled(unsigned vap, int radio) const {
    return is_enabled(radio) ? get_radio(radio)->get_vap(static_cast<int>(vap)) : nullptr;
}

const char* driver_realtek::VapIdToVap(unsigned vap, int radio) const {
    const vap_context* context = vap_of_enabled(vap, radio);
    return context != nullptr ? context->ifname.c_str() : nullptr;
}

const char* driver_realtek::VapIdToSsid(unsigned vap, int radio) const {
    const vap_context* context = vap_of_enabled(vap, radio);
    return context != nullptr && context->status ? context->ssid.c_str() : nullptr;
}

const char* driver_realtek::VapIdToMac(unsigned vap, int radio) const {
    if (vap >= static_cast<unsigned>(get_max_vap()))
        return nullptr;
    const vap_context* context = vap_of_enabled(vap, radio);
    return context != nullptr && context->status ? context->mac.c_str() : nullptr;
}

int driver_realtek::SsidToVapId(const char* ssid, int radio) const {
    if (ssid == nullptr || *ssid == '\0' || !is_enabled(radio))
        return -1;
    // A VAP that is down counts as well, as long as its SSID is remembered.
    for (int vap = 0; vap < get_max_vap(); ++vap) {
        if (get_radio(radio)->get_vap(vap)->ssid == ssid)
            return vap;
    }
    return -1;
}

const char* driver_realtek::SsidToVap(const char* ssid, int radio) const {
    const int vap = SsidToVapId(ssid, radio);
    return vap >= 0 ? get_radio(radio)->get_vap(vap)->ifname.c_str() : nullptr;
}

int driver_realtek::get_ssidlist(const char* ifname, const ssidlist_callback& callback) const {
    if (!live())
        return 0;
    const int radio = get_radio_id(text_of(ifname));
    if (!is_enabled(radio))
        return 0;
    for (int vap = 0; vap < get_max_vap(); ++vap) {
        const char* ssid = VapIdToSsid(static_cast<unsigned>(vap), radio);
        const char* mac = VapIdToMac(static_cast<unsigned>(vap), radio);
        if (ssid != nullptr && mac != nullptr)
            callback(vap, ssid, mac, is_802dot11k(radio, vap));
    }
    return 0;
}
