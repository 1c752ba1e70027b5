#include "nl80211_records.h"

#include <linux/nl80211.h>

#include <algorithm>

namespace {

constexpr std::size_t mac_size = 6;
constexpr int mbm_per_dbm = 100;

// Where the numbers of a band begin, and the frequency that number 0 would have.
constexpr std::uint32_t channel_width = 5;  // between two numbers
constexpr std::uint32_t base_2ghz = 2407;
constexpr std::uint32_t last_2ghz_mhz = 2472;
constexpr std::uint32_t frequency_14 = 2484;  // Japan's, apart from the others
constexpr int channel_14 = 14;
constexpr std::uint32_t base_5ghz = 5000;
constexpr std::uint32_t last_5ghz = 5895;
constexpr std::uint32_t base_6ghz = 5950;
constexpr std::uint32_t last_6ghz = 7115;

bool copy_mac(nl_attributes::bytes from, std::array<std::uint8_t, mac_size>& to) {
    if (from.size() < to.size())
        return false;
    std::copy_n(from.begin(), to.size(), to.begin());
    return true;
}

std::uint32_t number(const nl_attributes& attributes, int type) {
    return attributes.get<std::uint32_t>(type).value_or(0);
}

// A channel number that stands for the centre of a wide channel.
int centre_channel(std::uint32_t centre, rrm_band_t band) {
    const std::uint32_t base = band == BAND_2G   ? base_2ghz
                               : band == BAND_5G ? base_5ghz
                                                 : base_6ghz;
    return centre < base || centre > last_6ghz ? 0
                                               : static_cast<int>((centre - base) / channel_width);
}

bss_channel channel_of(const nl_attributes& message, std::uint32_t frequency) {
    const int primary = channel_at(frequency);
    const int centre =
        centre_channel(number(message, NL80211_ATTR_CENTER_FREQ1), band_at(frequency));
    switch (number(message, NL80211_ATTR_CHANNEL_WIDTH)) {
        case NL80211_CHAN_WIDTH_40:
            return bss_channel::within(primary, 40, centre);
        case NL80211_CHAN_WIDTH_80:
        case NL80211_CHAN_WIDTH_80P80:
            return bss_channel::within(primary, 80, centre);
        case NL80211_CHAN_WIDTH_160:
            return bss_channel::within(primary, 160, centre);
        default:
            return {primary, 20, 0};
    }
}

// Elements of the last probe response, or of the beacon of a BSS that answered no probe.
nl_attributes::bytes elements_of(const nl_attributes& bss) {
    const nl_attributes::bytes elements = bss.data(NL80211_BSS_INFORMATION_ELEMENTS);
    return elements.empty() ? bss.data(NL80211_BSS_BEACON_IES) : elements;
}

int signal_of(const nl_attributes& bss) {
    constexpr int unspecified_to_dbm = -100;  // as good a guess as any
    if (const auto mbm = bss.get<std::int32_t>(NL80211_BSS_SIGNAL_MBM))
        return *mbm / mbm_per_dbm;
    return unspecified_to_dbm + bss.get<std::uint8_t>(NL80211_BSS_SIGNAL_UNSPEC).value_or(0);
}

int rate_of(const nl_attributes& rate) {
    constexpr std::uint32_t fastest = INT32_MAX;
    const std::uint32_t old = rate.get<std::uint16_t>(NL80211_RATE_INFO_BITRATE).value_or(0);
    return static_cast<int>(
        std::min(rate.get<std::uint32_t>(NL80211_RATE_INFO_BITRATE32).value_or(old), fastest));
}

std::vector<int> signals_of(const nl_attributes& station) {
    std::vector<int> signals;
    station.nested(NL80211_STA_INFO_CHAIN_SIGNAL).for_each([&](int, nl_attributes::bytes value) {
        if (!value.empty())
            signals.push_back(static_cast<std::int8_t>(value.front()));
    });
    if (signals.empty())
        if (const auto signal = station.get<std::int8_t>(NL80211_STA_INFO_SIGNAL))
            signals.push_back(*signal);
    return signals;
}

}  // namespace

rrm_band_t band_at(std::uint32_t frequency) {
    if (frequency > base_2ghz && frequency <= frequency_14)
        return BAND_2G;
    if (frequency > base_5ghz && frequency <= last_5ghz)
        return BAND_5G;
    return frequency > base_6ghz && frequency <= last_6ghz ? BAND_6G : BAND_NONE;
}

int channel_at(std::uint32_t frequency) {
    switch (band_at(frequency)) {
        case BAND_2G:
            return frequency == frequency_14
                       ? channel_14
                       : static_cast<int>((frequency - base_2ghz) / channel_width);
        case BAND_5G:
            return static_cast<int>((frequency - base_5ghz) / channel_width);
        case BAND_6G:
            return static_cast<int>((frequency - base_6ghz) / channel_width);
        default:
            return 0;
    }
}

std::uint32_t frequency_of(rrm_band_t band, unsigned channel) {
    constexpr std::uint32_t most = (last_6ghz - base_6ghz) / channel_width;
    if (channel == 0 || channel > most)
        return 0;
    std::uint32_t base = base_6ghz;
    if (band == BAND_2G) {
        if (channel == channel_14)
            return frequency_14;
        base = base_2ghz;
    } else if (band == BAND_5G) {
        base = base_5ghz;
    } else if (band != BAND_6G) {
        return 0;
    }
    const std::uint32_t frequency = base + channel * channel_width;
    return band_at(frequency) == band && !(band == BAND_2G && frequency > last_2ghz_mhz) ? frequency
                                                                                         : 0;
}

std::optional<interface_record> interface_record::read(const nl_attributes& message) {
    interface_record result;
    result.name = message.text(NL80211_ATTR_IFNAME);
    result.index = number(message, NL80211_ATTR_IFINDEX);
    if (result.name.empty() || result.index == 0)
        return std::nullopt;
    result.wiphy = number(message, NL80211_ATTR_WIPHY);
    result.is_ap = number(message, NL80211_ATTR_IFTYPE) == NL80211_IFTYPE_AP;
    copy_mac(message.data(NL80211_ATTR_MAC), result.mac);
    result.frequency = number(message, NL80211_ATTR_WIPHY_FREQ);
    result.channel = channel_of(message, result.frequency);
    if (const auto mbm = message.get<std::int32_t>(NL80211_ATTR_WIPHY_TX_POWER_LEVEL))
        result.tx_power = *mbm / mbm_per_dbm;
    return result;
}

std::vector<frequency_record> frequency_record::read(const nl_attributes& message) {
    std::vector<frequency_record> result;
    const auto add = [&result](int, nl_attributes::bytes data) {
        const nl_attributes channel{data};
        result.push_back({number(channel, NL80211_FREQUENCY_ATTR_FREQ),
                          channel.has(NL80211_FREQUENCY_ATTR_DISABLED),
                          channel.has(NL80211_FREQUENCY_ATTR_NO_IR)});
    };
    message.nested(NL80211_ATTR_WIPHY_BANDS).for_each([&](int, nl_attributes::bytes band) {
        nl_attributes{band}.nested(NL80211_BAND_ATTR_FREQS).for_each(add);
    });
    return result;
}

std::optional<bss_record> bss_record::read(const nl_attributes& message) {
    const nl_attributes bss = message.nested(NL80211_ATTR_BSS);
    bss_record result;
    if (!copy_mac(bss.data(NL80211_BSS_BSSID), result.info.bssid))
        return std::nullopt;
    result.frequency = number(bss, NL80211_BSS_FREQUENCY);
    const bss_elements elements =
        bss_elements::parse(elements_of(bss), channel_at(result.frequency));
    result.info.signal = signal_of(bss);
    result.info.channel = elements.channel.primary;
    result.info.bw = elements.channel.bw;
    result.info.primary_channel = elements.channel.sub_band;
    result.info.tx_power = elements.tx_power.value_or(0);
    return result;
}

std::optional<survey_record> survey_record::read(const nl_attributes& message) {
    const nl_attributes survey = message.nested(NL80211_ATTR_SURVEY_INFO);
    survey_record result;
    result.frequency = number(survey, NL80211_SURVEY_INFO_FREQUENCY);
    if (result.frequency == 0)
        return std::nullopt;
    if (const auto noise = survey.get<std::int8_t>(NL80211_SURVEY_INFO_NOISE))
        result.noise = *noise;
    result.active_ms = survey.get<std::uint64_t>(NL80211_SURVEY_INFO_TIME).value_or(0);
    result.busy_ms = survey.get<std::uint64_t>(NL80211_SURVEY_INFO_TIME_BUSY).value_or(0);
    return result;
}

std::optional<station_record> station_record::read(const nl_attributes& message) {
    station_record result;
    if (!copy_mac(message.data(NL80211_ATTR_MAC), result.mac))
        return std::nullopt;
    const nl_attributes info = message.nested(NL80211_ATTR_STA_INFO);
    result.signals = signals_of(info);
    result.tx_rate = rate_of(info.nested(NL80211_STA_INFO_TX_BITRATE));
    result.rx_rate = rate_of(info.nested(NL80211_STA_INFO_RX_BITRATE));
    return result;
}
