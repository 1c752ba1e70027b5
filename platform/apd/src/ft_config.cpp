#include "ft_config.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

#include "text_values.h"

namespace apd {

namespace {

constexpr std::size_t kKeyBytes = 32;

std::optional<Mac> read_holder(const std::string& text) {
    const std::optional<Mac> mac = parse_mac(text);
    return mac ? mac : parse_bare_mac(text);
}

bool is_key(const std::string& text) {
    return (text.size() == kKeyBytes || text.size() == 2 * kKeyBytes) && is_hex(text);
}

// hostapd parts the words of a key holder's line at blanks.
bool is_holder_id(const std::string& text) {
    return text.size() <= kMaxHolderId &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7F; });
}

// The reason for a refusal, or empty.
std::string read_remote(const std::string& name, json_object* node, KeyHolder& remote) {
    const std::string r1_id = member_text(node, "r1-kh-id");
    const std::optional<Mac> mac = read_holder(r1_id.empty() ? name : r1_id);
    if (!mac)
        return "r1-kh-id \"" + (r1_id.empty() ? name : r1_id) + "\" is no MAC address";
    remote.mac = remote.r1_id = *mac;
    remote.r0_id = member_text(node, "r0-kh-id");
    remote.r0_key = member_text(node, "r0-kh-key");
    remote.r1_key = member_text(node, "r1-kh-key");
    if (!is_holder_id(remote.r0_id))
        return "r0-kh-id of " + to_text(*mac) + " is no text of up to 48 bytes without blanks";
    for (const std::string* key : {&remote.r0_key, &remote.r1_key})
        if (!key->empty() && !is_key(*key))
            return "a key of " + to_text(*mac) + " is not 32 or 64 hexadecimal digits";
    return "";
}

std::string read_remotes(json_object* node, std::vector<KeyHolder>& remotes) {
    std::string reason;
    for_each_member(node, [&](const std::string& name, json_object* child) {
        KeyHolder remote;
        if (reason.empty())
            reason = read_remote(name, child, remote);
        remotes.push_back(std::move(remote));
    });
    return reason;
}

// A text of its own for each way to write the same number.
std::string read_numbers(json_object* node, FtConfig& ft) {
    const struct {
        const char* name;
        int least;
        int most;
        std::optional<int>& value;
    } numbers[] = {{"reassociation-deadline", kLeastDeadline, kMostDeadline, ft.deadline},
                   {"mobility-domain", 0, kMaxDomain, ft.domain}};
    for (const auto& number : numbers) {
        const std::string text = member_text(node, number.name);
        if (text.empty())
            continue;
        number.value = parse_number(text);
        if (!number.value || *number.value < number.least || *number.value > number.most)
            return std::string{number.name} + " \"" + text + "\" is not a number from " +
                   std::to_string(number.least) + " to " + std::to_string(number.most);
    }
    return "";
}

std::string read_holders(json_object* node, FtConfig& ft) {
    ft.r0_holder = member_text(node, "r0-key-holder-id");
    if (!is_holder_id(ft.r0_holder))
        return "r0-key-holder-id \"" + ft.r0_holder +
               "\" is no text of up to 48 bytes without blanks";
    const std::string r1 = member_text(node, "r1-key-holder-id");
    ft.r1_holder = read_holder(r1);
    if (!r1.empty() && !ft.r1_holder)
        return "r1-key-holder-id \"" + r1 + "\" is no MAC address";
    return "";
}

// FNV-1a folded to 16 bits: the same on every access point with this SSID.
int domain_of(const std::string& ssid) {
    std::uint32_t hash = 2166136261U;
    for (const char c : ssid)
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
    return static_cast<int>((hash >> 16) ^ (hash & 0xFFFF));
}

std::string domain_text(int domain) {
    const std::array<char, 2> bytes = {static_cast<char>(domain >> 8),
                                       static_cast<char>(domain & 0xFF)};
    return to_hex({bytes.data(), bytes.size()});
}

std::string key_that_nobody_has() {
    std::array<char, kKeyBytes> key{};
    // Without entropy the zeros would do: no access point holds that key either.
    const ssize_t filled = getrandom(key.data(), key.size(), 0);
    static_cast<void>(filled);
    return to_hex({key.data(), key.size()});
}

}  // namespace

std::optional<FtConfig> read_ft_config(json_object* node, std::string& reason) {
    FtConfig ft;
    ft.enabled = member_text(node, "enabled") == "true";
    ft.over_ds = member_text(node, "ft-over-ds") == "true";
    ft.generate_local = member_text(node, "ft-psk-generate-local") != "false";
    reason = read_numbers(node, ft);
    if (reason.empty())
        reason = read_holders(node, ft);
    if (reason.empty())
        reason = read_remotes(member(node, "mac"), ft.remotes);
    return reason.empty() ? std::optional{ft} : std::nullopt;
}

std::vector<HostapdLine> ft_lines(const FtConfig& ft, const std::string& ssid,
                                  const std::string& ifname, const Mac& bssid) {
    const auto flag = [](bool on) { return std::string{on ? "1" : "0"}; };
    std::vector<HostapdLine> lines = {
        {"mobility_domain", domain_text(ft.domain.value_or(domain_of(ssid)))},
        {"nas_identifier", ft.r0_holder.empty() ? ifname : ft.r0_holder},
        {"r1_key_holder", to_bare_text(ft.r1_holder.value_or(bssid))},
        {"ft_over_ds", flag(ft.over_ds)},
        {"ft_psk_generate_local", flag(ft.generate_local)},
        {"pmk_r1_push", "0"},
    };
    if (ft.deadline)
        lines.push_back({"reassociation_deadline", std::to_string(*ft.deadline)});
    return lines;
}

std::vector<HostapdLine> key_holder_lines(const std::vector<KeyHolder>& remotes) {
    std::vector<HostapdLine> lines;
    for (const KeyHolder& remote : remotes) {
        const std::string mac = to_text(remote.mac);
        if (!remote.r0_id.empty() && !remote.r0_key.empty())
            lines.push_back({"r0kh", mac + ' ' + remote.r0_id + ' ' + remote.r0_key});
        if (!remote.r1_key.empty())
            lines.push_back({"r1kh", mac + ' ' + to_text(remote.r1_id) + ' ' + remote.r1_key});
    }
    return lines;
}

bool differ_in_key_holders_alone(const FtConfig& one, const FtConfig& other) {
    FtConfig same = one;
    same.remotes = other.remotes;
    return same == other;
}

std::vector<KeyHolder> withdrawn(const std::vector<KeyHolder>& before,
                                 const std::vector<KeyHolder>& now) {
    std::vector<KeyHolder> gone;
    for (KeyHolder holder : before) {
        if (std::find(now.begin(), now.end(), holder) != now.end())
            continue;
        if (!holder.r0_key.empty())
            holder.r0_key = key_that_nobody_has();
        if (!holder.r1_key.empty())
            holder.r1_key = key_that_nobody_has();
        gone.push_back(std::move(holder));
    }
    return gone;
}

}  // namespace apd
