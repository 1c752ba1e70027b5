#include "config_rules.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>

#include "access_point.h"
#include "ft_config.h"
#include "interface_name.h"
#include "mac_text.h"
#include "text_values.h"

namespace apd {

namespace {

// What a value must be. The number of a kind with bounds stands in the rule.
enum class Kind {
    kFlag,
    kNumber,    // from `least` to `most`
    kText,      // `least` to `most` bytes without control characters
    kOneOf,     // of `words`, parted by blanks
    kCountry,   // ISO 3166-1
    kChannels,  // numbers parted by blanks
    kHolder,    // a MAC address, or its twelve digits
    kAny,       // whatever JSON there is
};

struct Rule {
    const char* path;  // "R" is a radio, "V" an access point, "W" a WDS link, "*" any name
    Kind kind;
    int least = 0;
    int most = 0;
    const char* words = "";
    const char* otherwise = "";  // what holds where it is not set; a flag is then false
};

constexpr const char* kModes =
    "OPEN WPA2_PSK WPA3_SAE WPA2_WPA3_PSK WPA_WPA2_PSK WPA2_1X WPA3_1X WPA_WPA2_1X";
constexpr int kMaxPower = 36;  // dBm, what any domain allows
constexpr int kMaxEirp = 100;  // dBm, the agent's own bound
constexpr int kMaxSsid = 32;   // bytes, IEEE 802.11-2020 9.4.2.2
constexpr int kMaxName = 15;   // of an interface, IFNAMSIZ - 1
constexpr int kMaxText = 1024;
constexpr int kMaxPort = 65535;

constexpr Rule kRules[] = {
    {"/interface/R/wlan/radio/phy", Kind::kText, 1, kMaxName},
    {"/interface/R/wlan/radio/band", Kind::kOneOf, 0, 0, "2.4GHz 5GHz"},
    {"/interface/R/wlan/radio/country", Kind::kCountry},
    {"/interface/R/wlan/radio/auto-channel", Kind::kFlag},
    {"/interface/R/wlan/radio/channel", Kind::kNumber, 1, 177},
    {"/interface/R/wlan/radio/bandwidth", Kind::kOneOf, 0, 0, "20 40 80", "20"},
    {"/interface/R/wlan/radio/control-sideband", Kind::kOneOf, 0, 0, "lower upper"},
    {"/interface/R/wlan/radio/tx-power", Kind::kNumber, 0, kMaxPower},
    {"/interface/R/wlan/radio/tx-power-min", Kind::kNumber, 0, kMaxPower},
    {"/interface/R/wlan/radio/tx-power-max", Kind::kNumber, 0, kMaxPower},
    {"/interface/R/wlan/radio/eirp-min", Kind::kNumber, 0, kMaxEirp, "", "0"},
    {"/interface/R/wlan/radio/eirp-max", Kind::kNumber, 0, kMaxEirp, "", "100"},
    {"/interface/R/wlan/radio/use-limit-channels", Kind::kFlag},
    {"/interface/R/wlan/radio/limit-channels", Kind::kChannels},
    {"/interface/R/wlan/radio/antenna-configuration", Kind::kAny, 0, 0, "",
     R"({"antenna-gain": "0", "cable-loss": "0"})"},
    {"/interface/R/wlan/radio/antenna-configuration/*", Kind::kAny},
    {"/interface/R/wlan/radio/hostapd/*", Kind::kText, 0, kMaxText},
    {"/interface/R/wlan/wds/enabled", Kind::kFlag},
    {"/interface/W/common/enabled", Kind::kFlag},
    {"/interface/V/common/enabled", Kind::kFlag},
    {"/interface/V/common/bridge", Kind::kText, 1, kMaxName},
    {"/interface/V/vap/ssid", Kind::kText, 1, kMaxSsid},
    {"/interface/V/vap/hidden", Kind::kFlag},
    {"/interface/V/vap/isolate", Kind::kFlag},
    {"/interface/V/vap/max-stations", Kind::kNumber, 1, kMaxStations},
    {"/interface/V/vap/ap-security/mode", Kind::kOneOf, 0, 0, kModes, "OPEN"},
    {"/interface/V/vap/ap-security/passphrase", Kind::kText, 8, 63},
    {"/interface/V/vap/ap-security/radius-server", Kind::kText, 1, kMaxText},
    {"/interface/V/vap/ap-security/radius-port", Kind::kNumber, 1, kMaxPort, "", "1812"},
    {"/interface/V/vap/ap-security/radius-secret", Kind::kText, 1, kMaxText},
    {"/interface/V/vap/w80211kv-config/enabled", Kind::kFlag},
    {"/interface/V/vap/captive-portal/enabled", Kind::kFlag},
    {"/interface/V/vap/ft-config/enabled", Kind::kFlag},
    {"/interface/V/vap/ft-config/ft-over-ds", Kind::kFlag},
    {"/interface/V/vap/ft-config/ft-psk-generate-local", Kind::kFlag, 0, 0, "", "true"},
    {"/interface/V/vap/ft-config/reassociation-deadline", Kind::kNumber, kLeastDeadline,
     kMostDeadline},
    {"/interface/V/vap/ft-config/mobility-domain", Kind::kNumber, 0, kMaxDomain},
    {"/interface/V/vap/ft-config/r0-key-holder-id", Kind::kText, 1, kMaxHolderId},
    {"/interface/V/vap/ft-config/r1-key-holder-id", Kind::kHolder},
    {"/interface/V/vap/hostapd/*", Kind::kText, 0, kMaxText},
    {"/orvanta/tpc", Kind::kFlag},
    {"/orvanta/dca", Kind::kFlag},
    {"/orvanta/load-balance-80211v", Kind::kFlag},
    {"/wids/enabled", Kind::kFlag},
    {"/wids/scan-mode", Kind::kText, 0, kMaxText},
    {"/wids/scan-interface", Kind::kText, 0, kMaxText},
};

// "wlan0-wds3"; the agent looks at eight of each radio.
bool is_wds(const std::string& name) {
    constexpr int links = 8;
    for (int radio = 0; radio < kRadios; radio++)
        for (int link = 0; link < links; link++)
            if (name == radio_name(radio) + "-wds" + std::to_string(link))
                return true;
    return false;
}

// Some become lines of hostapd's files.
bool is_plain(const std::string& name) {
    return std::all_of(name.begin(), name.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '_' || c == '-' || c == '.';
    });
}

bool fits(const std::string& pattern, const std::string& name) {
    if (pattern == "R")
        return parse_radio(name).has_value();
    if (pattern == "V")
        return parse_vap(name).has_value();
    if (pattern == "W")
        return is_wds(name);
    return pattern == "*" ? is_plain(name) : pattern == name;
}

bool matches(const char* rule, const std::vector<std::string>& names) {
    const std::vector<std::string> patterns = split_path(rule);
    return patterns.size() == names.size() &&
           std::equal(patterns.begin(), patterns.end(), names.begin(), fits);
}

const Rule* rule_of(const std::string& path) {
    const std::vector<std::string> names = split_path(path);
    for (const Rule& rule : kRules)
        if (matches(rule.path, names))
            return &rule;
    return nullptr;
}

// Whether there are settings below.
bool leads_to_settings(const std::string& path) {
    const std::vector<std::string> names = split_path(path);
    if (names.empty() && !path.empty())
        return false;
    return std::any_of(std::begin(kRules), std::end(kRules), [&](const Rule& rule) {
        const std::vector<std::string> patterns = split_path(rule.path);
        return names.size() < patterns.size() &&
               std::equal(
                   names.begin(), names.end(), patterns.begin(),
                   [](const auto& name, const auto& pattern) { return fits(pattern, name); });
    });
}

bool is_control(char byte) {
    return std::iscntrl(static_cast<unsigned char>(byte)) != 0;
}

bool is_country(const std::string& text) {
    return text.size() == 2 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

bool are_channels(const std::string& text) {
    const std::vector<std::string> words = split_words(text);
    return std::all_of(words.begin(), words.end(), [](const std::string& word) {
        const std::optional<int> number = parse_number(word);
        return number && *number >= 1 && *number <= 177;
    });
}

bool is_right(const Rule& rule, const std::string& text) {
    switch (rule.kind) {
        case Kind::kFlag:
            return text == "true" || text == "false";
        case Kind::kNumber: {
            const std::optional<int> number = parse_number(text);
            return number && *number >= rule.least && *number <= rule.most;
        }
        case Kind::kText:
            return static_cast<int>(text.size()) >= rule.least &&
                   static_cast<int>(text.size()) <= rule.most &&
                   std::none_of(text.begin(), text.end(), is_control);
        case Kind::kOneOf: {
            const std::vector<std::string> words = split_words(rule.words);
            return std::find(words.begin(), words.end(), text) != words.end();
        }
        case Kind::kCountry:
            return is_country(text);
        case Kind::kChannels:
            return are_channels(text);
        case Kind::kHolder:
            return parse_mac(text).has_value() || parse_bare_mac(text).has_value();
        case Kind::kAny:
            break;
    }
    return true;
}

std::string takes(const Rule& rule) {
    switch (rule.kind) {
        case Kind::kFlag:
            return "true or false";
        case Kind::kNumber:
            return "a number from " + std::to_string(rule.least) + " to " +
                   std::to_string(rule.most);
        case Kind::kText:
            return "a text of " + std::to_string(rule.least) + " to " + std::to_string(rule.most) +
                   " bytes";
        case Kind::kOneOf:
            return std::string{"one of "} + rule.words;
        case Kind::kCountry:
            return "two capital letters, for example DE";
        case Kind::kChannels:
            return "channel numbers with blanks between, for example 1 6 11";
        case Kind::kHolder:
            return "a MAC address, for example 02:00:00:00:00:01";
        case Kind::kAny:
            break;
    }
    return "anything";
}

}  // namespace

std::string why_refused(const std::string& path, json_object* value) {
    const Rule* const rule = rule_of(path);
    if (rule == nullptr)
        return "there is no setting " + for_log(path);
    if (rule->kind == Kind::kAny)
        return is_deeper_than(value, kDeepest) ? path + ": the value is nested too deeply" : "";
    const bool scalar = json_object_is_type(value, json_type_array) == 0 &&
                        json_object_is_type(value, json_type_object) == 0 && value != nullptr;
    const std::string text = scalar_text(value);
    if (scalar && is_right(*rule, text))
        return "";
    const std::string shown =
        is_secret(path) ? "the value" : '"' + for_log(scalar ? text : compact(value)) + '"';
    return path + ": " + shown + " is not " + takes(*rule);
}

std::string why_tree_refused(json_object* tree, const std::string& path) {
    if (json_object_is_type(tree, json_type_object) == 0)
        return why_refused(path, tree);
    // Where a value belongs, or at no setting at all, an object without members is as wrong.
    if (json_object_object_length(tree) == 0)
        return leads_to_settings(path) ? "" : why_refused(path, tree);
    std::string reason;
    for_each_member(tree, [&](const std::string& name, json_object* child) {
        if (!reason.empty())
            return;
        const bool is_name = !name.empty() && name.find('/') == std::string::npos;
        reason = is_name ? why_tree_refused(child, path + '/' + name)
                         : "there is no setting \"" + for_log(name) + "\" at " + path + '/';
    });
    return reason;
}

std::string why_refused_of_service(const std::string& path, json_object* value) {
    const std::vector<std::string> names = split_path(path);
    const bool is_whole = matches(kMacLists, names) || matches("/interface/V/vap/ft-config", names);
    if (!is_whole)
        return why_refused(path, value);
    return json_object_is_type(value, json_type_object) != 0 ? "" : path + ": it is no object";
}

Json default_value(const std::string& path) {
    const Rule* const rule = rule_of(path);
    if (rule == nullptr)
        return nullptr;
    std::string text = rule->otherwise;
    if (text.empty() && rule->kind == Kind::kFlag)
        text = "false";
    if (text.empty())
        return nullptr;
    return rule->kind == Kind::kAny ? parse_json(text) : Json{json_object_new_string(text.c_str())};
}

bool is_secret(const std::string& path) {
    constexpr std::array<const char*, 5> names = {"passphrase", "radius-secret", "r0-kh-key",
                                                  "r1-kh-key", "hostapd"};
    const std::vector<std::string> parts = split_path(path);
    return std::any_of(parts.begin(), parts.end(), [&](const std::string& part) {
        return std::find(names.begin(), names.end(), part) != names.end();
    });
}

std::string canonical_path(const std::string& path) {
    std::vector<std::string> names = split_path(path);
    if (names.size() < 2 || names[0] != "interface")
        return path;
    for (int radio = 0; radio < kRadios; radio++)
        for (int vap = 0; vap < kVaps; vap++)
            if (names[1] == radio_name(radio) + "-vap" + std::to_string(vap))
                names[1] = vap_name({radio, vap});
    std::string result;
    for (const std::string& name : names)
        result += '/' + name;
    return result;
}

std::vector<KnownSetting> known_settings() {
    std::vector<KnownSetting> result;
    for (const Rule& rule : kRules)
        result.push_back({rule.path, takes(rule)});
    return result;
}

}  // namespace apd
