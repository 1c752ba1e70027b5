#include "channel.h"

#include <cstdlib>

namespace apd {

namespace {

constexpr int kLast24 = 14;
constexpr int kSpacing = 5;  // MHz between channel numbers
constexpr int kBase24 = 2407;
constexpr int kBase5 = 5000;
constexpr int kChannel14 = 2484;
constexpr int kHalf40 = 10;  // MHz from the primary's to the 40 MHz centre
constexpr int kBeacons = 5;  // that announce a switch

// The 20 MHz channels of 5 GHz stand in three runs, each of which begins a grid of wider ones.
struct Run {
    int first;
    int last;
};
constexpr Run kRuns[] = {{36, 64}, {100, 144}, {149, 177}};

const Run* run_of(int number) {
    for (const Run& run : kRuns)
        if (number >= run.first && number <= run.last && (number - run.first) % 4 == 0)
            return &run;
    return nullptr;
}

// First channel of the block of `width` MHz that the channel lies in; nothing when the run ends
// before the block does.
std::optional<int> block_of(int number, int width) {
    const Run* const run = run_of(number);
    if (run == nullptr)
        return std::nullopt;
    const int channels = width / kSpacing;
    const int first = run->first + (number - run->first) / channels * channels;
    if (first + channels - 4 > run->last)
        return std::nullopt;
    return first;
}

Sideband prescribed(int number) {
    return block_of(number, 40) == number ? Sideband::kLower : Sideband::kUpper;
}

// With 13 channels the secondary of channels 1 to 9 may lie above and that of 5 to 13 below.
bool fits_24(int number, Sideband sideband) {
    return sideband == Sideband::kLower ? number <= 9 : number >= 5 && number <= 13;
}

std::optional<Channel> complete_24(Channel channel, std::string& reason) {
    if (channel.width > 40) {
        reason = "there is no " + std::to_string(channel.width) + " MHz at 2.4 GHz";
        return std::nullopt;
    }
    if (channel.width == 20)
        return channel;
    if (channel.sideband == Sideband::kNone)
        channel.sideband = fits_24(channel.number, Sideband::kLower) && channel.number < 8
                               ? Sideband::kLower
                               : Sideband::kUpper;
    if (!fits_24(channel.number, channel.sideband)) {
        reason = "channel " + std::to_string(channel.number) + " cannot be the " +
                 sideband_text(channel.sideband) + " half of 40 MHz";
        return std::nullopt;
    }
    return channel;
}

std::optional<Channel> complete_5(Channel channel, std::string& reason) {
    if (!block_of(channel.number, channel.width)) {
        reason = run_of(channel.number) == nullptr
                     ? "there is no channel " + std::to_string(channel.number)
                     : "channel " + std::to_string(channel.number) + " is in no " +
                           std::to_string(channel.width) + " MHz channel";
        return std::nullopt;
    }
    if (channel.width != 40)
        return channel;
    if (channel.sideband != Sideband::kNone && channel.sideband != prescribed(channel.number)) {
        reason = "channel " + std::to_string(channel.number) + " is the " +
                 sideband_text(prescribed(channel.number)) + " half of its 40 MHz channel";
        return std::nullopt;
    }
    channel.sideband = prescribed(channel.number);
    return channel;
}

}  // namespace

bool is_5ghz(int number) {
    return number > kLast24;
}

int frequency_of_channel(int number) {
    if (number == kLast24)
        return kChannel14;
    return (is_5ghz(number) ? kBase5 : kBase24) + kSpacing * number;
}

int channel_number_of(int mhz) {
    return (mhz - (mhz < kBase5 ? kBase24 : kBase5)) / kSpacing;
}

std::optional<int> channel_of_frequency(int mhz) {
    if (mhz == kChannel14)
        return kLast24;
    const int base = mhz < kBase5 ? kBase24 : kBase5;
    const int number = channel_number_of(mhz);
    if (mhz <= base || (mhz - base) % kSpacing != 0 ||
        (base == kBase24 ? number >= kLast24 : run_of(number) == nullptr))
        return std::nullopt;
    return number;
}

std::optional<Channel> complete(Channel channel, std::string& reason) {
    if (channel.width != 20 && channel.width != 40 && channel.width != 80) {
        reason = "bandwidth " + std::to_string(channel.width) + " is none of 20, 40 and 80 MHz";
        return std::nullopt;
    }
    if (channel.number < 1) {
        reason = "there is no channel " + std::to_string(channel.number);
        return std::nullopt;
    }
    if (channel.width != 40)
        channel.sideband = Sideband::kNone;
    return is_5ghz(channel.number) ? complete_5(channel, reason) : complete_24(channel, reason);
}

Frequencies frequencies_of(const Channel& channel) {
    Frequencies result;
    result.primary = frequency_of_channel(channel.number);
    result.center = result.primary;
    if (channel.width == 40) {
        result.secondary_offset = channel.sideband == Sideband::kLower ? 1 : -1;
        result.center += result.secondary_offset * kHalf40;
    } else if (channel.width > 40) {
        result.secondary_offset = prescribed(channel.number) == Sideband::kLower ? 1 : -1;
        const int first = block_of(channel.number, channel.width).value_or(channel.number);
        result.center = frequency_of_channel(first) + channel.width / 2 - kHalf40;
    }
    return result;
}

std::optional<Channel> channel_of(int primary, int width, int center) {
    const std::optional<int> number = channel_of_frequency(primary);
    if (!number)
        return std::nullopt;
    Channel channel{*number, width, Sideband::kNone};
    if (width == 40)
        channel.sideband = center > primary ? Sideband::kLower : Sideband::kUpper;
    std::string reason;
    return complete(channel, reason);
}

std::string switch_command(const Channel& channel, const std::string& modes) {
    const Frequencies at = frequencies_of(channel);
    std::string command =
        "CHAN_SWITCH " + std::to_string(kBeacons) + ' ' + std::to_string(at.primary);
    if (at.secondary_offset != 0)
        command += " sec_channel_offset=" + std::to_string(at.secondary_offset) +
                   " center_freq1=" + std::to_string(at.center);
    command += " bandwidth=" + std::to_string(channel.width);
    return modes.empty() ? command : command + ' ' + modes;
}

std::string to_text(const Channel& channel) {
    std::string text = std::to_string(channel.number);
    if (channel.width == 20)
        return text;
    text += " (" + std::to_string(channel.width) + " MHz";
    if (channel.sideband != Sideband::kNone)
        text += std::string{", "} + sideband_text(channel.sideband);
    return text + ')';
}

const char* sideband_text(Sideband sideband) {
    switch (sideband) {
        case Sideband::kLower:
            return "lower";
        case Sideband::kUpper:
            return "upper";
        case Sideband::kNone:
            break;
    }
    return "none";
}

std::optional<Sideband> parse_sideband(const std::string& text) {
    for (const Sideband sideband : {Sideband::kNone, Sideband::kLower, Sideband::kUpper})
        if (text == sideband_text(sideband))
            return sideband;
    return std::nullopt;
}

}  // namespace apd
