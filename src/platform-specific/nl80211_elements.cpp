#include "nl80211_elements.h"

#include <algorithm>
#include <array>
#include <cstdlib>

#include "driver_interface.h"

namespace {

using bytes = std::span<const std::uint8_t>;

// Element IDs (IEEE 802.11, 9.4.2.1).
constexpr std::uint8_t id_dsss_parameter_set = 3;
constexpr std::uint8_t id_country = 7;
constexpr std::uint8_t id_power_constraint = 32;
constexpr std::uint8_t id_tpc_report = 35;
constexpr std::uint8_t id_ht_operation = 61;
constexpr std::uint8_t id_vht_operation = 192;
constexpr std::uint8_t id_extension = 255;
constexpr std::uint8_t id_extension_he_operation = 36;

constexpr std::size_t header_size = 2;  // ID and length
// Sizes of contents, fields that are always there.
constexpr std::size_t dsss_parameter_set_size = 1;
constexpr std::size_t country_string_size = 3;
constexpr std::size_t power_constraint_size = 1;
constexpr std::size_t tpc_report_size = 2;
constexpr std::size_t ht_operation_size = 22;
constexpr std::size_t vht_operation_size = 5;
constexpr std::size_t he_operation_size = 6;
constexpr std::size_t vht_information_size = 3;
constexpr std::size_t co_hosted_size = 1;
constexpr std::size_t information_6ghz_size = 5;

// Numbers of neighbouring 20 MHz channels differ by this (but in the 2.4 GHz band, whose channels
// overlap), and those of a channel's centre and its half as wide half's centre by half its width.
constexpr int channel_step = 4;
constexpr int narrow = 20;
constexpr int sub_band_shift = 8;

// The elements that are of use; empty spans for those that are missing.
struct found_elements {
    bytes dsss_parameter_set;
    bytes country;
    bytes power_constraint;
    bytes tpc_report;
    bytes ht_operation;
    bytes vht_operation;
    bytes he_operation;  // behind its ID extension

    void keep(std::uint8_t id, bytes content);
};

void keep_first(bytes& place, bytes content, std::size_t least) {
    if (place.empty() && content.size() >= least)
        place = content;
}

void found_elements::keep(std::uint8_t id, bytes content) {
    switch (id) {
        case id_dsss_parameter_set:
            return keep_first(dsss_parameter_set, content, dsss_parameter_set_size);
        case id_country:
            return keep_first(country, content, country_string_size);
        case id_power_constraint:
            return keep_first(power_constraint, content, power_constraint_size);
        case id_tpc_report:
            return keep_first(tpc_report, content, tpc_report_size);
        case id_ht_operation:
            return keep_first(ht_operation, content, ht_operation_size);
        case id_vht_operation:
            return keep_first(vht_operation, content, vht_operation_size);
        case id_extension:
            if (!content.empty() && content.front() == id_extension_he_operation)
                keep_first(he_operation, content.subspan(1), he_operation_size);
            return;
        default:
            return;
    }
}

found_elements find(bytes elements) {
    found_elements found;
    while (elements.size() >= header_size) {
        const std::size_t length = elements[1];
        if (length > elements.size() - header_size)
            break;
        found.keep(elements[0], elements.subspan(header_size, length));
        elements = elements.subspan(header_size + length);
    }
    return found;
}

// --- channel ---

// HT Operation, 9.4.2.55: the Secondary Channel Offset.
bss_channel ht_channel(bytes operation, int primary) {
    constexpr int offset_mask = 3;
    constexpr int above = 1;
    constexpr int below = 3;
    const int offset = operation.empty() ? 0 : operation[1] & offset_mask;
    if (offset != above && offset != below)
        return {primary, narrow, 0};
    const int towards = offset == above ? 1 : -1;
    return bss_channel::within(primary, 2 * narrow, primary + towards * channel_step / 2);
}

// The three bytes that the VHT Operation element begins with (9.4.2.158), which the HE Operation
// element repeats: Channel Width and two centres. Empty for a BSS of 20 or 40 MHz.
std::optional<bss_channel> vht_channel(bytes operation, int primary) {
    if (operation.size() < vht_information_size)
        return std::nullopt;
    constexpr int width_narrow = 0;
    constexpr int width_wide = 1;
    constexpr int width_160 = 2;  // of old devices, as the next
    constexpr int width_80_80 = 3;
    constexpr int half_of_160 = 8;  // between the centres of 160 MHz and of its 80 MHz
    const int width = operation[0];
    const int centre = operation[1];
    const int second = operation[2];
    if (width == width_narrow || width > width_80_80)
        return std::nullopt;
    if (width == width_160)
        return bss_channel::within(primary, 160, centre);
    if (width == width_wide && second != 0 && std::abs(second - centre) == half_of_160)
        return bss_channel::within(primary, 160, second);
    return bss_channel::within(primary, 80, centre);
}

// The optional parts of the HE Operation element, 9.4.2.249, each announced by a bit.
struct he_parts {
    bytes vht;      // VHT Operation Information
    bytes in_6ghz;  // 6 GHz Operation Information

    explicit he_parts(bytes operation) {
        if (operation.size() < he_operation_size)
            return;
        constexpr unsigned vht_present = 1U << 14;
        constexpr unsigned co_hosted = 1U << 15;
        constexpr unsigned in_6ghz_present = 1U << 17;
        const unsigned parameters = operation[0] | static_cast<unsigned>(operation[1]) << 8 |
                                    static_cast<unsigned>(operation[2]) << 16;
        bytes rest = operation.subspan(he_operation_size);
        const auto take = [&rest](std::size_t size) {
            const bytes part = rest.first(std::min(size, rest.size()));
            rest = rest.subspan(part.size());
            return part.size() == size ? part : bytes{};
        };
        if ((parameters & vht_present) != 0)
            vht = take(vht_information_size);
        if ((parameters & co_hosted) != 0)
            take(co_hosted_size);
        if ((parameters & in_6ghz_present) != 0)
            in_6ghz = take(information_6ghz_size);
    }
};

// Primary channel, control (width in its lowest bits), two centres.
bss_channel channel_in_6ghz(bytes information) {
    constexpr std::array widths = {20, 40, 80, 160};
    constexpr int half_of_160 = 8;
    const int primary = information[0];
    const int centre = information[2];
    const int second = information[3];
    int width = widths[information[1] & 3];
    if (width == widths.back() && second != 0 && std::abs(second - centre) == half_of_160)
        return bss_channel::within(primary, width, second);
    if (width == widths.back() && second != 0)
        width = 80;
    return bss_channel::within(primary, width, centre);
}

bss_channel channel_of(const found_elements& found, int heard_on) {
    const he_parts he{found.he_operation};
    if (!he.in_6ghz.empty())
        return channel_in_6ghz(he.in_6ghz);
    int primary = heard_on;
    if (!found.ht_operation.empty())
        primary = found.ht_operation.front();
    else if (!found.dsss_parameter_set.empty())
        primary = found.dsss_parameter_set.front();
    for (const bytes wide : {he.vht, found.vht_operation})
        if (const std::optional<bss_channel> channel = vht_channel(wide, primary))
            return *channel;
    return ht_channel(found.ht_operation, primary);
}

// --- power ---

// The limit on `channel` in the Country element's subband triplets: first channel, number of
// channels, dBm.
std::optional<int> country_limit(bytes country, int channel) {
    constexpr std::size_t triplet_size = 3;
    constexpr int first_extension = 201;  // from here on a triplet names an operating class
    constexpr int last_2ghz_channel = 14;
    if (country.empty())
        return std::nullopt;
    for (bytes rest = country.subspan(country_string_size); rest.size() >= triplet_size;
         rest = rest.subspan(triplet_size)) {
        const int first = rest[0];
        if (first >= first_extension)
            continue;
        const int step = first <= last_2ghz_channel ? 1 : channel_step;
        if (channel >= first && channel <= first + (rest[1] - 1) * step)
            return rest[2];
    }
    return std::nullopt;
}

std::optional<int> power_of(const found_elements& found, int channel) {
    if (!found.tpc_report.empty())
        return static_cast<std::int8_t>(found.tpc_report.front());
    const std::optional<int> limit = country_limit(found.country, channel);
    if (limit && !found.power_constraint.empty())
        return *limit - found.power_constraint.front();
    return limit;
}

}  // namespace

bss_channel bss_channel::within(int primary, int bw, int centre) {
    const int lowest = centre - (bw / narrow - 1) * channel_step / 2;
    const int distance = primary - lowest;
    const int position = distance / channel_step;
    if (distance < 0 || distance % channel_step != 0 || position >= bw / narrow)
        return {primary, narrow, 0};
    return {primary, bw, position << sub_band_shift};
}

std::uint32_t bss_channel::chanspec() const {
    constexpr std::uint32_t centre_mask = 0xFF;
    const int widest = std::min(bw, 80);
    // The position within the 80 MHz.
    const int position = (sub_band >> sub_band_shift) % (widest / narrow);
    const auto bits = static_cast<std::uint32_t>(position << sub_band_shift);
    const int lowest = primary - position * channel_step;
    const auto centre =
        static_cast<std::uint32_t>(lowest + (widest / narrow - 1) * channel_step / 2) & centre_mask;
    switch (widest) {
        case 80:
            return LWLIO_CHANSPEC_BW_80 | bits | centre;
        case 40:
            return LWLIO_CHANSPEC_BW_40 | bits | centre;
        default:
            return LWLIO_CHANSPEC_BW_20 | centre;
    }
}

bss_elements bss_elements::parse(bytes elements, int heard_on) {
    const found_elements found = find(elements);
    bss_elements result;
    result.channel = channel_of(found, heard_on);
    result.tx_power = power_of(found, result.channel.primary);
    return result;
}
