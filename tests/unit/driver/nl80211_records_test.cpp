// What nl80211 tells, against messages written by hand (linux/nl80211.h).
#include "platform-specific/nl80211_records.h"

#include <gmock/gmock.h>
#include <linux/netlink.h>
#include <linux/nl80211.h>

#include <climits>
#include <cstring>
#include <limits>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Bytes = std::vector<std::uint8_t>;
using Mac = std::array<std::uint8_t, 6>;

constexpr Mac kMac{2, 0, 0, 0, 0x12, 0};
constexpr Mac kNone{};

// Attributes, in the order of the calls (linux/netlink.h).
class Attributes {
  public:
    Attributes& bytes(int type, const Bytes& value) {
        const nlattr header{static_cast<std::uint16_t>(NLA_HDRLEN + value.size()),
                            static_cast<std::uint16_t>(type)};
        const auto* const head = reinterpret_cast<const std::uint8_t*>(&header);
        stream_.insert(stream_.end(), head, head + NLA_HDRLEN);
        stream_.insert(stream_.end(), value.begin(), value.end());
        stream_.resize(NLA_ALIGN(stream_.size()));
        return *this;
    }
    Attributes& text(int type, const std::string& value) {
        return bytes(type, {value.begin(), value.end()});
    }
    template <typename Integer>
    Attributes& number(int type, Integer value) {
        Bytes data(sizeof value);
        std::memcpy(data.data(), &value, sizeof value);
        return bytes(type, data);
    }
    Attributes& flag(int type) { return bytes(type, {}); }
    Attributes& mac(int type, std::size_t size = kMac.size()) {
        return bytes(type, {kMac.begin(), kMac.begin() + static_cast<std::ptrdiff_t>(size)});
    }
    Attributes& nested(int type, const Attributes& inner) { return bytes(type, inner.stream_); }
    [[nodiscard]] nl_attributes read() const { return nl_attributes{stream_}; }

  private:
    Bytes stream_;
};

struct Numbered {
    std::uint32_t frequency;
    rrm_band_t band;
    int channel;
};

class Channels : public testing::TestWithParam<Numbered> {};

TEST_P(Channels, HaveTheirFrequencyBandAndNumber) {
    const Numbered& one = GetParam();
    EXPECT_EQ(band_at(one.frequency), one.band) << one.frequency;
    EXPECT_EQ(channel_at(one.frequency), one.channel) << one.frequency;
    EXPECT_EQ(frequency_of(one.band, static_cast<unsigned>(one.channel)), one.frequency);
}

INSTANTIATE_TEST_SUITE_P(OfEachBand, Channels,
                         testing::Values(Numbered{2412, BAND_2G, 1}, Numbered{2472, BAND_2G, 13},
                                         Numbered{2484, BAND_2G, 14}, Numbered{5005, BAND_5G, 1},
                                         Numbered{5180, BAND_5G, 36}, Numbered{5895, BAND_5G, 179},
                                         Numbered{5955, BAND_6G, 1}, Numbered{7115, BAND_6G, 233}));

TEST(Channels, AreNoneBeyondTheEdgesOfTheBands) {
    for (const std::uint32_t frequency : {0U, 2407U, 2485U, 5000U, 5896U, 5950U, 7116U}) {
        EXPECT_EQ(band_at(frequency), BAND_NONE) << frequency;
        EXPECT_EQ(channel_at(frequency), 0) << frequency;
    }
    constexpr unsigned wraps = 3435973838;  // 2407 + 5 * this is 2413 in 32 bits
    for (const auto& [band, channel] : {std::pair{BAND_2G, 0U},
                                        {BAND_2G, 15U},
                                        {BAND_2G, wraps},
                                        {BAND_5G, 180U},
                                        {BAND_6G, 0U},
                                        {BAND_6G, 234U},
                                        {BAND_NONE, 1U}})
        EXPECT_EQ(frequency_of(band, channel), 0U) << channel;
}

Attributes interface(std::uint32_t frequency = 0, std::uint32_t width = NL80211_CHAN_WIDTH_20) {
    Attributes message;
    message.text(NL80211_ATTR_IFNAME, "wlan0-va0")
        .number<std::uint32_t>(NL80211_ATTR_IFINDEX, 7)
        .number(NL80211_ATTR_WIPHY_FREQ, frequency)
        .number(NL80211_ATTR_CHANNEL_WIDTH, width);
    return message;
}

bss_channel channel_of(std::uint32_t frequency, std::uint32_t width, std::uint32_t centre = 0) {
    Attributes message = interface(frequency, width);
    if (centre != 0)
        message.number(NL80211_ATTR_CENTER_FREQ1, centre);
    return interface_record::read(message.read()).value().channel;
}

TEST(InterfaceRecord, TellsWhoseInterfaceItIs) {
    const auto record =
        interface_record::read(interface(2437)
                                   .number<std::uint32_t>(NL80211_ATTR_WIPHY, 3)
                                   .number<std::uint32_t>(NL80211_ATTR_IFTYPE, NL80211_IFTYPE_AP)
                                   .mac(NL80211_ATTR_MAC)
                                   .number<std::int32_t>(NL80211_ATTR_WIPHY_TX_POWER_LEVEL, 1700)
                                   .read());
    ASSERT_TRUE(record);
    EXPECT_EQ(record->name, "wlan0-va0");
    EXPECT_EQ(record->index, 7U);
    EXPECT_EQ(record->wiphy, 3U);
    EXPECT_TRUE(record->is_ap);
    EXPECT_EQ(record->mac, kMac);
    EXPECT_EQ(record->frequency, 2437U);
    EXPECT_EQ(record->tx_power, 17);
}

TEST(InterfaceRecord, OfAnInterfaceThatTellsLittleIsEmpty) {
    const auto record = interface_record::read(Attributes{}
                                                   .text(NL80211_ATTR_IFNAME, "wlan0")
                                                   .number<std::uint32_t>(NL80211_ATTR_IFINDEX, 1)
                                                   .mac(NL80211_ATTR_MAC, kMac.size() - 1)
                                                   .read());
    ASSERT_TRUE(record);
    EXPECT_EQ(record->wiphy, 0U);
    EXPECT_FALSE(record->is_ap);
    EXPECT_EQ(record->mac, kNone) << "a part of an address is none";
    EXPECT_EQ(record->frequency, 0U);
    EXPECT_EQ(record->channel, (bss_channel{0, 20, 0}));
    EXPECT_EQ(record->tx_power, std::nullopt);
}

TEST(InterfaceRecord, NeedsNameAndNumber) {
    EXPECT_FALSE(
        interface_record::read(Attributes{}.number<std::uint32_t>(NL80211_ATTR_IFINDEX, 1).read()));
    EXPECT_FALSE(interface_record::read(Attributes{}.text(NL80211_ATTR_IFNAME, "wlan0").read()));
}

TEST(InterfaceRecord, HasItsChannelWithinTheWidth) {
    EXPECT_EQ(channel_of(2437, NL80211_CHAN_WIDTH_20_NOHT), (bss_channel{6, 20, 0}));
    EXPECT_EQ(channel_of(2437, NL80211_CHAN_WIDTH_40, 2447), (bss_channel{6, 40, 0}));
    EXPECT_EQ(channel_of(2437, NL80211_CHAN_WIDTH_40, 2427), (bss_channel{6, 40, 0x100}));
    EXPECT_EQ(channel_of(5180, NL80211_CHAN_WIDTH_40, 5190), (bss_channel{36, 40, 0}));
    EXPECT_EQ(channel_of(5240, NL80211_CHAN_WIDTH_80, 5210), (bss_channel{48, 80, 0x300}));
    EXPECT_EQ(channel_of(5180, NL80211_CHAN_WIDTH_80P80, 5210), (bss_channel{36, 80, 0}));
    EXPECT_EQ(channel_of(5200, NL80211_CHAN_WIDTH_160, 5250), (bss_channel{40, 160, 0x100}));
    EXPECT_EQ(channel_of(5955, NL80211_CHAN_WIDTH_80, 5985), (bss_channel{1, 80, 0}));
}

TEST(InterfaceRecord, Is20MHzWideWhereTheCentreIsNone) {
    EXPECT_EQ(channel_of(2422, NL80211_CHAN_WIDTH_40), (bss_channel{3, 20, 0}));
    EXPECT_EQ(channel_of(5180, NL80211_CHAN_WIDTH_80), (bss_channel{36, 20, 0}));
    EXPECT_EQ(channel_of(7105, NL80211_CHAN_WIDTH_40, 7115), (bss_channel{231, 40, 0}));
    EXPECT_EQ(channel_of(7115, NL80211_CHAN_WIDTH_40, 7125), (bss_channel{233, 20, 0}));
}

TEST(FrequencyRecord, TellsWhatTheRegulatoryDomainForbids) {
    const auto channel = [](std::uint32_t frequency) {
        Attributes result;
        result.number(NL80211_FREQUENCY_ATTR_FREQ, frequency);
        return result;
    };
    const Attributes free = channel(2412);
    const Attributes disabled = channel(2484).flag(NL80211_FREQUENCY_ATTR_DISABLED);
    const Attributes quiet = channel(5260).flag(NL80211_FREQUENCY_ATTR_NO_IR);
    const auto band = [](const Attributes& channels) {
        Attributes result;
        result.nested(NL80211_BAND_ATTR_FREQS, channels);
        return result;
    };
    Attributes bands;
    bands.nested(0, band(Attributes{}.nested(0, free).nested(1, disabled)));
    bands.nested(1, band(Attributes{}.nested(0, quiet)));
    std::vector<std::tuple<std::uint32_t, bool, bool>> told;
    for (const frequency_record& record :
         frequency_record::read(Attributes{}.nested(NL80211_ATTR_WIPHY_BANDS, bands).read()))
        told.emplace_back(record.frequency, record.disabled, record.no_ir);
    EXPECT_THAT(told, ElementsAre(std::tuple{2412U, false, false}, std::tuple{2484U, true, false},
                                  std::tuple{5260U, false, true}));
}

Attributes bss() {
    Attributes result;
    result.mac(NL80211_BSS_BSSID).number<std::uint32_t>(NL80211_BSS_FREQUENCY, 2437);
    return result;
}

std::optional<bss_record> bss_of(const Attributes& attributes) {
    return bss_record::read(Attributes{}.nested(NL80211_ATTR_BSS, attributes).read());
}

TEST(BssRecord, NeedsAWholeAddress) {
    EXPECT_FALSE(bss_of(Attributes{}.mac(NL80211_BSS_BSSID, kMac.size() - 1)));
    EXPECT_FALSE(bss_of({}));
    EXPECT_EQ(bss_of(bss()).value().info.bssid, kMac);
}

TEST(BssRecord, HasItsSignalInDbmOrInParts) {
    const auto signal = [](const Attributes& attributes) {
        return bss_of(attributes).value().info.signal;
    };
    EXPECT_EQ(signal(bss().number<std::int32_t>(NL80211_BSS_SIGNAL_MBM, -5550)), -55);
    EXPECT_EQ(signal(bss().number<std::uint8_t>(NL80211_BSS_SIGNAL_UNSPEC, 60)), -40);
    EXPECT_EQ(signal(bss()), -100);
}

TEST(BssRecord, IsReadFromTheProbeResponseBeforeTheBeacon) {
    const Bytes on_1 = {3, 1, 1};
    const Bytes on_11 = {3, 1, 11, 35, 2, 17, 0};
    EXPECT_EQ(bss_of(bss()).value().info.channel, 6) << "where it was heard";
    EXPECT_EQ(bss_of(bss()).value().info.tx_power, 0);
    EXPECT_EQ(bss_of(bss().bytes(NL80211_BSS_BEACON_IES, on_1)).value().info.channel, 1);
    const auto record = bss_of(
        bss().bytes(NL80211_BSS_BEACON_IES, on_1).bytes(NL80211_BSS_INFORMATION_ELEMENTS, on_11));
    EXPECT_EQ(record.value().info.channel, 11);
    EXPECT_EQ(record.value().info.tx_power, 17);
}

std::optional<survey_record> survey_of(const Attributes& attributes) {
    return survey_record::read(Attributes{}.nested(NL80211_ATTR_SURVEY_INFO, attributes).read());
}

TEST(SurveyRecord, TellsNoiseAndHowLongTheMediumWasInUse) {
    constexpr std::uint64_t weeks = std::uint64_t{1} << 33;  // ms
    const auto record = survey_of(Attributes{}
                                      .number<std::uint32_t>(NL80211_SURVEY_INFO_FREQUENCY, 5180)
                                      .number<std::int8_t>(NL80211_SURVEY_INFO_NOISE, -92)
                                      .number(NL80211_SURVEY_INFO_TIME, weeks)
                                      .number(NL80211_SURVEY_INFO_TIME_BUSY, weeks - 1));
    ASSERT_TRUE(record);
    EXPECT_EQ(record->frequency, 5180U);
    EXPECT_EQ(record->noise, -92);
    EXPECT_EQ(record->active_ms, weeks);
    EXPECT_EQ(record->busy_ms, weeks - 1);
}

TEST(SurveyRecord, OfAChannelThatWasNotMeasuredIsEmpty) {
    const auto record =
        survey_of(Attributes{}.number<std::uint32_t>(NL80211_SURVEY_INFO_FREQUENCY, 5180));
    ASSERT_TRUE(record);
    EXPECT_EQ(record->noise, std::nullopt);
    EXPECT_EQ(record->active_ms, 0U);
    EXPECT_EQ(record->busy_ms, 0U);
    EXPECT_FALSE(survey_of({})) << "no channel at all";
}

Attributes rate(int type, std::uint32_t value) {
    Attributes result;
    if (type == NL80211_RATE_INFO_BITRATE)
        result.number(type, static_cast<std::uint16_t>(value));
    else
        result.number(type, value);
    return result;
}

station_record station_of(const Attributes& attributes) {
    return station_record::read(
               Attributes{}.mac(NL80211_ATTR_MAC).nested(NL80211_ATTR_STA_INFO, attributes).read())
        .value();
}

TEST(StationRecord, NeedsAWholeAddress) {
    EXPECT_EQ(station_of({}).mac, kMac);
    EXPECT_FALSE(station_record::read(Attributes{}.mac(NL80211_ATTR_MAC, 5).read()));
}

TEST(StationRecord, HasTheSignalsOfItsChainsOrTheOneOfAll) {
    Attributes chains;
    chains.number<std::int8_t>(0, -40).bytes(1, {}).number<std::int8_t>(2, -45);
    Attributes info;
    info.number<std::int8_t>(NL80211_STA_INFO_SIGNAL, -50);
    EXPECT_THAT(station_of({}).signals, IsEmpty());
    EXPECT_THAT(station_of(info).signals, ElementsAre(-50));
    EXPECT_THAT(station_of(info.nested(NL80211_STA_INFO_CHAIN_SIGNAL, chains)).signals,
                ElementsAre(-40, -45));
}

TEST(StationRecord, HasItsRatesInTheWiderFieldIfThereIsOne) {
    const station_record none = station_of({});
    EXPECT_EQ(none.tx_rate, 0);
    EXPECT_EQ(none.rx_rate, 0);
    const station_record both =
        station_of(Attributes{}
                       .nested(NL80211_STA_INFO_TX_BITRATE, rate(NL80211_RATE_INFO_BITRATE, 540))
                       .nested(NL80211_STA_INFO_RX_BITRATE,
                               rate(NL80211_RATE_INFO_BITRATE32, 70000)
                                   .number<std::uint16_t>(NL80211_RATE_INFO_BITRATE, 65535)));
    EXPECT_EQ(both.tx_rate, 540);
    EXPECT_EQ(both.rx_rate, 70000);
    constexpr auto too_fast = std::numeric_limits<std::uint32_t>::max();
    EXPECT_EQ(station_of(Attributes{}.nested(NL80211_STA_INFO_TX_BITRATE,
                                             rate(NL80211_RATE_INFO_BITRATE32, too_fast)))
                  .tx_rate,
              INT_MAX);
}

}  // namespace
