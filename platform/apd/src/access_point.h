// The settings of an access point, read out of the tree once into plain records. Who reads these
// need not look for what is missing, misspelt or at odds.
#ifndef PLATFORM_APD_ACCESS_POINT_H
#define PLATFORM_APD_ACCESS_POINT_H

#include <array>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "channel.h"
#include "ft_config.h"
#include "interface_name.h"
#include "json.h"

namespace apd {

inline constexpr int kMaxStations = 2007;  // association ids, IEEE 802.11-2020 9.4.1.8

struct RadiusServer {
    std::string address;
    int port = 1812;
    std::string secret;
    bool operator==(const RadiusServer&) const = default;
};

// Lines of hostapd.conf(5) beyond those that apd writes.
using HostapdOptions = std::map<std::string, std::string>;

struct VapConfig {
    VapId id;
    std::string ssid;
    std::string bridge;  // empty: none
    bool hidden = false;
    bool isolate = false;
    std::optional<int> max_stations;
    std::string security = "OPEN";  // a mode of apd.json(5)
    std::string passphrase;         // of the modes that end in PSK and SAE
    RadiusServer radius;            // of those that end in 1X
    bool rrm = false;               // 802.11k and 802.11v
    FtConfig ft;                    // enabled only where the security mode allows it
    HostapdOptions options;
    bool operator==(const VapConfig&) const = default;

    [[nodiscard]] bool is_enterprise() const { return security.ends_with("1X"); }
    // WPA2 or WPA3 and nothing older, as the agent judges by the mode's name.
    [[nodiscard]] bool is_wpa23() const {
        return security.find("WPA_") == std::string::npos && security.starts_with("WPA");
    }
};

struct RadioConfig {
    int id = 0;
    std::string phy;      // empty: that of the interface with the radio's name
    std::string country;  // empty: as the kernel has it
    bool five_ghz = false;
    bool auto_channel = false;  // then `channel` has the width alone
    Channel channel;
    std::optional<int> tx_power;  // dBm; none: what the kernel takes
    HostapdOptions options;
    std::vector<VapConfig> vaps;  // the enabled ones, by number
    bool operator==(const RadioConfig&) const = default;
};

// None for a radio without settings or enabled access points.
using AccessPoint = std::array<std::optional<RadioConfig>, kRadios>;

// Nothing, with the reason, when something is missing or at odds.
[[nodiscard]] std::optional<AccessPoint> read_access_point(json_object* tree, std::string& reason);

// The same for ConfigStore: the reason alone.
[[nodiscard]] std::string judge_access_point(json_object* tree);

}  // namespace apd

#endif
