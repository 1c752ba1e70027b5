#include "hostapd_texts.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "driver_io.h"

namespace {

using libhubd::MacAddr;

// BSSID Information (IEEE 802.11, 9.4.2.36) of an access point of the same network: reachable, with
// the same security and key scope, with QoS, radio measurement and HT; at 5 GHz also VHT.
constexpr unsigned reachable = 3;
constexpr unsigned same_security = 1U << 2;
constexpr unsigned same_key_scope = 1U << 3;
constexpr unsigned has_qos = 1U << 5;
constexpr unsigned has_radio_measurement = 1U << 7;
constexpr unsigned has_ht = 1U << 11;
constexpr unsigned has_vht = 1U << 12;
constexpr unsigned ht_information =
    reachable | same_security | same_key_scope | has_qos | has_radio_measurement | has_ht;

// dot11PHYType (annex C).
constexpr unsigned phy_type_ht = 7;
constexpr unsigned phy_type_vht = 9;

constexpr std::size_t command_size = 4096;  // of hostapd
constexpr std::size_t item_size = 128;
constexpr int last_2ghz = 14;

unsigned information_of(int channel) {
    return channel <= last_2ghz ? ht_information : ht_information | has_vht;
}

unsigned phy_type_of(int channel) {
    return channel <= last_2ghz ? phy_type_ht : phy_type_vht;
}

// A MAC address, and nothing else, at the beginning of the text; hostapd writes only this form.
std::optional<MacAddr> read_mac(std::string_view text) {
    constexpr std::size_t length = sizeof "00:00:00:00:00:00" - 1;
    if (text.size() < length || text[2] != ':')
        return std::nullopt;
    text = text.substr(0, length);
    const MacAddr address = MacAddr::from_str(std::string{text}.c_str());
    return address.is_valid() && text.find('\0') == std::string_view::npos ? std::optional{address}
                                                                           : std::nullopt;
}

// Calls with each line, without its end.
template <typename Visit>
void for_each_line(std::string_view text, const Visit& visit) {
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        visit(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

// The value behind " name=" in a line of words.
std::string_view word_value(std::string_view line, std::string_view name) {
    const std::size_t at = line.find(name);
    if (at == std::string_view::npos)
        return {};
    line.remove_prefix(at + name.size());
    return line.substr(0, line.find(' '));
}

std::optional<unsigned> hex_byte(std::string_view digits) {
    unsigned value = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    return error == std::errc{} && end == digits.data() + digits.size() ? std::optional{value}
                                                                        : std::nullopt;
}

}  // namespace

namespace hostapd_texts {

std::uint8_t operating_class_of(std::uint8_t operating_class, int channel) {
    struct range {
        int last;
        std::uint8_t operating_class;
    };
    constexpr std::uint8_t unknown = 255;
    constexpr std::array ranges = {range{13, 81},   range{14, 82},   range{48, 115}, range{64, 118},
                                   range{144, 121}, range{161, 124}, range{177, 125}};
    if (operating_class != unknown)
        return operating_class;
    for (const range& entry : ranges)
        if (channel <= entry.last)
            return entry.operating_class;
    return operating_class;
}

std::string to_hex(std::string_view bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(2 * bytes.size());
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        hex += digits[byte >> 4];
        hex += digits[byte & 0xF];
    }
    return hex;
}

std::string set_neighbour(const hostapd_neighbour& neighbour, std::string_view ssid) {
    // The element's body: BSSID, information with its lowest byte first, class, channel, PHY type.
    const unsigned information = information_of(neighbour.channel);
    return "SET_NEIGHBOR " + neighbour.bssid.str() + " ssid=" + to_hex(ssid) +
           driver_io::format_cut(
               item_size, " nr=%s%02x%02x0000%02x%02x%02x", neighbour.bssid.str_solid().c_str(),
               information & 0xFF, information >> 8, neighbour.operating_class,
               static_cast<unsigned>(neighbour.channel) & 0xFF, phy_type_of(neighbour.channel));
}

std::string remove_neighbour(const MacAddr& bssid) {
    return "REMOVE_NEIGHBOR " + bssid.str();
}

std::string transition_request(const MacAddr& station, std::vector<hostapd_neighbour> candidates,
                               std::size_t& left_out) {
    constexpr std::size_t candidates_room = 32;  // hostapd builds the elements in 1000 bytes
    constexpr int least_preference = 1;          // 0 would forbid the candidate
    constexpr int most_preference = 255;
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const hostapd_neighbour& a, const hostapd_neighbour& b) {
                         return a.preference > b.preference;
                     });
    left_out = candidates.size() - std::min(candidates.size(), candidates_room);
    candidates.resize(candidates.size() - left_out);
    std::string command = "BSS_TM_REQ " + station.str();
    if (!candidates.empty())
        command += " pref=1 abridged=1";
    for (const hostapd_neighbour& candidate : candidates)
        command += driver_io::format_cut(
            item_size, " neighbor=%s,0x%x,%u,%u,%u,0301%02x", candidate.bssid.str().c_str(),
            information_of(candidate.channel), candidate.operating_class,
            static_cast<unsigned>(candidate.channel) & 0xFF, phy_type_of(candidate.channel),
            static_cast<unsigned>(
                std::clamp(candidate.preference, least_preference, most_preference)));
    static_assert(candidates_room * item_size <= command_size);
    return command;
}

std::vector<MacAddr> neighbours(std::string_view answer) {
    std::vector<MacAddr> result;
    for_each_line(answer, [&result](std::string_view line) {
        if (const std::optional<MacAddr> bssid = read_mac(line))
            result.push_back(*bssid);
    });
    return result;
}

std::string_view value_of(std::string_view answer, std::string_view name) {
    std::string_view value;
    for_each_line(answer, [&](std::string_view line) {
        if (value.empty() && line.size() > name.size() && line.starts_with(name) &&
            line[name.size()] == '=')
            value = line.substr(name.size() + 1);
    });
    return value;
}

bool supports_transition(std::string_view answer) {
    constexpr std::size_t transition_byte = 2;  // bit 19 of all
    constexpr unsigned transition_bit = 1U << 3;
    const std::string_view capabilities = value_of(answer, "ext_capab");
    if (capabilities.size() < 2 * (transition_byte + 1))
        return false;
    const std::optional<unsigned> byte = hex_byte(capabilities.substr(2 * transition_byte, 2));
    return byte && (*byte & transition_bit) != 0;
}

std::optional<transition_response> read_transition_response(std::string_view event) {
    constexpr std::string_view name = "BSS-TM-RESP ";
    if (!event.starts_with(name))
        return std::nullopt;
    event.remove_prefix(name.size());
    const std::optional<MacAddr> station = read_mac(event);
    const std::string_view status = word_value(event, " status_code=");
    transition_response response;
    const auto [end, error] =
        std::from_chars(status.data(), status.data() + status.size(), response.status);
    if (!station || error != std::errc{} || end != status.data() + status.size())
        return std::nullopt;
    response.station = station->str();
    if (const std::optional<MacAddr> target = read_mac(word_value(event, " target_bssid=")))
        response.target = target->str();
    return response;
}

std::string_view take_interface(std::string_view& event) {
    constexpr std::string_view name = "IFNAME=";
    if (!event.starts_with(name))
        return {};
    const std::string_view ifname = event.substr(name.size(), event.find(' ') - name.size());
    event.remove_prefix(std::min(name.size() + ifname.size() + 1, event.size()));
    return ifname;
}

}  // namespace hostapd_texts
