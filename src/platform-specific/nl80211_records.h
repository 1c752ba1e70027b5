// What nl80211 tells, as records: each is read from the attributes of one message
// (linux/nl80211.h), of which nothing is trusted. Frequencies in MHz, signals and powers in dBm.
#ifndef LUMD_NL80211_RECORDS_H
#define LUMD_NL80211_RECORDS_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "driver_interface.h"
#include "nl80211_elements.h"
#include "nl_attributes.h"

// Number of the 20 MHz channel at a frequency (IEEE 802.11, annex E); 0 for none.
int channel_at(std::uint32_t frequency);
rrm_band_t band_at(std::uint32_t frequency);
// The frequency of a channel; 0 for none.
std::uint32_t frequency_of(rrm_band_t band, unsigned channel);

// A network interface of a radio.
struct interface_record {
    std::string name;
    std::uint32_t index = 0;
    std::uint32_t wiphy = 0;  // number of the radio
    bool is_ap = false;
    std::array<std::uint8_t, 6> mac{};
    std::uint32_t frequency = 0;  // of the primary channel; 0 while the interface uses none
    bss_channel channel;
    std::optional<int> tx_power;

    // Empty for a message that names none.
    static std::optional<interface_record> read(const nl_attributes& message);
};

// One channel that a radio knows.
struct frequency_record {
    std::uint32_t frequency = 0;
    bool disabled = false;  // by the regulatory domain
    bool no_ir = false;     // nothing may be sent there before others were heard

    // The channels that one message of a radio's description adds.
    static std::vector<frequency_record> read(const nl_attributes& message);
};

// One BSS of the kernel's list of heard ones.
struct bss_record {
    std::uint32_t frequency = 0;
    ap_info info;  // what the back-ends' results are made of

    static std::optional<bss_record> read(const nl_attributes& message);
};

// What a radio measured on a channel, since it was started.
struct survey_record {
    std::uint32_t frequency = 0;
    std::optional<int> noise;
    std::uint64_t active_ms = 0;  // spent there
    std::uint64_t busy_ms = 0;    // of that, with the medium in use

    static std::optional<survey_record> read(const nl_attributes& message);
};

// An associated station.
struct station_record {
    std::array<std::uint8_t, 6> mac{};
    std::vector<int> signals;  // one per chain as far as the radio tells; else the one of all
    int tx_rate = 0;           // 100 kbit/s
    int rx_rate = 0;

    static std::optional<station_record> read(const nl_attributes& message);
};

#endif
