// The elements of a beacon: a byte for the channel that it was heard on, then the elements.
#include "input.h"
#include "platform-specific/nl80211_elements.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    const std::vector<std::uint8_t> elements{data + 1, data + size};
    const bss_channel channel = bss_elements::parse(elements, data[0]).channel;
    // The primary channel lies within its wide one.
    fuzz::require((channel.sub_band >> 8) < channel.bw / 20);
    fuzz::require(channel.chanspec() != 0);
    return 0;
}
