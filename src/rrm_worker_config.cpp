// What the service sets: power and channels, steering options, neighbours, fast transition.
#include <syslog.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>
#include <string>

#include "lum_trace.h"
#include "rrm_worker.h"
#include "text.h"

namespace {

constexpr int default_bandwidth = 20;  // MHz
constexpr int paired_bandwidth = 40;   // MHz; the one with a lower and an upper primary channel

constexpr std::size_t max_fbt_vaps = 32;
constexpr std::size_t max_fbt_remotes = 1025;

primary_channel_mode primary_mode(int bandwidth, const char* primary) {
    if (bandwidth == paired_bandwidth && equals_ignoring_case(primary, "upper"))
        return PRIMARY_CHANNEL_UPPER;
    if (bandwidth == paired_bandwidth && equals_ignoring_case(primary, "lower"))
        return PRIMARY_CHANNEL_LOWER;
    return PRIMARY_CHANNEL_NONE;
}

// Adds "mac": the key holders of the other access points of the mobility domain, by R1 key holder.
void insert_remotes(const json_writer& ft_config, const json_reader& remotes, const char* r0_key) {
    const json_writer macs = ft_config.make_subobject("mac");
    const std::size_t count = std::min(remotes.array_length(), max_fbt_remotes);
    for (std::size_t j = 0; j < count; ++j) {
        const json_reader remote = remotes.get_array_element(j);
        const char* r1_holder = remote.get_string("remote-r1-kh-id");
        if (r1_holder == nullptr)
            continue;
        json_writer entry = macs.make_subobject(r1_holder);
        entry.insert_string("name", r1_holder);
        entry.insert_string("index", std::to_string(j));
        entry.insert_string("r0-kh-id", remote.get_string("remote-r0-kh-id"));
        entry.insert_string("r1-kh-id", r1_holder);
        entry.insert_string("r0-kh-key", r0_key);
        entry.insert_string("r1-kh-key", remote.get_string("remote-r1-kh-key"));
    }
}

}  // namespace

void rrm_worker::apply_config(const json_reader& config) {
    orvanta_use_80211v = config.get_int("use-80211v") != 0;
    if (const std::optional<int> use_80211r = config.get_opt_int("use-80211r"))
        orvanta_use_80211r = *use_80211r != 0;
    trace.info("%s orvanta_use_80211r = %d\n", __func__, orvanta_use_80211r);

    const json_reader radios = config.get_subobject("radios");
    for (std::size_t i = 0; i < radios.array_length(); ++i) {
        const json_reader element = radios.get_array_element(i);
        if (element.is_object())
            apply_radio_config(config, element);
    }
    clear_802dot11k();
    apply_802dot11k(config, 0);
}

void rrm_worker::apply_radio_config(const json_reader& config, const json_reader& element) {
    const int id = element.get_int("id");
    if (!is_radio(id)) {
        trace.warn("%s Wrong id value: recv %d, max: %d - skip radio\n",
                   "void rrm_worker::apply_config(const json_reader&)", id, wl.get_max_radios());
        return;
    }
    const char* ifname = radio_ifnames[static_cast<std::size_t>(id)];
    const bool locked = wl.is_wds_enabled(id) || wl.is_wids_enabled(id);
    if (!wl.is_enabled(id) || !wl.has_enabled_vaps(id))
        return;

    if (orvanta_use_80211v)
        wl.set_vexor_roam_attempt_timeout(ifname, element.get_int("vexor-roam-attempt-timeout"));
    no_balance_enterprise = element.get_int("no-balance-enterprise") == 1;
    if (locked)
        return;

    const std::optional<int> power = element.get_opt_int("power");
    if (power && config.get_int("use-tpc") != 0)
        wl.set_tx_power(ifname, *power);
    if (config.get_int("use-dca") != 0)
        apply_channel(ifname, element);
}

bool rrm_worker::is_radio(int id) const {
    const int named = static_cast<int>(radio_ifnames.size());
    return id >= 0 && id < std::min(wl.get_max_radios(), named);
}

void rrm_worker::apply_channel(const char* ifname, const json_reader& element) {
    const int channel = element.get_int("channel");
    if (channel == 0)
        return;
    syslog(LOG_INFO, "Orvanta requested switch channel to %d on %s", channel, ifname);
    int bandwidth = element.get_int("bandwidth");
    if (bandwidth == 0)
        bandwidth = default_bandwidth;
    wl.set_chanspec(ifname, channel, bandwidth,
                    primary_mode(bandwidth, element.get_string("primary-channel")));
}

// A neighbour's own "neighbour-mac" is never passed on: the BSSIDs are those of its VAPs.
void rrm_worker::apply_802dot11k(const json_reader& config, int flag) {
    const json_reader neighbours = config.get_subobject("802dot11k");
    for (std::size_t i = 0; i < neighbours.array_length(); ++i) {
        const json_reader neighbour = neighbours.get_array_element(i);
        if (neighbour.get_string("neighbour-mac") == nullptr)
            continue;
        const int channel = neighbour.get_int("channel");
        const int priority = neighbour.get_int("priority");
        const json_reader vaps = neighbour.get_subobject("vaps");
        for (std::size_t v = 0; v < vaps.array_length(); ++v) {
            const json_reader vap = vaps.get_array_element(v);
            const char* mac = vap.get_string("mac");
            const char* ssid = vap.get_string("ssid");
            // The driver takes both as texts; a neighbour without them cannot be told to anybody.
            if (mac != nullptr && ssid != nullptr)
                wl.set_rrm_nbr_ap_list(mac, ssid, channel, priority, flag);
        }
    }
}

void rrm_worker::process_rrm_info(const json_reader& message) {
    if (!wl.is_hostapd_initialized()) {
        trace.info("Ignoring rrm-info because hostapd is not running\n");
        return;
    }
    apply_config(message);
}

void rrm_worker::process_fbt_info(const json_reader& message) {
    trace.info("%s orvanta_use_80211r = %d\n", __func__, orvanta_use_80211r);
    if (!orvanta_use_80211r) {
        wl.reset_orvanta_fbt(UNKNOWN);
        return;
    }
    fbt_reassoc_deadline = message.get_int("fbt-reassoc-deadline");
    fbt_over_ds = message.get_int("fbt-over-ds") != 0;

    wl.start_orvanta_fbt_params();
    const json_reader vaps = message.get_subobject("vaps");
    for (std::size_t i = 0; i < max_fbt_vaps; ++i) {
        const json_reader vap = vaps.get_array_element(i);
        if (vap.fail())
            break;
        if (!process_fbt_vap(vap))
            return;
    }
    wl.finish_orvanta_fbt_params();
}

bool rrm_worker::process_fbt_vap(const json_reader& vap) {
    const int vap_id = vap.get_int("vap_id");
    const int radio_id = vap.get_int("radio_id");
    if (wl.VapIdToMac(static_cast<unsigned>(vap_id), radio_id) == nullptr)
        return true;

    const json_writer document{"fbt", "", "", protocol_version};
    json_writer ft_config = document.make_subobject("ft-config");
    ft_config.insert_string("enabled", "true");
    ft_config.insert_string("ft-over-ds", fbt_over_ds ? "true" : "false");
    ft_config.insert_string("ft-psk-generate-local", "false");
    ft_config.insert_int("reassociation-deadline", fbt_reassoc_deadline);
    ft_config.insert_int("mobility-domain", vap.get_int("mobility-domain"));

    std::array<char, 32> ifname{};
    wl.fill_vap_name(radio_id, vap_id, ifname.data(), ifname.size());

    const char* r0_holder = vap.get_string("r0-key-holder-id");
    const char* r1_holder = vap.get_string("r1-key-holder-id");
    if (r0_holder == nullptr || r1_holder == nullptr) {
        trace.error("Unexpected error, no r0/r1 key holders found\n");
        wl.reset_orvanta_fbt(UNKNOWN);
        return false;
    }
    ft_config.insert_string("r0-key-holder-id", r0_holder);
    ft_config.insert_string("r1-key-holder-id", r1_holder);

    const json_reader remotes = vap.get_subobject("remotes");
    if (!remotes.fail()) {
        insert_remotes(ft_config, remotes, vap.get_string("fbt-rrb-key"));
        wl.set_orvanta_fbt_params(ifname.data(), document.serialize());
    }
    return true;
}
