// Texts that are exchanged with hostapd's control sockets. Its answers are read as bytes of which
// nothing is trusted.
#ifndef LUMD_HOSTAPD_TEXTS_H
#define LUMD_HOSTAPD_TEXTS_H

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "driver_interface.h"

// A neighbour as it is announced to clients (Neighbor Report element, IEEE 802.11, 9.4.2.36).
struct hostapd_neighbour {
    libhubd::MacAddr bssid;
    int channel = 0;
    std::uint8_t operating_class = 0;
    int preference = 0;  // of a candidate for a transition; the larger the better (9.4.2.36)
};

namespace hostapd_texts {

// Number of the operating class of 20 MHz channels that `channel` is in, of those that hold in all
// countries (annex E, table E-4); `operating_class` itself where it is one and not "unknown" (255).
std::uint8_t operating_class_of(std::uint8_t operating_class, int channel);

std::string to_hex(std::string_view bytes);

// Commands.
std::string set_neighbour(const hostapd_neighbour& neighbour, std::string_view ssid);
std::string remove_neighbour(const libhubd::MacAddr& bssid);
// A request to move (9.6.13.9) with as many of the candidates as hostapd has room for, the
// preferred ones first; `left_out` counts the others.
std::string transition_request(const libhubd::MacAddr& station,
                               std::vector<hostapd_neighbour> candidates, std::size_t& left_out);

// BSSIDs of the answer to SHOW_NEIGHBOR, whose last line hostapd may have cut.
std::vector<libhubd::MacAddr> neighbours(std::string_view answer);
// The value behind "name=" at the beginning of a line; empty when there is none.
std::string_view value_of(std::string_view answer, std::string_view name);
// Whether the extended capabilities in the answer to "STA" say BSS Transition (9.4.2.26).
bool supports_transition(std::string_view answer);

// What a client says to a request to move.
struct transition_response {
    std::string station;
    unsigned status = 0;  // 0: it accepts (9.4.1.9 has the others)
    std::string target;   // BSSID; empty when it names none
};
// Empty for any other event.
std::optional<transition_response> read_transition_response(std::string_view event);

// Takes "IFNAME=NAME " off an event of the global socket; the name, empty when there is none.
std::string_view take_interface(std::string_view& event);

}  // namespace hostapd_texts

#endif
