// The names of the agent's interfaces: "wlanN" is a radio's own, "wlanN-vaM" one of its access
// points.
#ifndef PLATFORM_APD_INTERFACE_NAME_H
#define PLATFORM_APD_INTERFACE_NAME_H

#include <optional>
#include <string>

namespace apd {

inline constexpr int kRadios = 2;  // what the agent manages
inline constexpr int kVaps = 7;    // of each radio

struct VapId {
    int radio = 0;  // from 0, below kRadios
    int vap = 0;    // from 0, below kVaps
    auto operator<=>(const VapId&) const = default;
};

[[nodiscard]] std::string radio_name(int radio);
[[nodiscard]] std::string vap_name(VapId id);

// Nothing for any other name, numbers out of range or with leading zeros included.
[[nodiscard]] std::optional<int> parse_radio(const std::string& name);
[[nodiscard]] std::optional<VapId> parse_vap(const std::string& name);

}  // namespace apd

#endif
