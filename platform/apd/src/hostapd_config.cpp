#include "hostapd_config.h"

#include <vector>

namespace apd {

namespace {

constexpr int kVht20Or40 = 0;  // hostapd.conf(5), vht_oper_chwidth
constexpr int kVht80 = 1;

class Lines {
  public:
    Lines& add(const std::string& name, const std::string& value) {
        text_ += name + '=' + value + '\n';
        return *this;
    }
    Lines& add(const std::string& name, int value) { return add(name, std::to_string(value)); }
    [[nodiscard]] const std::string& text() const { return text_; }

  private:
    std::string text_;
};

void add_width(Lines& lines, const RadioConfig& radio, const RadioAbility& ability) {
    const Frequencies at = frequencies_of(radio.channel);
    if (at.secondary_offset != 0)
        lines.add("ht_capab", at.secondary_offset > 0 ? "[HT40+]" : "[HT40-]");
    if (!radio.five_ghz)
        return;
    const bool wide = radio.channel.width == 80;
    const int center = channel_number_of(at.center);
    if (ability.vht) {
        lines.add("ieee80211ac", 1).add("vht_oper_chwidth", wide ? kVht80 : kVht20Or40);
        if (wide && !radio.auto_channel)
            lines.add("vht_oper_centr_freq_seg0_idx", center);
    }
    if (ability.he) {
        lines.add("he_oper_chwidth", wide ? kVht80 : kVht20Or40);
        if (wide && !radio.auto_channel)
            lines.add("he_oper_centr_freq_seg0_idx", center);
    }
}

void add_radio(Lines& lines, const RadioConfig& radio, const RadioAbility& ability) {
    if (!radio.country.empty())
        lines.add("country_code", radio.country).add("ieee80211d", 1);
    lines.add("hw_mode", radio.five_ghz ? "a" : "g");
    // Radar checks want a country.
    if (radio.five_ghz && !radio.country.empty())
        lines.add("ieee80211h", 1);
    if (radio.auto_channel)
        lines.add("channel", "acs_survey");
    else
        lines.add("channel", radio.channel.number);
    lines.add("wmm_enabled", 1).add("ieee80211n", ability.ht ? 1 : 0);
    if (ability.he)
        lines.add("ieee80211ax", 1);
    if (ability.ht)
        add_width(lines, radio, ability);
    for (const auto& [name, value] : radio.options)
        lines.add(name, value);
}

void add_security(Lines& lines, const VapConfig& vap) {
    if (vap.security == "OPEN")
        return;
    const bool mixed = !vap.is_wpa23();
    lines.add("wpa", mixed ? 3 : 2)
        .add("wpa_key_mgmt", key_management(vap))
        .add("rsn_pairwise", "CCMP");
    if (mixed)
        lines.add("wpa_pairwise", "TKIP CCMP");
    if (vap.security.find("WPA3") != std::string::npos)
        lines.add("ieee80211w", vap.security.find("WPA2") != std::string::npos ? 1 : 2);
    if (vap.is_enterprise())
        lines.add("ieee8021x", 1)
            .add("auth_server_addr", vap.radius.address)
            .add("auth_server_port", vap.radius.port)
            .add("auth_server_shared_secret", vap.radius.secret);
    else
        lines.add("wpa_passphrase", vap.passphrase);
}

void add_ft(Lines& lines, const VapConfig& vap, const Mac& bssid) {
    const std::string ifname = vap_name(vap.id);
    if (!vap.ft.enabled) {
        if (vap.is_enterprise())
            lines.add("nas_identifier", ifname);
        return;
    }
    for (const HostapdLine& line : ft_lines(vap.ft, vap.ssid, ifname, bssid))
        lines.add(line.name, line.value);
    for (const HostapdLine& line : key_holder_lines(vap.ft.remotes))
        lines.add(line.name, line.value);
}

void add_vap(Lines& lines, const VapConfig& vap, const HostapdPlaces& places) {
    lines.add("ssid2", to_hex(vap.ssid));
    if (!vap.bridge.empty())
        lines.add("bridge", vap.bridge);
    lines.add("ignore_broadcast_ssid", vap.hidden ? 1 : 0).add("ap_isolate", vap.isolate ? 1 : 0);
    if (vap.max_stations)
        lines.add("max_num_sta", *vap.max_stations);
    if (vap.rrm)
        lines.add("rrm_neighbor_report", 1).add("rrm_beacon_report", 1).add("bss_transition", 1);
    // Who is not in the file is taken.
    lines.add("macaddr_acl", 0).add("deny_mac_file", places.deny_file);
}

}  // namespace

std::string hostapd_config(const RadioConfig& radio, const VapConfig& vap, const Mac& bssid,
                           bool is_first, const RadioAbility& ability,
                           const HostapdPlaces& places) {
    Lines lines;
    lines.add("interface", vap_name(vap.id)).add("driver", "nl80211");
    lines.add("ctrl_interface", places.control_folder);
    if (!is_first)
        lines.add("bssid", to_text(bssid));
    add_radio(lines, radio, ability);
    add_vap(lines, vap, places);
    add_security(lines, vap);
    add_ft(lines, vap, bssid);
    for (const auto& [name, value] : vap.options)
        lines.add(name, value);
    return lines.text();
}

std::string key_management(const VapConfig& vap) {
    if (vap.security == "OPEN")
        return "";
    std::vector<std::string> suites;
    if (vap.is_enterprise())
        suites = {vap.security == "WPA3_1X" ? "WPA-EAP-SHA256" : "WPA-EAP"};
    else if (vap.security == "WPA3_SAE")
        suites = {"SAE"};
    else if (vap.security == "WPA2_WPA3_PSK")
        suites = {"WPA-PSK", "SAE"};
    else
        suites = {"WPA-PSK"};
    std::string text;
    for (const std::string& suite : suites) {
        text += (text.empty() ? "" : " ") + suite;
        if (vap.ft.enabled)
            text += vap.is_enterprise() ? " FT-EAP" : suite == "SAE" ? " FT-SAE" : " FT-PSK";
    }
    return text;
}

std::string switch_modes(const RadioConfig& radio, const RadioAbility& ability) {
    std::string modes;
    const auto add = [&modes](const char* mode) {
        modes += (modes.empty() ? "" : " ") + std::string{mode};
    };
    if (ability.ht)
        add("ht");
    if (ability.vht && radio.five_ghz)
        add("vht");
    if (ability.he)
        add("he");
    return modes;
}

}  // namespace apd
