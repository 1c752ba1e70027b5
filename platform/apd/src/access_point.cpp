#include "access_point.h"

#include <algorithm>

#include "text_values.h"

namespace apd {

namespace {

bool is_true(json_object* node, const std::string& path) {
    return scalar_text(find_path(node, path)) == "true";
}

std::string text_at(json_object* node, const std::string& path) {
    return scalar_text(find_path(node, path));
}

HostapdOptions read_options(json_object* node) {
    HostapdOptions options;
    for_each_member(node, [&](const std::string& name, json_object* value) {
        options[name] = scalar_text(value);
    });
    return options;
}

// Of the PSK, SAE and 1X modes; the reason for a refusal, or empty.
std::string read_security(json_object* node, VapConfig& vap) {
    if (const std::string mode = text_at(node, "/mode"); !mode.empty())
        vap.security = mode;
    if (vap.is_enterprise()) {
        vap.radius.address = text_at(node, "/radius-server");
        vap.radius.secret = text_at(node, "/radius-secret");
        if (const std::optional<int> port = parse_number(text_at(node, "/radius-port")))
            vap.radius.port = *port;
        return vap.radius.address.empty() || vap.radius.secret.empty()
                   ? "ap-security/radius-server and radius-secret are missing"
                   : "";
    }
    if (vap.security != "OPEN")
        vap.passphrase = text_at(node, "/passphrase");
    return vap.security != "OPEN" && vap.passphrase.empty() ? "ap-security/passphrase is missing"
                                                            : "";
}

std::string read_vap(json_object* node, VapConfig& vap) {
    vap.ssid = text_at(node, "/vap/ssid");
    if (vap.ssid.empty())
        return "vap/ssid is missing";
    vap.bridge = text_at(node, "/common/bridge");
    vap.hidden = is_true(node, "/vap/hidden");
    vap.isolate = is_true(node, "/vap/isolate");
    vap.max_stations = parse_number(text_at(node, "/vap/max-stations"));
    vap.rrm = is_true(node, "/vap/w80211kv-config/enabled");
    vap.options = read_options(find_path(node, "/vap/hostapd"));
    if (std::string reason = read_security(find_path(node, "/vap/ap-security"), vap);
        !reason.empty())
        return reason;
    std::string reason;
    const std::optional<FtConfig> ft = read_ft_config(find_path(node, "/vap/ft-config"), reason);
    if (ft && ft->enabled && vap.is_wpa23())
        vap.ft = *ft;
    return ft ? "" : "vap/ft-config: " + reason;
}

std::string read_band(json_object* node, RadioConfig& radio) {
    const std::string band = text_at(node, "/band");
    const std::optional<int> number = parse_number(text_at(node, "/channel"));
    if (!number && !radio.auto_channel)
        return "channel is missing, or auto-channel and band";
    if (!number && band.empty())
        return "band is missing, which auto-channel wants";
    radio.five_ghz = number ? is_5ghz(*number) : band == "5GHz";
    if (number && !band.empty() && radio.five_ghz != (band == "5GHz"))
        return "channel " + std::to_string(*number) + " is not at " + band;
    return "";
}

std::string read_channel(json_object* node, RadioConfig& radio) {
    if (std::string reason = read_band(node, radio); !reason.empty())
        return reason;
    Channel channel;
    channel.number = parse_number(text_at(node, "/channel")).value_or(radio.five_ghz ? 36 : 6);
    channel.width = parse_number(text_at(node, "/bandwidth")).value_or(20);
    channel.sideband = parse_sideband(text_at(node, "/control-sideband")).value_or(Sideband::kNone);
    std::string reason;
    const std::optional<Channel> completed = complete(channel, reason);
    if (completed)
        radio.channel = *completed;
    return reason;
}

std::string read_power(json_object* node, RadioConfig& radio) {
    radio.tx_power = parse_number(text_at(node, "/tx-power"));
    const std::optional<int> least = parse_number(text_at(node, "/tx-power-min"));
    const std::optional<int> most = parse_number(text_at(node, "/tx-power-max"));
    if (least && most && *least > *most)
        return "tx-power-min is above tx-power-max";
    if (radio.tx_power &&
        ((least && *radio.tx_power < *least) || (most && *radio.tx_power > *most)))
        return "tx-power " + std::to_string(*radio.tx_power) +
               " dBm is outside tx-power-min and tx-power-max";
    return "";
}

std::string read_radio(json_object* node, RadioConfig& radio) {
    radio.phy = text_at(node, "/phy");
    radio.country = text_at(node, "/country");
    radio.auto_channel = is_true(node, "/auto-channel");
    radio.options = read_options(find_path(node, "/hostapd"));
    std::string reason = read_channel(node, radio);
    return reason.empty() ? read_power(node, radio) : reason;
}

std::string read_vaps(json_object* tree, RadioConfig& radio) {
    for (int number = 0; number < kVaps; number++) {
        VapConfig vap;
        vap.id = {radio.id, number};
        std::string where = "/interface/";
        where += vap_name(vap.id);
        if (!is_true(tree, where + "/common/enabled"))
            continue;
        if (const std::string reason = read_vap(find_path(tree, where), vap); !reason.empty())
            return where.append(": ").append(reason);
        radio.vaps.push_back(std::move(vap));
    }
    return "";
}

}  // namespace

std::optional<AccessPoint> read_access_point(json_object* tree, std::string& reason) {
    AccessPoint all;
    for (int id = 0; id < kRadios; id++) {
        RadioConfig radio;
        radio.id = id;
        reason = read_vaps(tree, radio);
        if (!reason.empty())
            return std::nullopt;
        if (radio.vaps.empty())
            continue;
        std::string where = "/interface/";
        where.append(radio_name(id)).append("/wlan/radio");
        reason = read_radio(find_path(tree, where), radio);
        if (!reason.empty()) {
            reason.insert(0, where + ": ");
            return std::nullopt;
        }
        all[static_cast<std::size_t>(id)] = std::move(radio);
    }
    return all;
}

std::string judge_access_point(json_object* tree) {
    std::string reason;
    static_cast<void>(read_access_point(tree, reason));
    return reason;
}

}  // namespace apd
