// What the elements of a beacon or probe response (IEEE 802.11, 9.4.2) tell about the channel and
// the power of its BSS. The bytes come from the air: nothing in them is trusted.
#ifndef LUMD_NL80211_ELEMENTS_H
#define LUMD_NL80211_ELEMENTS_H

#include <cstdint>
#include <optional>
#include <span>

// A channel as this machine's records carry it.
struct bss_channel {
    int primary = 0;   // number of the primary 20 MHz channel
    int bw = 20;       // MHz: 20, 40, 80 or 160; of 80+80 MHz the half with the primary channel
    int sub_band = 0;  // control sub-band bits of a chanspec

    // The primary channel within `bw` MHz around the channel number `centre`. 20 MHz when it does
    // not lie there.
    static bss_channel within(int primary, int bw, int centre);
    // As a chanspec, which knows up to 80 MHz: of a wider channel the 80 MHz with the primary one.
    [[nodiscard]] std::uint32_t chanspec() const;

    bool operator==(const bss_channel&) const = default;
};

struct bss_elements {
    bss_channel channel;
    // dBm: what the BSS says it sends with (TPC Report, 9.4.2.16), else what its country allows on
    // the channel less its own constraint (Country, 9.4.2.8; Power Constraint, 9.4.2.13).
    std::optional<int> tx_power;

    // `heard_on` is the number of the channel that the frame was received on, which counts where no
    // element tells another. Elements behind one whose length is wrong are left out.
    static bss_elements parse(std::span<const std::uint8_t> elements, int heard_on);
};

#endif
