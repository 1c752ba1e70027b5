// driver_realtek: what the configuration store holds of radios and VAPs.
#include <algorithm>

#include "antcfg.h"
#include "driver_realtek.h"
#include "krds.h"
#include "lum_trace.h"
#include "text.h"

namespace {

constexpr std::size_t ssid_characters = 129;
// What an unknown bandwidth and an unknown sub-band both read as.
constexpr unsigned default_config_bits = LWLIO_CHANSPEC_BW_20;
constexpr int tenths_per_db = 10;

const char* name_of(const interface_context* radio) {
    return radio != nullptr ? radio->ifname.c_str() : "";
}

std::optional<std::string> empty_callback_vap(const interface_context*, const std::string&,
                                              const std::string& value) {
    return value;
}

std::optional<std::string> get_ssid_cb(const interface_context*, const std::string&,
                                       const std::string& value) {
    return value.substr(0, ssid_characters);
}

std::optional<int> is_wpa23_vap_cb(const interface_context*, const std::string&,
                                   const std::string& value) {
    // "WPA_" stands for a mixed mode, which lets first-generation WPA clients in.
    return !contains(value, "WPA_") && (contains(value, "WPA2") || contains(value, "WPA3"));
}

std::optional<int> get_config_bandwidth_cb(const interface_context* radio,
                                           const std::string& value) {
    switch (to_int(value.c_str())) {
        case 20:
            return LWLIO_CHANSPEC_BW_20;
        case 40:
            return LWLIO_CHANSPEC_BW_40;
        case 80:
            return LWLIO_CHANSPEC_BW_80;
        default:
            trace.error("<%s:%d> cannot handle bandwidth of the %s interface(value == %s)\n",
                        __func__, __LINE__, name_of(radio), value.c_str());
            return std::nullopt;
    }
}

std::optional<int> get_config_primary_cb(const interface_context* radio, const std::string& value) {
    if (value == "lower")
        return LWLIO_CHANSPEC_CTL_SB_LOWER;
    if (value == "upper")
        return LWLIO_CHANSPEC_CTL_SB_UPPER;
    trace.error("<%s:%d> cannot handle control sideband of the %s interface(value == %s)\n",
                __func__, __LINE__, name_of(radio), value.c_str());
    return std::nullopt;
}

std::optional<int> get_tx_power_cb(const interface_context*, const std::string& value) {
    return to_int(value.c_str());
}

std::optional<int> get_eirp_cb(const interface_context*, const std::string& value) {
    return to_int(value.c_str());
}

// Gain and loss as the antenna library sees them with the configured antenna.
antenna_config_t ask_antcfg(const std::string& ifname, const std::string& configuration) {
    antcfg_record record{};
    constexpr std::string_view own_figures = "custom";
    own_figures.copy(record.name, sizeof record.name - 1);
    const cfgtree_ptr tree{cfgtree_parse(configuration.c_str())};
    antcfg_get(ifname.c_str(), tree.get(), &record);
    return {record.antenna_gain / tenths_per_db, record.cable_loss / tenths_per_db};
}

}  // namespace

std::optional<std::string> driver_realtek::empty_callback_radio(const interface_context*,
                                                                const std::string& value) {
    return value;
}

std::string driver_realtek::get_radio_config_path(const std::string& ifname,
                                                  const std::string& key) const {
    if (radio_by_ifname(ifname) == nullptr)
        return {};
    const std::string path = "/interface/" + ifname + "/wlan/radio";
    return key.empty() ? path : path + "/" + key;
}

std::string driver_realtek::get_vap_config_path(const std::string& ifname,
                                                const std::string& suffix) const {
    return "/interface/" + ifname + suffix;
}

std::optional<std::string> driver_realtek::getconf_of(const std::string& ifname,
                                                      const std::string& path, const char* func,
                                                      int line) const {
    std::string value;
    const int result = getconf(path, value);
    trace.debug("<%s:%d> ifname == %s path == %s value %s\n", func, line, ifname.c_str(),
                path.c_str(), value.c_str());
    if (result == 0)
        return value;
    trace.error("<%s:%d> cannot take %s value of the %s interface\n", func, line, value.c_str(),
                ifname.c_str());
    return std::nullopt;
}

template <typename T>
std::optional<T> driver_realtek::getconf_radio(const std::string& ifname, const std::string& key,
                                               radio_converter<T> converter) const {
    const std::optional<std::string> value =
        getconf_of(ifname, get_radio_config_path(ifname, key), __func__, __LINE__);
    if (!value)
        return std::nullopt;
    return converter(radio_by_ifname(ifname), *value);
}

// For the other files of the class.
template std::optional<std::string> driver_realtek::getconf_radio(
    const std::string&, const std::string&, radio_converter<std::string>) const;
template std::optional<std::set<unsigned>> driver_realtek::getconf_radio(
    const std::string&, const std::string&, radio_converter<std::set<unsigned>>) const;

template <typename T>
std::optional<T> driver_realtek::getconf_vap(const std::string& ifname, const std::string& suffix,
                                             vap_converter<T> converter) const {
    const std::optional<std::string> value =
        getconf_of(ifname, get_vap_config_path(ifname, suffix), __func__, __LINE__);
    if (!value)
        return std::nullopt;
    return converter(radio_by_ifname(ifname), ifname, *value);
}

// ---- WDS and WIDS

bool driver_realtek::get_wds_enabled(const char* ifname) const {
    const std::optional<std::string> value =
        read(format_path("/interface/%s/wlan/wds/enabled", text_of(ifname)));
    return value == "true" && get_wlan_wds_enabled(ifname);
}

bool driver_realtek::get_wlan_wds_enabled(const char* ifname) const {
    return ipc_helper::get_wds_enabled(ifname);
}

int driver_realtek::get_config_wids_interface() const {
    const std::optional<std::string> value = read("/wids/scan-interface");
    if (!value)
        return -1;
    return *value == "all" ? get_max_radios() : get_radio_id(*value);
}

// ---- VAPs

bool driver_realtek::is_vap_switched_on(const std::string& ifname, const char* suffix) const {
    return live() && !ifname.empty() &&
           getconf_vap<std::string>(ifname, suffix, empty_callback_vap) == "true";
}

std::string driver_realtek::get_ssid(const std::string& ifname) const {
    if (!live() || ifname.empty())
        return {};
    return getconf_vap<std::string>(ifname, "/vap/ssid", get_ssid_cb).value_or("");
}

bool driver_realtek::get_vap_enabled_state(const std::string& ifname) const {
    return is_vap_switched_on(ifname, "/common/enabled");
}

bool driver_realtek::get_802dot11k_vap(const std::string& ifname) const {
    return is_vap_switched_on(ifname, "/vap/w80211kv-config/enabled");
}

bool driver_realtek::get_captive_portal_state(const std::string& ifname) const {
    return is_vap_switched_on(ifname, "/vap/captive-portal/enabled");
}

bool driver_realtek::get_enterprise_vap(const std::string& ifname) const {
    if (!live() || ifname.empty())
        return false;
    const std::optional<std::string> mode =
        getconf_vap<std::string>(ifname, "/vap/ap-security/mode", empty_callback_vap);
    return mode && contains(*mode, "1X");
}

bool driver_realtek::is_wpa23_vap(const std::string& ifname) const {
    return getconf_vap<int>(ifname, "/vap/ap-security/mode", is_wpa23_vap_cb).value_or(0) != 0;
}

bool driver_realtek::is_fbt_enabled(int radio, int vap) const {
    if (!is_vap_enabled(radio, vap))
        return false;
    const std::string ifname = vap_name(radio, vap);
    return getconf_vap<std::string>(ifname, "/vap/ft-config/enabled", empty_callback_vap) ==
               "true" &&
           is_wpa23_vap(ifname);
}

// ---- radios

unsigned driver_realtek::get_config_bandwidth(const char* ifname) const {
    if (!live())
        return 0;
    const std::optional<int> bits =
        getconf_radio<int>(text_of(ifname), "bandwidth", get_config_bandwidth_cb);
    return bits ? static_cast<unsigned>(*bits) : default_config_bits;
}

unsigned driver_realtek::get_config_primary(const char* ifname) const {
    if (!live())
        return 0;
    const std::optional<int> bits =
        getconf_radio<int>(text_of(ifname), "control-sideband", get_config_primary_cb);
    return bits ? static_cast<unsigned>(*bits) : default_config_bits;
}

void driver_realtek::get_min_max_tx_power(const char*, int* min, int* max, rrm_band_t band) const {
    if (min == nullptr || max == nullptr) {
        trace.error("<%s:%d> no pointer to tx_power_min or tx_power_max\n", __func__, __LINE__);
        return;
    }
    *min = interface_context::default_tx_power_min;
    *max = interface_context::default_tx_power_max;
    if (!live())
        return;
    const auto radio =
        std::find_if(interfaces.begin(), interfaces.end(), [&](const interface_context& candidate) {
            return is_band(static_cast<int>(&candidate - interfaces.data()), band);
        });
    if (radio != interfaces.end()) {
        const auto highest = getconf_radio<int>(radio->ifname, "tx-power-max", get_tx_power_cb);
        const auto lowest = getconf_radio<int>(radio->ifname, "tx-power-min", get_tx_power_cb);
        if (highest && lowest) {
            *min = *lowest;
            *max = *highest;
        }
    }
    trace.debug("<%s:%d> tx_power_min == %d tx_power_max == %d\n", __func__, __LINE__, *min, *max);
}

void driver_realtek::get_min_max_eirp(const std::string& ifname, int* min, int* max) const {
    if (min == nullptr || max == nullptr) {
        trace.error("<%s:%d> no pointer to eirp_min or eirp_max\n", __func__, __LINE__);
        return;
    }
    *min = interface_context::default_eirp_min;
    *max = interface_context::default_eirp_max;
    if (!live())
        return;
    const std::optional<int> highest = getconf_radio<int>(ifname, "eirp-max", get_eirp_cb);
    const std::optional<int> lowest = getconf_radio<int>(ifname, "eirp-min", get_eirp_cb);
    if (highest && lowest) {
        *min = *lowest;
        *max = *highest;
    }
    trace.debug("<%s:%d> eirp_min == %d eirp_max == %d\n", __func__, __LINE__, *min, *max);
}

std::optional<antenna_config_t> driver_realtek::get_antenna_description(
    const std::string& ifname) const {
    if (!live())
        return std::nullopt;
    const std::optional<KRDS::RadioDescription> description = KRDS::find_radio(ifname);
    if (!description) {
        trace.error("<%s:%d> no radio description\n", __func__, __LINE__);
        return std::nullopt;
    }
    const KRDS::AntennaGainType type = description->antenna_gain_type;
    antenna_config_t antenna{0, 0};
    if (type == KRDS::AntennaGainType::FIXED) {
        antenna.ant_gain = description->fixed_antenna_gain;
    } else if (type == KRDS::AntennaGainType::CONFIGURABLE) {
        const std::optional<std::string> configuration =
            getconf_radio<std::string>(ifname, "antenna-configuration", empty_callback_radio);
        if (configuration)
            antenna = ask_antcfg(ifname, *configuration);
    }
    trace.debug("<%s:%d> ant_type == %s ant_gain == %d cable_loss == %d\n", __func__, __LINE__,
                type == KRDS::AntennaGainType::FIXED ? "fixed" : "configurable", antenna.ant_gain,
                antenna.cable_loss);
    return antenna;
}
