/*
 * KRDS: the radio-description registry, which radios this unit has, read from radios.json in
 * $LUMD_PLATFORM_DIR (default /etc/lumd):
 *     {"radios": [{"ifname": "wlan0", "driver": "rtl8192cd" | "g6" | "nl80211",
 *                  "bands": ["2.4GHz" | "5GHz" | "6GHz", ...],
 *                  "antenna-gain": {"type": "fixed", "value": 3} | {"type": "configurable"}
 *                                | {"type": "none"}}]}
 * The order in the file is the registry's order. The file is read once, at the first question.
 * An entry without a name or a known driver, a second one of the same name and an unknown band are
 * skipped, each with an error line; so is the whole of a missing or malformed file.
 */
#ifndef PLATFORM_KRDS_H
#define PLATFORM_KRDS_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace KRDS {

// NL80211: a driver of Linux itself (mac80211), in builds that have the libraries for it; in others
// its name is unknown.
enum class Driver : std::int32_t { RTL8192CD = 0, G6 = 1, NL80211 = 2 };

enum class Band : std::int32_t { UNSUPPORTED = 0, BAND_24G = 1, BAND_5G = 2, BAND_6G = 3 };

enum class AntennaGainType : std::int32_t { FIXED = 0, CONFIGURABLE = 1, NONE = 2 };

struct RadioDescription {
    Driver driver = Driver::RTL8192CD;
    std::vector<Band> bands;  // in the file's order
    AntennaGainType antenna_gain_type = AntennaGainType::NONE;
    int fixed_antenna_gain = 0;  // dB, for AntennaGainType::FIXED

    // The first supported band; UNSUPPORTED without any.
    [[nodiscard]] Band band() const;
};

// Called with each radio's interface name and description; true ends the walk.
using RadioCallback = std::function<bool(const std::string& ifname, const RadioDescription&)>;

// Walks all radios in the registry's order. Any thread.
void for_each_radio(const RadioCallback& callback);

// The description of one radio; empty when there is none of that name. Any thread.
[[nodiscard]] std::optional<RadioDescription> find_radio(const std::string& ifname);

// Forgets what was read, so that the next question reads the file again.
void reload();

}  // namespace KRDS

#endif
