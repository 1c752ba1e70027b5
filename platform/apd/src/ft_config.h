// 802.11r settings of one access point, as the agent hands them over ("ft-config"), and how hostapd
// is told: hostapd.conf(5), FT.
#ifndef PLATFORM_APD_FT_CONFIG_H
#define PLATFORM_APD_FT_CONFIG_H

#include <optional>
#include <string>
#include <vector>

#include "json.h"
#include "mac_text.h"

namespace apd {

inline constexpr int kLeastDeadline = 1000;  // TU, what hostapd takes
inline constexpr int kMostDeadline = 65535;
inline constexpr int kMaxDomain = 0xFFFF;
inline constexpr int kMaxHolderId = 48;  // bytes of an R0KH-ID, IEEE 802.11-2020 9.4.2.47

// Another access point of the mobility domain.
struct KeyHolder {
    Mac mac{};           // its BSSID
    std::string r0_id;   // empty with `r0_key`: unknown
    std::string r0_key;  // 32 or 64 hexadecimal digits
    Mac r1_id{};
    std::string r1_key;  // the same; empty: unknown
    bool operator==(const KeyHolder&) const = default;
};

struct FtConfig {
    bool enabled = false;
    bool over_ds = false;
    bool generate_local = true;    // keys from the passphrase, without key holders
    std::optional<int> deadline;   // TU
    std::optional<int> domain;     // none: made from the SSID
    std::string r0_holder;         // empty: the interface's name
    std::optional<Mac> r1_holder;  // none: the BSSID
    std::vector<KeyHolder> remotes;
    bool operator==(const FtConfig&) const = default;
};

// Of the object "ft-config"; of none, what is off. Nothing, with the reason, when a value cannot
// be.
[[nodiscard]] std::optional<FtConfig> read_ft_config(json_object* node, std::string& reason);

// Name and value of each line of hostapd.conf(5) but the key holders' and wpa_key_mgmt.
struct HostapdLine {
    std::string name;
    std::string value;
};
[[nodiscard]] std::vector<HostapdLine> ft_lines(const FtConfig& ft, const std::string& ssid,
                                                const std::string& ifname, const Mac& bssid);

// Those of the key holders, in an order in which SET may give them one by one.
[[nodiscard]] std::vector<HostapdLine> key_holder_lines(const std::vector<KeyHolder>& remotes);

// Whether hostapd can take over the difference with its clients connected: the key holders alone
// are read anew at each fast transition, all else when the access point starts.
[[nodiscard]] bool differ_in_key_holders_alone(const FtConfig& one, const FtConfig& other);

// What takes `gone` out of hostapd's lists, in which it keeps whatever it was told: a new entry
// before the old one, with a key that nobody has.
[[nodiscard]] std::vector<KeyHolder> withdrawn(const std::vector<KeyHolder>& before,
                                               const std::vector<KeyHolder>& now);

}  // namespace apd

#endif
