// What the radios look like, as the service wants to see them.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "rrm_worker.h"

namespace {

// What a radio that is not in use reports.
constexpr int idle_power = 16;      // dBm
constexpr int idle_power_min = 11;  // dBm
constexpr int idle_eirp_max = 100;  // dBm
constexpr int idle_eirp_min = 0;    // dBm

constexpr int locked_for_balancer = 1;  // there is no load balancer
constexpr int no_measurement = -1000;   // max_rssi of a client not heard yet

const std::map<int, int> band_to_default_channel = {
    {BAND_NONE, 0}, {BAND_2G, 1}, {BAND_5G, 36}, {BAND_6G, 1}};

struct locks_t {
    bool dca;
    bool tpc;
    bool dot11v;
};

// The configuration store is asked only about a radio that is in use by clients alone.
locks_t get_locks(const driver_interface& driver, int radio, bool in_use) {
    if (!in_use || driver.is_wds_enabled(radio) || driver.is_wids_enabled(radio))
        return {true, true, true};
    return {!driver.get_dca(), !driver.get_tpc(), !driver.get_load_balance_80211v()};
}

void insert_locks(json_writer& object, const locks_t& locks) {
    object.insert_int("locked-for-dca", locks.dca);
    object.insert_int("locked-for-tpc", locks.tpc);
    object.insert_int("locked-for-balancer", locked_for_balancer);
    object.insert_int("locked-for-80211v", locks.dot11v);
}

// Sum and difference of figures that the driver vouches for no further than their type.
int radiated_power(int power, const antenna_config_t& antenna) {
    return static_cast<int>(std::int64_t{power} - antenna.cable_loss + antenna.ant_gain);
}

void insert_power(json_writer& object, const driver_interface& driver, const char* ifname,
                  int radio, bool in_use) {
    const antenna_config_t antenna =
        driver.get_antenna_configuration(radio).value_or(antenna_config_t{0, 0});
    const int power = in_use ? driver.get_tx_power(ifname) : idle_power;
    object.insert_int("power", power);
    object.insert_int("power-max", in_use ? driver.get_tx_power_max(radio) : idle_power);
    object.insert_int("power-min", in_use ? driver.get_tx_power_min(radio) : idle_power_min);
    object.insert_int("eirp", radiated_power(power, antenna));
    object.insert_int("eirp-max", in_use ? driver.get_eirp_max(radio) : idle_eirp_max);
    object.insert_int("eirp-min", in_use ? driver.get_eirp_min(radio) : idle_eirp_min);
    json_writer configuration = object.make_subobject("antenna-configuration");
    configuration.insert_int("antenna-gain", antenna.ant_gain);
    configuration.insert_int("cable-loss", antenna.cable_loss);
}

// Bandwidth and primary channel are those that are configured while the radio chooses for itself;
// the channel is always the one in use.
unsigned reported_spec(const driver_interface& driver, const char* ifname, int radio, bool in_use) {
    if (!driver.is_obss_coex(radio) && !driver.is_auto_channel(radio))
        return driver.get_chanspec(ifname);
    return in_use ? driver.get_config_spec(radio) : 0;
}

void insert_channel(json_writer& object, const driver_interface& driver, const char* ifname,
                    int radio, bool in_use) {
    const int band = driver.get_band_from_ifname(ifname);
    object.insert_int("channel", in_use ? driver.chanspec_channel(driver.get_chanspec(ifname))
                                        : band_to_default_channel.at(band));
    object.insert_int("band", band);
    const unsigned spec = reported_spec(driver, ifname, radio, in_use);
    object.insert_int("bandwidth", driver.chanspec_bw(spec));
    object.insert_string("primary-channel", driver.chanspec_primary(spec));
}

}  // namespace

void rrm_worker::insert_interface_to_json(json_writer& radios, const char* ifname, int radio) {
    json_writer object = radios.append_object();
    const bool in_use = wl.is_enabled(radio) && wl.has_enabled_vaps(radio);
    object.insert_int("id", radio);
    object.insert_int("status", in_use);
    object.insert_int("mac-offset", wl.get_mac_offset(radio));
    object.insert_int("radio-mac-count", wl.get_radio_mac_count(radio));
    insert_locks(object, get_locks(wl, radio, in_use));
    insert_power(object, wl, ifname, radio, in_use);
    insert_channel(object, wl, ifname, radio, in_use);
    if (in_use)
        insert_live_lists(object, ifname, radio);
}

void rrm_worker::insert_live_lists(json_writer& object, const char* ifname, int radio) {
    std::string channels;
    wl.fill_chanspecs(ifname, channels);
    object.insert_string("available-channels", channels);

    json_writer vaps = object.make_array("vaps");
    wl.get_ssidlist(ifname, [&](int vap, const char* ssid, const char* mac, bool dot11k) {
        get_ssidlist_cb(vaps, wl, radio, vap, ssid, mac, dot11k);
    });

    if (subscribed && !blacklist_enabled && !orvanta_use_80211v)
        return;
    json_writer assoclist = object.make_array("assoclist");
    wl.get_assoclist(ifname, [&](const rrm_sta_s& sta) { get_assoclist_cb(assoclist, sta); });
}

void rrm_worker::get_ssidlist_cb(json_writer& vaps, const driver_interface& driver, int radio,
                                 int vap, const char* ssid, const char* mac, bool dot11k) {
    json_writer object = vaps.append_object();
    object.insert_int("id", vap);
    object.insert_string("ssid", ssid);
    object.insert_string("mac", mac);
    object.insert_int("802dot11k", dot11k);
    object.insert_int("802dot11r", driver.is_fbt_enabled(radio, vap));
}

void rrm_worker::get_assoclist_cb(json_writer& assoclist, const rrm_sta_s& sta) {
    json_writer object = assoclist.append_object();
    object.insert_string("mac", sta.mac);
    object.insert_string("ssid", sta.ssid);
    object.insert_int("rssi", sta.max_rssi == no_measurement ? 0 : sta.max_rssi);
}

bool rrm_worker::insert_radios(json_writer& message) {
    json_writer radios = message.make_array("radios");
    const int named = static_cast<int>(radio_ifnames.size());
    const int count = std::min(wl.get_max_radios(), named);
    for (int radio = 0; radio < count; ++radio)
        insert_interface_to_json(radios, radio_ifnames[static_cast<std::size_t>(radio)], radio);
    return !radios.fail();
}

void rrm_worker::insert_json_factory(json_writer& message) {
    const lumd_factory_t& data = wl.get_factory();
    json_writer factory = message.make_subobject("factory");
    factory.insert_string("board", data.board);
    factory.insert_string("hw", data.hw);
    factory.insert_string("serial", data.serial);
    factory.insert_string("mac", data.mac);
}

void rrm_worker::post_config_changed() {
    json_writer message = make_message("rrm-config-changed");
    if (message.fail())
        return;
    insert_radios(message);
    to_websocket.enqueue_json(message);
}

void rrm_worker::rrm_acsd_config_changed_timeout() {
    post_config_changed();
    tp.del_timer(TIMER_ACSD_CONFIG_CHANGED);
}
