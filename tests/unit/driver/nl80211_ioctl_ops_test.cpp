// The back-end for radios of mac80211, on what a real kernel with simulated radios and a real
// hostapd said: wlan0 with wlan0-va0 on channel 6, wlan1 with wlan1-va0 on channel 36 with 80 MHz.
#include "platform-specific/nl80211_ioctl_ops.h"

#include <gmock/gmock.h>
#include <linux/nl80211.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <deque>
#include <numeric>

#include "fake_hostapd.h"
#include "fake_nl80211.h"
#include "krds.h"
#include "log_capture.h"
#include "pause_log.h"
#include "platform-specific/rrm_sta_realtek.h"
#include "temporary_folder.h"

namespace {

using libhubd::MacAddr;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr std::uint32_t kWlan0Index = 2;
constexpr std::uint32_t kWlan0Va0Index = 9;
constexpr char kStation[] = "02:00:00:00:04:00";
const MacAddr kNeighbour = MacAddr::from_str("02:00:00:00:12:00");

class Nl80211IoctlOps : public testing::Test {
  protected:
    Nl80211IoctlOps() {
        setenv("LUMD_PLATFORM_DIR", folder.path().c_str(), 1);
        folder.write("radios.json",
                     R"({"radios": [{"ifname": "wlan0", "driver": "nl80211", "bands": ["2.4GHz"]},
                                    {"ifname": "wlan1", "driver": "nl80211", "bands": ["5GHz"]}]})");
        KRDS::reload();
        kernel->answers[NL80211_CMD_GET_INTERFACE] = FakeNl80211::recording("interfaces");
        kernel->answers[NL80211_CMD_GET_WIPHY] = FakeNl80211::recording("wiphy");
        kernel->answers[NL80211_CMD_GET_SCAN] = FakeNl80211::recording("scan_2ghz");
        kernel->answers[NL80211_CMD_GET_SURVEY] = FakeNl80211::recording("survey");
        kernel->answers[NL80211_CMD_GET_STATION] = FakeNl80211::recording("stations");
    }
    ~Nl80211IoctlOps() override {
        unsetenv("LUMD_PLATFORM_DIR");
        KRDS::reload();
    }

    // hostapd as it answers from here on.
    void start_hostapd(FakeHostapd::Answer answer) { hostapd.emplace(socket, std::move(answer)); }
    nl80211_ioctl_ops ops(const std::string& ifname) { return {ifname, radios}; }

    // The MIB of an interface; empty when it is refused.
    std::optional<std::int32_t> mib(const std::string& ifname, const std::string& name) {
        std::int32_t value = 0;
        const auto out = std::as_writable_bytes(std::span{&value, 1});
        return ops(ifname).get_mib(name, out, ifname) == 0 ? std::optional{value} : std::nullopt;
    }
    // One more access point of wlan0's radio, which the kernel tells first.
    void add_access_point(const std::string& ifname, std::uint32_t frequency, std::uint32_t mbm) {
        nl_request record{NL80211_CMD_NEW_INTERFACE};
        record.put_text(NL80211_ATTR_IFNAME, ifname)
            .put_u32(NL80211_ATTR_IFINDEX, 20)
            .put_u32(NL80211_ATTR_WIPHY, 0)
            .put_u32(NL80211_ATTR_IFTYPE, NL80211_IFTYPE_AP)
            .put_u32(NL80211_ATTR_WIPHY_FREQ, frequency)
            .put_u32(NL80211_ATTR_WIPHY_TX_POWER_LEVEL, mbm);
        kernel->put_before(NL80211_CMD_GET_INTERFACE, record);
    }
    // The interface that the only call of a command names.
    std::optional<std::uint32_t> asked_of(std::uint8_t command) {
        const std::vector<FakeNl80211::Call> calls = kernel->calls_of(command);
        return calls.size() == 1 ? calls[0].read().get<std::uint32_t>(NL80211_ATTR_IFINDEX)
                                 : std::nullopt;
    }
    std::vector<std::uint32_t> scanned(std::size_t call = 0) {
        std::vector<std::uint32_t> frequencies;
        kernel->calls_of(NL80211_CMD_TRIGGER_SCAN)
            .at(call)
            .read()
            .nested(NL80211_ATTR_SCAN_FREQUENCIES)
            .for_each([&](int, nl_attributes::bytes data) {
                std::uint32_t frequency = 0;
                std::memcpy(&frequency, data.data(), sizeof frequency);
                frequencies.push_back(frequency);
            });
        return frequencies;
    }

    TemporaryFolder folder;
    const std::string socket = folder / "global";
    std::unique_ptr<FakeNl80211> made = std::make_unique<FakeNl80211>();
    FakeNl80211* const kernel = made.get();
    nl80211_radios radios{std::move(made), std::make_unique<FakeNl80211>(), socket};
    std::optional<FakeHostapd> hostapd;
    LogCapture log;
};

// --- MIBs ---

TEST_F(Nl80211IoctlOps, TheChannelOfARadioIsThatOfItsAccessPoints) {
    EXPECT_EQ(mib("wlan0", "chanspec"), LWLIO_CHANSPEC_BW_20 | 6);
    EXPECT_EQ(mib("wlan0-va0", "chanspec"), LWLIO_CHANSPEC_BW_20 | 6);
    EXPECT_EQ(mib("wlan1", "chanspec"), LWLIO_CHANSPEC_BW_80 | 42);
}

TEST_F(Nl80211IoctlOps, ThePowerIsInDbm) {
    EXPECT_EQ(mib("wlan0", "actual_tx_power"), 20);
    std::int32_t power = 0;
    const auto out = std::as_writable_bytes(std::span{&power, 1});
    EXPECT_EQ(ops("wlan1").get_actual_tx_power(out, "wlan1"), 0);
    EXPECT_EQ(power, 23);
}

TEST_F(Nl80211IoctlOps, ThePowerToReachIsThatInUse) {
    EXPECT_EQ(mib("wlan0", "power_target"), 20);
}

TEST_F(Nl80211IoctlOps, ARadioTellsOfItsFirstAccessPointAndEachOfItself) {
    add_access_point("wlan0-va1", 2437, 1000);
    EXPECT_EQ(mib("wlan0", "actual_tx_power"), 20);
    EXPECT_EQ(mib("wlan0-va1", "actual_tx_power"), 10);
}

TEST_F(Nl80211IoctlOps, AnAccessPointThatIsDownIsNotWhatItsRadioTellsOf) {
    add_access_point("wlan0-a", 0, 1000);
    EXPECT_EQ(mib("wlan0", "chanspec"), LWLIO_CHANSPEC_BW_20 | 6);
    EXPECT_EQ(mib("wlan0-a", "chanspec"), std::nullopt);
}

TEST_F(Nl80211IoctlOps, ARadioWithoutAccessPointsHasPowerButNoChannel) {
    EXPECT_EQ(mib("wlan5", "power_target"), 0);
    EXPECT_EQ(mib("wlan5", "chanspec"), std::nullopt);
    EXPECT_TRUE(log.contains("MIB parametr 'chanspec'(errno = (19)No such device)(rc == -1)"));
}

TEST_F(Nl80211IoctlOps, OtherMibsAreRefusedInTheUsualWords) {
    EXPECT_EQ(mib("wlan0", "use40M"), std::nullopt);
    EXPECT_EQ(ops("wlan0").set_mib("use40M", "1", "wlan0"), -1);
    EXPECT_TRUE(
        log.contains("cannot get MIB parametr 'use40M'(errno = (95)Operation not supported)"));
    EXPECT_TRUE(log.contains("cannot set MIB parametr 'use40M=1'"));
}

TEST_F(Nl80211IoctlOps, AnInterfaceThatVanishedHasNoMib) {
    std::array<std::byte, 4> out{};
    EXPECT_EQ(ops("wlan7").get_mib("chanspec", out, "wlan7"), -1);
    EXPECT_TRUE(log.contains("wlan7: no such wireless interface"));
}

TEST_F(Nl80211IoctlOps, AMibThatFitsNotIsCut) {
    std::array<std::byte, 1> out{};
    EXPECT_EQ(ops("wlan0").get_mib("actual_tx_power", out, "wlan0"), 0);
    EXPECT_EQ(ops("wlan0").get_mib("actual_tx_power", {}, "wlan0"), 0);
}

TEST_F(Nl80211IoctlOps, AMibFillsNoMoreThanItsValue) {
    std::array<std::byte, 8> out;
    out.fill(std::byte{0xEE});
    EXPECT_EQ(ops("wlan0").get_mib("actual_tx_power", out, "wlan0"), 0);
    EXPECT_THAT(std::span{out}.subspan(4), Each(std::byte{0xEE}));
}

TEST_F(Nl80211IoctlOps, CoexistenceNeverHidesTheWidthInUse) {
    start_hostapd([](const std::string&) { return "state=ENABLED\nieee80211n=1\n"; });
    EXPECT_FALSE(ops("wlan0").get_obss_coex("wlan0"));
    EXPECT_FALSE(ops("wlan1").get_obss_coex("wlan1"));
}

// --- scans ---

TEST_F(Nl80211IoctlOps, AvailableAreChannelsOfTheRadiosBandThatMayBeSentOn) {
    std::set<unsigned> channels;
    EXPECT_EQ(ops("wlan0").get_available_channels(channels), 0);
    EXPECT_EQ(channels, (std::set<unsigned>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}));
    channels.clear();
    EXPECT_EQ(ops("wlan1").get_available_channels(channels), 0);
    EXPECT_THAT(channels, AllOf(Contains(36U), Contains(52U), Contains(100U)));
    EXPECT_EQ(*channels.begin(), 36U);
    EXPECT_FALSE(log.contains("absent"));
}

TEST_F(Nl80211IoctlOps, ARadioIsAskedForItsOwnChannelsInParts) {
    std::set<unsigned> channels;
    EXPECT_EQ(ops("wlan1").get_available_channels(channels), 0);
    const FakeNl80211::Call call = kernel->calls_of(NL80211_CMD_GET_WIPHY).at(0);
    EXPECT_EQ(call.read().get<std::uint32_t>(NL80211_ATTR_WIPHY), 1);
    EXPECT_TRUE(call.read().has(NL80211_ATTR_SPLIT_WIPHY_DUMP));
}

TEST_F(Nl80211IoctlOps, ARadioThatIsNotDescribedHasNoChannels) {
    std::set<unsigned> channels;
    EXPECT_EQ(ops("wlan2").get_available_channels(channels), 0);
    EXPECT_THAT(channels, IsEmpty());
    EXPECT_TRUE(log.contains("available channels data are absent"));
}

TEST_F(Nl80211IoctlOps, ChannelsThatCannotBeReadAreAFailure) {
    kernel->results[NL80211_CMD_GET_WIPHY] = {-EIO, -EIO};
    std::set<unsigned> channels;
    EXPECT_EQ(ops("wlan0").get_available_channels(channels), -1);
    EXPECT_EQ(ops("wlan0").start_scan({1}), -1);
    EXPECT_THAT(kernel->calls_of(NL80211_CMD_TRIGGER_SCAN), IsEmpty());
    EXPECT_EQ(log.count("wlan0: cannot read the channels: Input/output error"), 2);
}

TEST_F(Nl80211IoctlOps, AnInterfaceThatVanishedIsAskedForNothing) {
    std::set<unsigned> channels;
    ap_table table;
    std::vector<rrm_sta_realtek> stations;
    EXPECT_EQ(ops("wlan7").get_available_channels(channels), -1);
    EXPECT_EQ(ops("wlan7").start_scan({1}), -1);
    EXPECT_EQ(ops("wlan7").stop_scan(), -1);
    EXPECT_EQ(ops("wlan7").get_scan_result(table), -1);
    EXPECT_EQ(ops("wlan7").start_rrm_scan(1, "wlan7"), -1);
    EXPECT_EQ(ops("wlan7").get_assoc_sta(stations), -1);
    EXPECT_THAT(kernel->calls, Each(Field(&FakeNl80211::Call::command, NL80211_CMD_GET_INTERFACE)));
}

TEST_F(Nl80211IoctlOps, AScanAsksForTheChannelsThatTheRadioMayUse) {
    EXPECT_EQ(ops("wlan0").start_scan({1, 6, 14, 36, 4000000000U}), 0);
    EXPECT_THAT(scanned(), ElementsAre(2412, 2437));
    const FakeNl80211::Call call = kernel->calls_of(NL80211_CMD_TRIGGER_SCAN).at(0);
    EXPECT_EQ(call.read().get<std::uint32_t>(NL80211_ATTR_IFINDEX), kWlan0Index);
    EXPECT_TRUE(call.read().has(NL80211_ATTR_SCAN_SSIDS)) << "an active scan";
    EXPECT_EQ(call.read().get<std::uint32_t>(NL80211_ATTR_SCAN_FLAGS), NL80211_SCAN_FLAG_FLUSH)
        << "what earlier scans heard is forgotten";
    EXPECT_FALSE(call.read().has(NL80211_ATTR_MEASUREMENT_DURATION))
        << "as long as the radio likes";
}

TEST_F(Nl80211IoctlOps, AScanOfNoChannelIsAScanOfAll) {
    EXPECT_EQ(ops("wlan0").start_scan({}), 0);
    EXPECT_THAT(scanned(), SizeIs(13));
}

TEST_F(Nl80211IoctlOps, AScanOfForeignChannelsIsRefused) {
    EXPECT_EQ(ops("wlan0").start_scan({36}), -1);
    EXPECT_THAT(kernel->calls_of(NL80211_CMD_TRIGGER_SCAN), IsEmpty());
    EXPECT_TRUE(log.contains("wlan0: none of the channels can be scanned"));
}

TEST_F(Nl80211IoctlOps, AScanWaitsForTheEndOfAnAbortedOne) {
    kernel->results[NL80211_CMD_TRIGGER_SCAN] = {-EBUSY, -EBUSY};
    const PauseLog pauses{[] {}};
    EXPECT_EQ(ops("wlan0").start_scan({1}), 0);
    EXPECT_THAT(kernel->calls_of(NL80211_CMD_TRIGGER_SCAN), SizeIs(3));
    EXPECT_THAT(pauses.waits(), ElementsAre(50, 50));
}

TEST_F(Nl80211IoctlOps, AScanThatNeverEndsIsWaitedForASecondAndAHalf) {
    kernel->results[NL80211_CMD_TRIGGER_SCAN] = std::deque<int>(100, -EBUSY);
    const PauseLog pauses{[] {}};
    EXPECT_EQ(ops("wlan0").start_scan({1}), -1);
    EXPECT_EQ(std::accumulate(pauses.waits().begin(), pauses.waits().end(), 0), 1500);
    EXPECT_THAT(kernel->calls_of(NL80211_CMD_TRIGGER_SCAN), SizeIs(1 + pauses.waits().size()));
    EXPECT_TRUE(log.contains("wlan0: cannot start a scan: Device or resource busy"));
}

TEST_F(Nl80211IoctlOps, AScanThatTheKernelRefusesIsAFailure) {
    kernel->results[NL80211_CMD_TRIGGER_SCAN] = {-EPERM};
    EXPECT_EQ(ops("wlan0").start_scan({1}), -1);
    EXPECT_TRUE(log.contains("wlan0: cannot start a scan: Operation not permitted"));
}

TEST_F(Nl80211IoctlOps, StoppingWithoutAScanIsNoFailure) {
    kernel->results[NL80211_CMD_ABORT_SCAN] = {-ENOENT, -EIO};
    EXPECT_EQ(ops("wlan0").stop_scan(), 0);
    EXPECT_EQ(ops("wlan0").stop_scan(), -1);
    EXPECT_TRUE(log.contains("wlan0: cannot stop a scan: Input/output error"));
}

TEST_F(Nl80211IoctlOps, TheScanOfItsInterfaceIsStopped) {
    EXPECT_EQ(ops("wlan0").stop_scan(), 0);
    EXPECT_EQ(asked_of(NL80211_CMD_ABORT_SCAN), kWlan0Index);
}

TEST_F(Nl80211IoctlOps, WhatWasHeardIsAppended) {
    ap_table table(1);
    EXPECT_EQ(ops("wlan0").get_scan_result(table), 0);
    ASSERT_THAT(table, SizeIs(2));
    EXPECT_EQ(asked_of(NL80211_CMD_GET_SCAN), kWlan0Index);
    EXPECT_FALSE(log.contains("absent"));
    EXPECT_THAT(table[1].bssid, ElementsAre(2, 0, 0, 0, 0x12, 0));
    EXPECT_EQ(table[1].signal, -30);
    EXPECT_EQ(table[1].channel, 11);
    EXPECT_EQ(table[1].bw, 20);
    EXPECT_EQ(table[1].tx_power, 20);
}

TEST_F(Nl80211IoctlOps, ThatNothingWasHeardIsSaid) {
    kernel->answers.erase(NL80211_CMD_GET_SCAN);
    ap_table table;
    EXPECT_EQ(ops("wlan0").get_scan_result(table), 0);
    EXPECT_THAT(table, IsEmpty());
    EXPECT_TRUE(log.contains("scanning result are absent"));
}

TEST_F(Nl80211IoctlOps, AWideNeighbourIsToldWithItsPrimaryChannel) {
    kernel->answers[NL80211_CMD_GET_SCAN] = FakeNl80211::recording("scan_5ghz");
    ap_table table;
    EXPECT_EQ(ops("wlan1").get_scan_result(table), 0);
    ASSERT_THAT(table, SizeIs(1));
    EXPECT_EQ(table[0].channel, 44);
    EXPECT_EQ(table[0].bw, 80);
    EXPECT_EQ(table[0].primary_channel, LWLIO_CHANSPEC_CTL_SB_UL);
}

TEST_F(Nl80211IoctlOps, ADumpThatChangedIsAskedForAgainAndToldOnce) {
    kernel->results[NL80211_CMD_GET_SCAN] = {-EINTR, -ENOBUFS};
    ap_table table;
    EXPECT_EQ(ops("wlan0").get_scan_result(table), 0);
    EXPECT_THAT(table, SizeIs(1));
    EXPECT_THAT(kernel->calls_of(NL80211_CMD_GET_SCAN), SizeIs(3));
    EXPECT_FALSE(log.contains("incomplete"));
}

TEST_F(Nl80211IoctlOps, ADumpThatAlwaysChangesIsTakenWithAWarning) {
    kernel->results[NL80211_CMD_GET_SCAN] = {-EINTR, -EINTR, -EINTR};
    ap_table table;
    EXPECT_EQ(ops("wlan0").get_scan_result(table), 0);
    EXPECT_THAT(table, SizeIs(1));
    EXPECT_TRUE(log.contains("nl80211 command 32: the answer is incomplete: Interrupted"));
}

TEST_F(Nl80211IoctlOps, ASilentKernelIsAFailure) {
    kernel->results[NL80211_CMD_GET_SCAN] = {-ETIMEDOUT};
    ap_table table;
    EXPECT_EQ(ops("wlan0").get_scan_result(table), -1);
    kernel->results[NL80211_CMD_GET_INTERFACE] = {-ETIMEDOUT};
    EXPECT_EQ(ops("wlan0").get_scan_result(table), -1);
    EXPECT_TRUE(log.contains("wlan0: cannot read the scan's result: Connection timed out"));
    EXPECT_TRUE(log.contains("wlan0: cannot read the interfaces: Connection timed out"));
}

// --- the measurement ---

TEST_F(Nl80211IoctlOps, AMeasurementIsPassiveAndDwells) {
    EXPECT_EQ(ops("wlan0").start_rrm_scan(11, "wlan0"), 0);
    EXPECT_THAT(scanned(), ElementsAre(2462));
    const FakeNl80211::Call call = kernel->calls_of(NL80211_CMD_TRIGGER_SCAN).at(0);
    EXPECT_FALSE(call.read().has(NL80211_ATTR_SCAN_SSIDS));
    EXPECT_GT(call.read().get<std::uint16_t>(NL80211_ATTR_MEASUREMENT_DURATION), 200)
        << "two beacons, one every 100 TU";
    EXPECT_EQ(mib("wlan0", "rrm_scan_chan"), 11);
    EXPECT_EQ(mib("wlan0-va0", "rrm_scan_chan"), 11) << "of its radio";
}

TEST_F(Nl80211IoctlOps, ARadioThatTakesNoDwellTimeMeasuresWithout) {
    kernel->results[NL80211_CMD_TRIGGER_SCAN] = {-EOPNOTSUPP};
    EXPECT_EQ(ops("wlan0").start_rrm_scan(11, "wlan0"), 0);
    const auto calls = kernel->calls_of(NL80211_CMD_TRIGGER_SCAN);
    ASSERT_THAT(calls, SizeIs(2));
    EXPECT_FALSE(calls[1].read().has(NL80211_ATTR_MEASUREMENT_DURATION));
    EXPECT_FALSE(calls[1].read().has(NL80211_ATTR_SCAN_SSIDS)) << "passive, too";
}

TEST_F(Nl80211IoctlOps, A6GHzRadioMeasuresOnItsBand) {
    folder.write("radios.json",
                 R"({"radios": [{"ifname": "wlan0", "driver": "nl80211", "bands": ["6GHz"]}]})");
    KRDS::reload();
    EXPECT_EQ(ops("wlan0").start_rrm_scan(5, "wlan0"), 0);
    EXPECT_THAT(scanned(), ElementsAre(5975));
}

TEST_F(Nl80211IoctlOps, AMeasurementThatTheKernelRefusesIsNone) {
    kernel->results[NL80211_CMD_TRIGGER_SCAN] = {-EPERM};
    EXPECT_EQ(ops("wlan0").start_rrm_scan(11, "wlan0"), -1);
    EXPECT_TRUE(log.contains("cannot start RRM scanning(errno = Operation not permitted)"));
    EXPECT_EQ(mib("wlan0", "rrm_scan_chan"), 0);
}

TEST_F(Nl80211IoctlOps, AMeasurementTellsItsChannelAloneAndLogsTheSurvey) {
    ASSERT_EQ(ops("wlan0").start_rrm_scan(11, "wlan0"), 0);
    ap_table table;
    EXPECT_EQ(ops("wlan0").get_rrm_scan_result(table), 0);
    EXPECT_THAT(table, SizeIs(1));
    EXPECT_EQ(log.count("dBm, busy "), 1) << "of the channel alone";
    EXPECT_TRUE(log.contains("wlan0: channel 11: noise -92 dBm, busy 34 of 276 ms"));
    EXPECT_EQ(asked_of(NL80211_CMD_GET_SURVEY), kWlan0Index);
    EXPECT_FALSE(log.contains("absent"));

    ASSERT_EQ(ops("wlan0").start_rrm_scan(1, "wlan0"), 0);
    table.clear();
    EXPECT_EQ(ops("wlan0").get_rrm_scan_result(table), 0);
    EXPECT_THAT(table, IsEmpty());
    EXPECT_TRUE(log.contains("rrm scanning result are absent"));
}

TEST_F(Nl80211IoctlOps, AMeasurementWhoseResultCannotBeReadIsAFailure) {
    ASSERT_EQ(ops("wlan0").start_rrm_scan(11, "wlan0"), 0);
    kernel->results[NL80211_CMD_GET_SCAN] = {-ETIMEDOUT};
    ap_table table;
    EXPECT_EQ(ops("wlan0").get_rrm_scan_result(table), -1);
}

TEST_F(Nl80211IoctlOps, AMeasurementCountsWithoutASurveyToo) {
    ASSERT_EQ(ops("wlan0").start_rrm_scan(11, "wlan0"), 0);
    ap_table table;
    kernel->results[NL80211_CMD_GET_SURVEY] = {-EOPNOTSUPP};
    EXPECT_EQ(ops("wlan0").get_rrm_scan_result(table), 0);
    EXPECT_EQ(asked_of(NL80211_CMD_GET_SURVEY), kWlan0Index);
    kernel->results[NL80211_CMD_GET_INTERFACE] = {0, -EIO};
    EXPECT_EQ(ops("wlan0").get_rrm_scan_result(table), 0);
    EXPECT_THAT(kernel->calls_of(NL80211_CMD_GET_SURVEY), SizeIs(1)) << "of nobody";
    EXPECT_THAT(table, SizeIs(2));
    EXPECT_FALSE(log.contains("dBm, busy"));
}

TEST_F(Nl80211IoctlOps, ASurveyWithoutNoiseIsLoggedWithZero) {
    nl_request record{NL80211_CMD_NEW_SURVEY_RESULTS};
    record.put_list(NL80211_ATTR_SURVEY_INFO, std::array{std::uint32_t{2412}});  // its frequency
    kernel->put_before(NL80211_CMD_GET_SURVEY, record);
    ASSERT_EQ(ops("wlan0").start_rrm_scan(1, "wlan0"), 0);
    ap_table table;
    EXPECT_EQ(ops("wlan0").get_rrm_scan_result(table), 0);
    EXPECT_TRUE(log.contains("wlan0: channel 1: noise 0 dBm, busy 0 of 0 ms"));
}

TEST_F(Nl80211IoctlOps, AStoppedMeasurementHasNoResult) {
    ASSERT_EQ(ops("wlan0").start_rrm_scan(11, "wlan0"), 0);
    EXPECT_EQ(ops("wlan0").stop_rrm_scan("wlan0"), 0);
    ap_table table;
    EXPECT_EQ(ops("wlan0").get_rrm_scan_result(table), 0);
    EXPECT_THAT(table, IsEmpty());
    EXPECT_EQ(mib("wlan0", "rrm_scan_chan"), 0);
    EXPECT_THAT(kernel->calls_of(NL80211_CMD_GET_SCAN), IsEmpty());
    EXPECT_THAT(kernel->calls_of(NL80211_CMD_GET_SURVEY), IsEmpty());
}

TEST_F(Nl80211IoctlOps, AMeasurementThatCannotBeStoppedIsAFailure) {
    kernel->results[NL80211_CMD_ABORT_SCAN] = {-EIO};
    EXPECT_EQ(ops("wlan0").stop_rrm_scan("wlan0"), -1);
}

// --- stations ---

TEST_F(Nl80211IoctlOps, AStationHasItsSignalRatesAndTransitionSupport) {
    start_hostapd([](const std::string&) { return "ext_capab=04004a0201\n"; });
    std::vector<rrm_sta_realtek> stations;
    EXPECT_EQ(ops("wlan0-va0").get_assoc_sta(stations), 0);
    ASSERT_THAT(stations, SizeIs(1));
    EXPECT_EQ(stations[0].mac, kStation);
    EXPECT_EQ(stations[0].max_rssi, -30);
    EXPECT_THAT(stations[0].rssi, Contains(-30));
    EXPECT_GT(stations[0].tx_rate, 0);
    EXPECT_GT(stations[0].rx_rate, 0);
    EXPECT_FALSE(stations[0].is_no_balance);
    EXPECT_FALSE(stations[0].roam_attempt);
    EXPECT_EQ(asked_of(NL80211_CMD_GET_STATION), kWlan0Va0Index);
    EXPECT_THAT(hostapd->commands(), ElementsAre("IFNAME=wlan0-va0 STA 02:00:00:00:04:00"));
    EXPECT_TRUE(log.contains("mac == 02:00:00:00:04:00"));
    EXPECT_FALSE(log.contains("absent"));
}

TEST_F(Nl80211IoctlOps, AnAccessPointWithoutStationsSaysSo) {
    kernel->answers.erase(NL80211_CMD_GET_STATION);
    std::vector<rrm_sta_realtek> stations;
    EXPECT_EQ(ops("wlan0-va0").get_assoc_sta(stations), 0);
    EXPECT_TRUE(log.contains("associated clients are absent"));
}

TEST_F(Nl80211IoctlOps, StationsThatCannotBeReadAreAFailure) {
    kernel->results[NL80211_CMD_GET_STATION] = {-EIO};
    std::vector<rrm_sta_realtek> stations;
    EXPECT_EQ(ops("wlan0-va0").get_assoc_sta(stations), -1);
    EXPECT_THAT(stations, IsEmpty());
    EXPECT_TRUE(log.contains("wlan0-va0: cannot read the stations: Input/output error"));
}

TEST_F(Nl80211IoctlOps, AStationThatHostapdDoesNotKnowIsNotBalanced) {
    start_hostapd([](const std::string&) { return "FAIL\n"; });
    std::vector<rrm_sta_realtek> stations;
    EXPECT_EQ(ops("wlan0-va0").get_assoc_sta(stations), 0);
    ASSERT_THAT(stations, SizeIs(1));
    EXPECT_TRUE(stations[0].is_no_balance);
}

TEST_F(Nl80211IoctlOps, WithoutHostapdStationsAreToldAllTheSame) {
    std::vector<rrm_sta_realtek> stations;
    EXPECT_EQ(ops("wlan0-va0").get_assoc_sta(stations), 0);
    EXPECT_THAT(stations, SizeIs(1));
    EXPECT_TRUE(log.contains("wlan0-va0: hostapd does not answer"));
}

TEST_F(Nl80211IoctlOps, ASilentHostapdIsAskedOnceForAWhile) {
    start_hostapd([](const std::string&) { return std::nullopt; });
    std::vector<rrm_sta_realtek> stations;
    ops("wlan0-va0").get_assoc_sta(stations);
    ops("wlan0-va0").get_assoc_sta(stations);
    EXPECT_THAT(stations, SizeIs(2));
    EXPECT_THAT(hostapd->commands(), SizeIs(1));
}

// --- neighbours ---

TEST_F(Nl80211IoctlOps, ANeighbourGoesToHostapd) {
    start_hostapd(nullptr);
    EXPECT_EQ(ops("wlan0-va0").set_rrm_nbr_ap("wlan0-va0", kNeighbour, "air", 11, 0, 0, 255, 1, 0),
              0);
    EXPECT_THAT(hostapd->commands(),
                ElementsAre("IFNAME=wlan0-va0 SET_NEIGHBOR 02:00:00:00:12:00 ssid=616972 "
                            "nr=020000001200af080000510b07"));
}

TEST_F(Nl80211IoctlOps, ARefusedNeighbourIsAFailure) {
    start_hostapd([](const std::string&) { return "FAIL\n"; });
    EXPECT_EQ(ops("wlan0-va0").set_rrm_nbr_ap("wlan0-va0", kNeighbour, "air", 11, 0, 0, 255, 1, 0),
              -1);
    EXPECT_TRUE(log.contains("wlan0-va0: hostapd refuses 'SET_NEIGHBOR"));
    EXPECT_TRUE(log.contains("': FAIL"));
}

TEST_F(Nl80211IoctlOps, WithoutHostapdNoNeighbourIsSetOrRemoved) {
    EXPECT_EQ(ops("wlan0-va0").set_rrm_nbr_ap("wlan0-va0", kNeighbour, "air", 11, 0, 0, 255, 1, 0),
              -1);
    EXPECT_EQ(ops("wlan0-va0").clear_rrm_nbr_ap_list("wlan0-va0"), -1);
}

TEST_F(Nl80211IoctlOps, AnAccessPointThatVanishedHasNoNeighbours) {
    start_hostapd(nullptr);
    EXPECT_EQ(ops("wlan7").set_rrm_nbr_ap("wlan7", kNeighbour, "air", 11, 0, 0, 255, 1, 0), -1);
    EXPECT_EQ(ops("wlan7").clear_rrm_nbr_ap_list("wlan7"), -1);
    EXPECT_THAT(hostapd->commands(), IsEmpty());
}

TEST_F(Nl80211IoctlOps, TheOwnEntryIsHostapds) {
    start_hostapd(nullptr);
    const MacAddr own = MacAddr::from_str("02:00:00:00:10:00");
    EXPECT_EQ(ops("wlan0-va0").set_rrm_nbr_ap("wlan0-va0", own, "air", 6, 0, 0, 255, 1, 0), 0);
    EXPECT_THAT(hostapd->commands(), IsEmpty());
    EXPECT_TRUE(log.contains("wlan0-va0 is its own neighbour already"));
}

TEST_F(Nl80211IoctlOps, ClearingRemovesOneByOneAndLeavesTheOwnEntry) {
    std::vector<std::string> list{"02:00:00:00:10:00", "02:00:00:00:12:00", "02:00:00:00:13:00"};
    start_hostapd([&list](const std::string& command) {
        const std::string bssid = command.substr(command.rfind(' ') + 1);
        std::erase(list, bssid);
        std::string answer;
        // Cut after two, as hostapd cuts.
        for (std::size_t i = 0; i < list.size() && i < 2; ++i)
            answer += list[i] + " ssid=616972 nr=00\n";
        return bssid == "SHOW_NEIGHBOR" ? answer : "OK\n";
    });
    EXPECT_EQ(ops("wlan0-va0").clear_rrm_nbr_ap_list("wlan0-va0"), 0);
    hostapd.reset();
    EXPECT_THAT(list, ElementsAre("02:00:00:00:10:00"));
}

TEST_F(Nl80211IoctlOps, AListThatDoesNotShrinkIsGivenUp) {
    start_hostapd([](const std::string& command) {
        return command.ends_with("SHOW_NEIGHBOR") ? "02:00:00:00:12:00 ssid=61 nr=00\n" : "OK\n";
    });
    EXPECT_EQ(ops("wlan0-va0").clear_rrm_nbr_ap_list("wlan0-va0"), -1);
    EXPECT_TRUE(log.contains("wlan0-va0: hostapd keeps neighbours"));
    EXPECT_THAT(hostapd->commands(), SizeIs(32)) << "after 16 times";
}

TEST_F(Nl80211IoctlOps, ANeighbourThatHostapdKeepsEndsTheClearing) {
    start_hostapd([](const std::string& command) {
        return command.ends_with("SHOW_NEIGHBOR") ? "02:00:00:00:12:00 ssid=61 nr=00\n" : "FAIL\n";
    });
    EXPECT_EQ(ops("wlan0-va0").clear_rrm_nbr_ap_list("wlan0-va0"), -1);
    EXPECT_THAT(hostapd->commands(), SizeIs(2));
}

TEST_F(Nl80211IoctlOps, NamesThatAreNoInterfacesReachNoSocket) {
    start_hostapd(nullptr);
    const std::string name = "wlan0-va0 DISABLE";
    EXPECT_EQ(ops(name).clear_rrm_nbr_ap_list(name), -1);
    EXPECT_EQ(ops(name).set_rrm_nbr_ap(name, kNeighbour, "air", 11, 0, 0, 255, 1, 0), -1);
    EXPECT_EQ(ops(name).send_bsstrans_request(name, kStation, 1), -1);
    EXPECT_THAT(hostapd->commands(), IsEmpty());
    EXPECT_THAT(kernel->calls, IsEmpty());
}

// --- transitions ---

TEST_F(Nl80211IoctlOps, ARequestNamesTheCandidatesOfItsVap) {
    start_hostapd([](const std::string&) { return "5\n"; });
    ops("wlan0-va0").set_rrm_nbr_ap("wlan0-va0", kNeighbour, "air", 11, 0, 0, 255, 200, 1);
    ops("wlan1-va0").set_rrm_nbr_ap("wlan1-va0", kNeighbour, "air", 11, 0, 0, 255, 9, 1);
    EXPECT_EQ(ops("wlan0-va0").send_bsstrans_request("wlan0-va0", kStation, 1), 0);
    EXPECT_THAT(hostapd->commands(),
                ElementsAre("IFNAME=wlan0-va0 BSS_TM_REQ 02:00:00:00:04:00 pref=1 abridged=1 "
                            "neighbor=02:00:00:00:12:00,0x8af,81,11,7,0301c8"));
}

TEST_F(Nl80211IoctlOps, ACandidateThatIsSetAgainReplacesItselfAlone) {
    start_hostapd([](const std::string&) { return "5\n"; });
    const MacAddr other = MacAddr::from_str("02:00:00:00:13:00");
    ops("wlan0-va0").set_rrm_nbr_ap("wlan0-va0", kNeighbour, "air", 11, 0, 0, 255, 200, 1);
    ops("wlan0-va0").set_rrm_nbr_ap("wlan0-va0", other, "air", 1, 0, 0, 255, 100, 1);
    ops("wlan0-va0").set_rrm_nbr_ap("wlan0-va0", kNeighbour, "air", 11, 0, 0, 255, 16, 1);
    EXPECT_EQ(ops("wlan0-va0").send_bsstrans_request("wlan0-va0", kStation, 1), 0);
    EXPECT_THAT(hostapd->commands(),
                ElementsAre("IFNAME=wlan0-va0 BSS_TM_REQ 02:00:00:00:04:00 pref=1 abridged=1 "
                            "neighbor=02:00:00:00:13:00,0x8af,81,1,7,030164 "
                            "neighbor=02:00:00:00:12:00,0x8af,81,11,7,030110"));
    EXPECT_FALSE(log.contains("find no place"));
}

TEST_F(Nl80211IoctlOps, CandidatesBeyondARequestAreToldAndBeyondTheListRefused) {
    start_hostapd([](const std::string&) { return "5\n"; });
    const auto add = [this](unsigned number) {
        const MacAddr bssid{{2, 0, 0, 0, static_cast<std::uint8_t>(number >> 8),
                             static_cast<std::uint8_t>(number)}};
        return ops("wlan0-va0").set_rrm_nbr_ap("wlan0-va0", bssid, "air", 1, 0, 0, 255, 1, 1);
    };
    for (unsigned number = 0; number < 33; ++number)
        ASSERT_EQ(add(number), 0);
    EXPECT_EQ(ops("wlan0-va0").send_bsstrans_request("wlan0-va0", kStation, 1), 0);
    EXPECT_TRUE(log.contains("wlan0-va0: 1 candidates find no place in a request"));
    for (unsigned number = 33; number < 256; ++number)
        ASSERT_EQ(add(number), 0);
    EXPECT_EQ(add(256), -1);
    EXPECT_TRUE(log.contains("wlan0-va0: more than 256 candidates"));
}

TEST_F(Nl80211IoctlOps, AClearedListHasNoCandidates) {
    start_hostapd(nullptr);
    ops("wlan0-va0").set_rrm_nbr_ap("wlan0-va0", kNeighbour, "air", 11, 0, 0, 255, 200, 1);
    EXPECT_EQ(ops("wlan0-va0").clear_vexor_nbr_ap_list("wlan0-va0"), 0);
    EXPECT_EQ(ops("wlan0-va0").send_bsstrans_request("wlan0-va0", kStation, 1), 0);
    EXPECT_THAT(hostapd->commands(), ElementsAre("IFNAME=wlan0-va0 BSS_TM_REQ 02:00:00:00:04:00"));
}

TEST_F(Nl80211IoctlOps, AClientElsewhereIsNotFound) {
    start_hostapd([](const std::string&) { return "FAIL\n"; });
    EXPECT_EQ(ops("wlan0-va0").send_bsstrans_request("wlan0-va0", kStation, 1), -1);
    EXPECT_TRUE(log.contains("Error: 02:00:00:00:04:00 not found on wlan0-va0"));
    EXPECT_EQ(ops("wlan0-va0").send_bsstrans_request("wlan0-va0", nullptr, 1), -1);
    EXPECT_TRUE(log.contains("Error:  not found on wlan0-va0"));
}

TEST_F(Nl80211IoctlOps, AHostapdThatKnowsNoTransitionsRefusesTheRequest) {
    start_hostapd([](const std::string&) { return "UNKNOWN COMMAND\n"; });
    EXPECT_EQ(ops("wlan0-va0").send_bsstrans_request("wlan0-va0", kStation, 1), -1);
}

TEST_F(Nl80211IoctlOps, ARequestToNoAddressIsNotSent) {
    start_hostapd(nullptr);
    EXPECT_EQ(ops("wlan0-va0").send_bsstrans_request("wlan0-va0", "02:00:00:00:04:0x", 1), -1);
    EXPECT_THAT(hostapd->commands(), IsEmpty());
    EXPECT_TRUE(log.contains("Error: Could not read sta_mac at iface wlan0-va0"));
}

TEST_F(Nl80211IoctlOps, AClientCountsAsAskedForTheTimeout) {
    start_hostapd([](const std::string&) { return "5\n"; });
    const auto attempted = [this] {
        std::vector<rrm_sta_realtek> stations;
        ops("wlan0-va0").get_assoc_sta(stations);
        return !stations.empty() && stations[0].roam_attempt;
    };
    EXPECT_EQ(ops("wlan0-va0").send_bsstrans_request("wlan0-va0", kStation, 1), 0);
    EXPECT_FALSE(attempted()) << "without a timeout";
    EXPECT_EQ(ops("wlan0-va0").set_vexor_roam_attempt_timeout("wlan0-va0", 3600), 0);
    EXPECT_EQ(mib("wlan0-va0", "roam_attempt_timeout"), 3600);
    EXPECT_EQ(ops("wlan0-va0").send_bsstrans_request("wlan0-va0", kStation, 1), 0);
    EXPECT_TRUE(attempted());
}

}  // namespace
