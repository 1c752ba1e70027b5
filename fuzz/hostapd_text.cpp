// What hostapd says: a byte for what it is taken for, then the text.
#include "input.h"
#include "platform-specific/hostapd_texts.h"

namespace {

void read_neighbours(std::string_view text) {
    for (const libhubd::MacAddr& bssid : hostapd_texts::neighbours(text)) {
        fuzz::require(bssid.is_valid());
        fuzz::require(hostapd_texts::set_neighbour({bssid, 1, 81, 0}, text).find('\n') ==
                      std::string::npos);
    }
}

void read_event(std::string_view text) {
    const std::string_view ifname = hostapd_texts::take_interface(text);
    fuzz::require(ifname.find(' ') == std::string_view::npos);
    if (const auto response = hostapd_texts::read_transition_response(text))
        fuzz::require(response->station.size() == sizeof "00:00:00:00:00:00" - 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Reader input{fuzz::as_text(data, size)};
    const unsigned kind = input.byte() % 3;
    // On the heap, so that a look behind the end is seen.
    const std::vector<char> copy{input.rest().begin(), input.rest().end()};
    const std::string_view text{copy.data(), copy.size()};
    if (kind == 0)
        read_neighbours(text);
    else if (kind == 1)
        read_event(text);
    else
        hostapd_texts::supports_transition(text);
    return 0;
}
