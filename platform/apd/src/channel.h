// Channels of the 2.4 and 5 GHz bands as the agent's settings name them, and as hostapd and the
// kernel do: IEEE 802.11-2020 annex E.
#ifndef PLATFORM_APD_CHANNEL_H
#define PLATFORM_APD_CHANNEL_H

#include <optional>
#include <string>

namespace apd {

// Where the primary channel lies within 40 MHz.
enum class Sideband { kNone, kLower, kUpper };

struct Channel {
    int number = 0;  // primary
    int width = 20;  // MHz: 20, 40 or 80
    Sideband sideband = Sideband::kNone;
    auto operator<=>(const Channel&) const = default;
};

// The same in MHz.
struct Frequencies {
    int primary = 0;
    int center = 0;            // of the whole width
    int secondary_offset = 0;  // 1: the secondary channel lies above, -1: below, 0: there is none
};

[[nodiscard]] bool is_5ghz(int number);
[[nodiscard]] std::optional<int> channel_of_frequency(int mhz);
[[nodiscard]] int frequency_of_channel(int number);

// The number that stands for these MHz, also between channels, where the centre of a wide one lies.
[[nodiscard]] int channel_number_of(int mhz);

// With the sideband that 5 GHz prescribes at 40 MHz, and one that fits where 2.4 GHz leaves the
// choice open. Nothing, and `reason` says why, for what there is not.
[[nodiscard]] std::optional<Channel> complete(Channel channel, std::string& reason);

// Of a channel that complete() has given.
[[nodiscard]] Frequencies frequencies_of(const Channel& channel);

// The channel that these frequencies name; nothing when they name none of ours.
[[nodiscard]] std::optional<Channel> channel_of(int primary, int width, int center);

// hostapd's CHAN_SWITCH with the announcements before it; `modes` such as "ht vht".
[[nodiscard]] std::string switch_command(const Channel& channel, const std::string& modes);

// "11", "36 (80 MHz)", "6 (40 MHz, lower)".
[[nodiscard]] std::string to_text(const Channel& channel);

[[nodiscard]] const char* sideband_text(Sideband sideband);
[[nodiscard]] std::optional<Sideband> parse_sideband(const std::string& text);

}  // namespace apd

#endif
