// Surveys of the radio neighbourhood, and the reports about it.
#include <fstream>
#include <iterator>
#include <limits>
#include <string>

#include "json_memory.h"
#include "rrm_worker_fixture.h"

namespace {

using testing::_;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::InSequence;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

constexpr unsigned largest_number = std::numeric_limits<int>::max();

ap_info neighbour(std::uint8_t last_byte) {
    ap_info ap;
    ap.bssid = {0x00, 0x0a, 0xbc, 0xde, 0xf0, last_byte};
    ap.signal = -61;
    ap.channel = 40;
    ap.bw = 80;
    ap.tx_power = 17;
    ap.primary_channel = LWLIO_CHANSPEC_CTL_SB_LU;
    return ap;
}

class RrmWorkerScanTest : public RrmWorkerTest {
  protected:
    void generic_update(const std::string& fields) { service_commands("rrm-update", fields); }
    void vexor_update(const std::string& fields) {
        service_commands("rrm-update", R"("vexor-rrm-scanning":1,)" + fields);
    }
    // The channels that the driver is to scan.
    void set_channels(const char* text) {
        generic_update(R"("rrm-scan-channels":")" + std::string{text} + '"');
    }
    [[nodiscard]] const std::set<unsigned>& scan_channels_2() const {
        return driver.scans.back().channels_2;
    }
    [[nodiscard]] const std::set<unsigned>& scan_channels_5() const {
        return driver.scans.back().channels_5;
    }
    void hear(std::uint8_t last_byte) { driver.radios[0].neighbours = {neighbour(last_byte)}; }
    // Runs the worker until the scan under way has ended.
    void finish_scan() { advance(driver.scan_duration); }

    std::vector<std::string> responses() { return reports_of("rrm-response"); }
    [[nodiscard]] long scans_in_system_log() const {
        std::ifstream file{root + "/syslog"};
        long count = 0;
        for (std::string line; std::getline(file, line);)
            count += line == "6 Started scan by orvanta" ? 1 : 0;
        return count;
    }
};

// --- the channel list ---

TEST_F(RrmWorkerScanTest, SplitsTheChannelsBetweenTheBandsAt36) {
    set_channels("1 6 11 36 40");
    EXPECT_THAT(scan_channels_2(), ElementsAre(1, 6, 11));
    EXPECT_THAT(scan_channels_5(), ElementsAre(36, 40));
    set_channels("35 36");
    EXPECT_THAT(scan_channels_2(), ElementsAre(35));
    EXPECT_THAT(scan_channels_5(), ElementsAre(36));
}

TEST_F(RrmWorkerScanTest, TwoBlanksInARowAddChannelZero) {
    set_channels("1  6");
    EXPECT_THAT(scan_channels_2(), ElementsAre(0, 1, 6));
    EXPECT_THAT(scan_channels_5(), IsEmpty());
}

TEST_F(RrmWorkerScanTest, ALeadingBlankAddsChannelZero) {
    set_channels(" 6");
    EXPECT_THAT(scan_channels_2(), ElementsAre(0, 6));
}

TEST_F(RrmWorkerScanTest, ABlankAfterTheLastChannelAddsNothing) {
    set_channels("1 6 ");
    EXPECT_THAT(scan_channels_2(), ElementsAre(1, 6));
}

TEST_F(RrmWorkerScanTest, AnEmptyListNamesNoChannel) {
    set_channels("1 36");
    set_channels("");
    EXPECT_THAT(scan_channels_2(), IsEmpty());
    EXPECT_THAT(scan_channels_5(), IsEmpty());
}

TEST_F(RrmWorkerScanTest, TextWithoutLeadingDigitsIsChannelZero) {
    set_channels("abc x36");
    EXPECT_THAT(scan_channels_2(), ElementsAre(0));
    EXPECT_THAT(scan_channels_5(), IsEmpty());
}

TEST_F(RrmWorkerScanTest, OnlyTheLeadingDigitsOfAPieceCount) {
    set_channels("6x 44,48 1.5 +9");
    EXPECT_THAT(scan_channels_2(), ElementsAre(1, 6, 9));
    EXPECT_THAT(scan_channels_5(), ElementsAre(44));
}

TEST_F(RrmWorkerScanTest, ANegativeNumberIsChannelZero) {
    set_channels("-1 -99999999999999999999");
    EXPECT_THAT(scan_channels_2(), ElementsAre(0));
    EXPECT_THAT(scan_channels_5(), IsEmpty());
}

TEST_F(RrmWorkerScanTest, ANumberBeyondIntIsTheLargestInt) {
    set_channels("4294967297 99999999999999999999");
    EXPECT_THAT(scan_channels_2(), IsEmpty());
    EXPECT_THAT(scan_channels_5(), ElementsAre(largest_number));
}

TEST_F(RrmWorkerScanTest, AChannelNamedTwiceIsScannedOnce) {
    set_channels("11 1 11");
    EXPECT_THAT(scan_channels_2(), ElementsAre(1, 11));
}

TEST_F(RrmWorkerScanTest, EachUpdateBringsItsOwnChannels) {
    generic_update(R"("rrm-scan-channels":"1 36")");
    generic_update(R"("rrm-scan-channels":"6")");
    EXPECT_THAT(scan_channels_2(), ElementsAre(6));
    EXPECT_THAT(scan_channels_5(), IsEmpty());
    generic_update("");
    EXPECT_THAT(scan_channels_2(), IsEmpty());
}

// --- the start ---

TEST_F(RrmWorkerScanTest, IgnoresAnUpdateWhileHostapdIsNotRunning) {
    driver.hostapd_up = false;
    vexor_update(R"("rrm-scan-delay":3,"rrm-scan-channels":"1")");
    advance(60);
    EXPECT_TRUE(log.contains("info: Ignoring rrm-update because hostapd is not running"));
    EXPECT_FALSE(log.contains("process_rrm_update:"));
    EXPECT_THAT(driver.scans, IsEmpty());
    EXPECT_EQ(peer().rrm_response_timeout(), 0);
}

TEST_F(RrmWorkerScanTest, WithoutADelayTheScanStartsAtOnce) {
    generic_update(R"("rrm-scan-channels":"1 6 36")");
    EXPECT_THAT(driver.scans, ElementsAre(ScanCall{true, {1, 6}, {36}}));
    EXPECT_TRUE(log.contains("info: process_rrm_update:"));
    EXPECT_EQ(scans_in_system_log(), 1);
}

TEST_F(RrmWorkerScanTest, ANegativeDelayStartsAtOnce) {
    generic_update(R"("rrm-scan-delay":-5)");
    EXPECT_THAT(driver.scans, SizeIs(1));
}

TEST_F(RrmWorkerScanTest, TheScanWaitsForTheDelay) {
    generic_update(R"("rrm-scan-delay":10)");
    advance(9);
    EXPECT_THAT(driver.scans, IsEmpty());
    advance(1);
    EXPECT_THAT(driver.scans, SizeIs(1));
}

TEST_F(RrmWorkerScanTest, ADelayOfOneSecondIsWaitedFor) {
    generic_update(R"("rrm-scan-delay":1)");
    EXPECT_THAT(driver.scans, IsEmpty());
    advance(1);
    EXPECT_THAT(driver.scans, SizeIs(1));
}

TEST_F(RrmWorkerScanTest, AnUpdateWithoutADelayTakesThePlaceOfOneThatWaits) {
    vexor_update(R"("rrm-scan-delay":10,"rrm-scan-channels":"1")");
    vexor_update(R"("rrm-scan-channels":"6")");
    finish_scan();
    EXPECT_THAT(responses(), SizeIs(1));
    advance(100);
    EXPECT_THAT(driver.scans, ElementsAre(ScanCall{false, {6}, {}}));
    EXPECT_THAT(responses(), SizeIs(1));
}

TEST_F(RrmWorkerScanTest, ANewUpdateBeginsTheDelayAnew) {
    generic_update(R"("rrm-scan-delay":10)");
    advance(9);
    generic_update(R"("rrm-scan-delay":10)");
    advance(9);
    EXPECT_THAT(driver.scans, IsEmpty());
    advance(1);
    EXPECT_THAT(driver.scans, SizeIs(1));
}

TEST_F(RrmWorkerScanTest, TheServiceChoosesTheScanPath) {
    vexor_update(R"("rrm-scan-channels":"6")");
    generic_update(R"("vexor-rrm-scanning":0,"rrm-scan-channels":"6")");
    service_commands("rrm-update", R"("vexor-rrm-scanning":-1)");
    generic_update(R"("rrm-scan-delay":4)");
    EXPECT_THAT(driver.scans, SizeIs(3));
    advance(4);
    EXPECT_THAT(driver.scans, ElementsAre(ScanCall{false, {6}, {}}, ScanCall{true, {6}, {}},
                                          ScanCall{false, {}, {}}, ScanCall{true, {}, {}}));
}

TEST_F(RrmWorkerScanTest, StopsWhatTheDriverDoesBeforeItStarts) {
    const InSequence order;
    EXPECT_CALL(driver, stop(true));
    EXPECT_CALL(driver, start(false, _, _, _));
    EXPECT_CALL(driver, stop(true));
    EXPECT_CALL(driver, fill_ap_table_vexor_rrm);
    vexor_update(R"("rrm-scan-channels":"6")");
    finish_scan();
    testing::Mock::VerifyAndClearExpectations(&driver);
}

TEST_F(RrmWorkerScanTest, AScanWithoutADurationEndsOnTheNextPass) {
    driver.scan_duration = 0;
    vexor_update(R"("rrm-scan-channels":"6")");
    EXPECT_THAT(responses(), IsEmpty());
    advance(0);
    EXPECT_THAT(responses(), SizeIs(1));
}

// --- the vendor path ---

TEST_F(RrmWorkerScanTest, TheVendorPathReportsAtOnceWithoutADelay) {
    hear(1);
    vexor_update(R"("rrm-scan-delay":0,"rrm-scan-channels":"6")");
    advance(driver.scan_duration - 1);
    EXPECT_THAT(responses(), IsEmpty());
    advance(1);
    ASSERT_THAT(responses(), SizeIs(1));
    EXPECT_THAT(last_report(), HasSubstr("00:0a:bc:de:f0:01"));
    EXPECT_TRUE(log.contains("info: scan_finished"));
}

TEST_F(RrmWorkerScanTest, TheVendorPathUsesTheDelayBeforeTheScanAndAgainBeforeTheReport) {
    hear(1);
    vexor_update(R"("rrm-scan-delay":20,"rrm-scan-channels":"6")");
    advance(20);
    EXPECT_THAT(driver.scans, SizeIs(1));
    finish_scan();
    advance(19);
    EXPECT_THAT(responses(), IsEmpty());
    advance(1);
    EXPECT_THAT(responses(), SizeIs(1));
    advance(100);
    EXPECT_THAT(responses(), SizeIs(1));
    EXPECT_THAT(driver.scans, SizeIs(1));
}

TEST_F(RrmWorkerScanTest, TheReportTakesTheNeighboursOfTheScanAndNotThoseOfItsOwnTime) {
    hear(1);
    vexor_update(R"("rrm-scan-delay":20,"rrm-scan-channels":"6")");
    advance(20);
    finish_scan();
    hear(2);
    advance(20);
    EXPECT_THAT(last_report(), HasSubstr("00:0a:bc:de:f0:01"));
    EXPECT_THAT(last_report(), Not(HasSubstr("00:0a:bc:de:f0:02")));
}

TEST_F(RrmWorkerScanTest, TheTablesAreEmptyAfterTheReport) {
    hear(1);
    vexor_update(R"("rrm-scan-channels":"6")");
    finish_scan();
    EXPECT_THAT(peer().environment(), testing::Each(IsEmpty()));
}

// --- the generic path ---

TEST_F(RrmWorkerScanTest, TheGenericPathReportsAfterTheFifthPassWithOneTableForEach) {
    generic_update(R"("rrm-scan-delay":7,"rrm-scan-channels":"1 36")");
    EXPECT_EQ(peer().rrm_response_timeout(), 0);
    advance(7);
    for (unsigned finished = 0; finished < scan_passes; ++finished) {
        EXPECT_THAT(driver.scans, SizeIs(finished + 1));
        EXPECT_THAT(responses(), IsEmpty());
        hear(static_cast<std::uint8_t>(finished));
        finish_scan();
    }
    ASSERT_THAT(responses(), SizeIs(1));
    const json_reader report{last_report().c_str()};
    const json_reader tables = report.get_subobject("rf-environment");
    ASSERT_EQ(tables.array_length(), 5U);
    for (std::size_t i = 0; i < tables.array_length(); ++i) {
        const json_reader table = tables.get_array_element(i);
        ASSERT_EQ(table.array_length(), 1U);
        EXPECT_EQ(table.get_array_element(0).get_string("bssid"),
                  "00:0a:bc:de:f0:0" + std::to_string(i));
    }
    EXPECT_THAT(driver.scans, SizeIs(5));
    EXPECT_THAT(driver.scans, testing::Each(ScanCall{true, {1}, {36}}));
    EXPECT_EQ(scans_in_system_log(), 5);
    advance(100);
    EXPECT_THAT(driver.scans, SizeIs(5));
    EXPECT_THAT(responses(), SizeIs(1));
    EXPECT_THAT(peer().environment(), testing::Each(IsEmpty()));
}

TEST_F(RrmWorkerScanTest, APassThatHeardNobodyGivesNoTable) {
    generic_update("");
    for (std::size_t finished = 0; finished < scan_passes; ++finished) {
        driver.radios[0].neighbours.clear();
        if (finished % 2 == 1)
            hear(static_cast<std::uint8_t>(finished));
        finish_scan();
    }
    const json_reader report{last_report().c_str()};
    EXPECT_EQ(report.get_subobject("rf-environment").array_length(), 2U);
}

TEST_F(RrmWorkerScanTest, StopsTheDriverThenReadsItThenStartsTheNextPass) {
    generic_update("");
    const InSequence order;
    EXPECT_CALL(driver, stop(true));
    EXPECT_CALL(driver, fill_ap_table);
    EXPECT_CALL(driver, start(true, _, _, _));
    finish_scan();
    testing::Mock::VerifyAndClearExpectations(&driver);
}

TEST_F(RrmWorkerScanTest, ASecondSurveyCountsItsPassesFromTheBeginning) {
    for (std::size_t survey = 0; survey < 2; ++survey) {
        generic_update("");
        for (std::size_t finished = 0; finished < scan_passes; ++finished) {
            EXPECT_THAT(responses(), SizeIs(survey));
            finish_scan();
        }
    }
    EXPECT_THAT(responses(), SizeIs(2));
}

// --- interruptions ---

TEST_F(RrmWorkerScanTest, AnUpdateForgetsTheEndOfAScanThatTheDriverHasGivenUp) {
    vexor_update(R"("rrm-scan-channels":"6")");
    driver.in_progress = false;
    vexor_update(R"("rrm-scan-delay":100,"rrm-scan-channels":"6")");
    finish_scan();
    EXPECT_FALSE(log.contains("scan_finished"));
    EXPECT_THAT(responses(), IsEmpty());
}

TEST_F(RrmWorkerScanTest, AnUpdateDuringAScanBeginsTheSurveyAnew) {
    hear(1);
    generic_update("");
    finish_scan();
    ASSERT_THAT(driver.scans, SizeIs(2));
    hear(2);
    vexor_update(R"("rrm-scan-channels":"6")");
    EXPECT_TRUE(log.contains("Got rrm-update. turning off the current scan."));
    finish_scan();
    ASSERT_THAT(responses(), SizeIs(1));
    EXPECT_THAT(last_report(), HasSubstr("00:0a:bc:de:f0:02"));
    EXPECT_THAT(last_report(), Not(HasSubstr("00:0a:bc:de:f0:01")));
    advance(100);
    EXPECT_THAT(responses(), SizeIs(1));
}

TEST_F(RrmWorkerScanTest, ARequestForTheModeEndsTheSurveyAndIsAnswered) {
    generic_update("");
    service_commands("rrm-request-mode");
    EXPECT_THAT(reports_of("rrm-mode-response"), SizeIs(1));
    EXPECT_FALSE(driver.in_progress);
    advance(100);
    EXPECT_THAT(responses(), IsEmpty());
    EXPECT_THAT(driver.scans, SizeIs(1));
}

TEST_F(RrmWorkerScanTest, AnUpdateDuringTheReportDelayLeavesTheReportDue) {
    hear(1);
    vexor_update(R"("rrm-scan-delay":10,"rrm-scan-channels":"6")");
    advance(10);
    finish_scan();
    generic_update(R"("rrm-scan-delay":60)");
    advance(10);
    ASSERT_THAT(responses(), SizeIs(1));
    EXPECT_THAT(last_report(), HasSubstr("00:0a:bc:de:f0:01"));
}

TEST_F(RrmWorkerScanTest, ASurveyThatStartsDuringTheReportDelayLeavesTheReportDue) {
    hear(1);
    vexor_update(R"("rrm-scan-delay":10,"rrm-scan-channels":"6")");
    advance(10);
    finish_scan();
    advance(7);
    hear(2);
    vexor_update(R"("rrm-scan-channels":"11")");
    ASSERT_TRUE(driver.in_progress);
    advance(3);
    ASSERT_THAT(responses(), SizeIs(1));
    EXPECT_THAT(last_report(), HasSubstr("00:0a:bc:de:f0:01"));
    EXPECT_TRUE(driver.in_progress);
    advance(3);
    ASSERT_THAT(responses(), SizeIs(2));
    EXPECT_THAT(last_report(), HasSubstr("00:0a:bc:de:f0:02"));
    EXPECT_THAT(last_report(), Not(HasSubstr("00:0a:bc:de:f0:01")));
}

TEST_F(RrmWorkerScanTest, AReportDueAfterThatOfANewerSurveyIsEmpty) {
    hear(1);
    vexor_update(R"("rrm-scan-delay":10,"rrm-scan-channels":"6")");
    advance(10);
    finish_scan();
    hear(2);
    vexor_update(R"("rrm-scan-channels":"11")");
    finish_scan();
    ASSERT_THAT(responses(), SizeIs(1));
    EXPECT_THAT(last_report(), HasSubstr("00:0a:bc:de:f0:02"));
    advance(4);
    ASSERT_THAT(responses(), SizeIs(2));
    EXPECT_THAT(last_report(), EndsWith(R"("rf-environment":[]})"));
}

TEST_F(RrmWorkerScanTest, AStoppedHostapdEndsTheSurvey) {
    generic_update("");
    remove(hostapd_pid);
    ASSERT_TRUE(pass());
    touch(hostapd_pid);
    driver.hostapd_up = true;
    advance(100);
    EXPECT_THAT(responses(), IsEmpty());
    EXPECT_THAT(driver.scans, SizeIs(1));
}

TEST_F(RrmWorkerScanTest, WhatTheSurveyHasHeardIsForgottenWithHostapd) {
    generic_update("");
    for (ap_table& table : peer().environment())
        table.resize(1);
    remove(hostapd_pid);
    ASSERT_TRUE(pass());
    EXPECT_THAT(peer().environment(), Each(IsEmpty()));
}

TEST_F(RrmWorkerScanTest, ALostLinkEndsTheSurvey) {
    generic_update("");
    EXPECT_CALL(driver, stop(true));
    link("disconnected");
    advance(100);
    EXPECT_THAT(responses(), IsEmpty());
    EXPECT_THAT(driver.scans, SizeIs(1));
}

TEST_F(RrmWorkerScanTest, WithHostapdDownTheReportIsNotSentAndItsTablesAreEmptied) {
    hear(1);
    vexor_update(R"("rrm-scan-delay":10,"rrm-scan-channels":"6")");
    advance(10);
    finish_scan();
    ASSERT_THAT(peer().environment()[0], SizeIs(1));
    driver.hostapd_up = false;
    advance(10);
    EXPECT_THAT(responses(), IsEmpty());
    EXPECT_TRUE(log.contains("info: Not sending rrm-response because hostapd is not running"));
    EXPECT_THAT(peer().environment(), testing::Each(IsEmpty()));
}

TEST_F(RrmWorkerScanTest, WithoutMemoryForTheRadiosTheResponseIsNotSent) {
    vexor_update(R"("rrm-scan-channels":"6")");
    const JsonShortage shortage{JsonShortage::ARRAY};
    finish_scan();
    EXPECT_TRUE(shortage.has_struck());
    EXPECT_THAT(responses(), IsEmpty());
}

// --- the messages ---

// Both radios are down, so that nothing of the access point's own state is in their objects.
constexpr const char* radios_down =
    R"("radios":[{"id":0,"status":0,"mac-offset":0,"radio-mac-count":8,"locked-for-dca":1,)"
    R"("locked-for-tpc":1,"locked-for-balancer":1,"locked-for-80211v":1,"power":16,)"
    R"("power-max":16,"power-min":11,"eirp":18,"eirp-max":100,"eirp-min":0,)"
    R"("antenna-configuration":{"antenna-gain":3,"cable-loss":1},"channel":1,"band":2,)"
    R"("bandwidth":20,"primary-channel":"none"},)"
    R"({"id":1,"status":0,"mac-offset":8,"radio-mac-count":8,"locked-for-dca":1,)"
    R"("locked-for-tpc":1,"locked-for-balancer":1,"locked-for-80211v":1,"power":16,)"
    R"("power-max":16,"power-min":11,"eirp":18,"eirp-max":100,"eirp-min":0,)"
    R"("antenna-configuration":{"antenna-gain":3,"cable-loss":1},"channel":36,"band":5,)"
    R"("bandwidth":80,"primary-channel":"none"}])";

TEST_F(RrmWorkerScanTest, WritesTheResponse) {
    for (FakeRadio& radio : driver.radios)
        radio.up = false;
    ap_info second = neighbour(0xff);
    second.bssid[0] = 0xAB;
    second.channel = 6;
    second.bw = 20;
    second.tx_power = -3;
    second.primary_channel = 0;
    ON_CALL(driver, fill_ap_table_vexor_rrm).WillByDefault([&](ap_table& table) {
        table = {neighbour(0x01), second};
        return 0;
    });
    vexor_update(R"("rrm-scan-channels":"6")");
    finish_scan();
    EXPECT_EQ(last_report(),
              R"({"version":"2.4","service":"rrm","cmd":"rrm-response",)"
              R"("ap-mac":"00:11:22:33:44:50","domain":"site-1",)" +
                  std::string{radios_down} +
                  R"(,"rf-environment":[[{"bssid":"00:0a:bc:de:f0:01","rssi":-61,"channel":40,)"
                  R"("tx-power":17,"primary-channel":"lu","bandwidth":80},)"
                  R"({"bssid":"ab:0a:bc:de:f0:ff","rssi":-61,"channel":6,"tx-power":-3,)"
                  R"("primary-channel":"none","bandwidth":20}]]})");
}

TEST_F(RrmWorkerScanTest, ABssidIsWrittenWithLeadingZerosInLowerCase) {
    ap_info ap = neighbour(0xEF);
    ap.bssid = {0x00, 0x0A, 0x01, 0xAB, 0x00, 0x0F};
    driver.radios[0].neighbours = {ap};
    vexor_update(R"("rrm-scan-channels":"6")");
    finish_scan();
    EXPECT_THAT(last_report(), HasSubstr(R"("bssid":"00:0a:01:ab:00:0f")"));
}

TEST_F(RrmWorkerScanTest, WithoutNeighboursTheEnvironmentIsAnEmptyArray) {
    vexor_update(R"("rrm-scan-channels":"6")");
    finish_scan();
    EXPECT_THAT(last_report(), EndsWith(R"(,"rf-environment":[]})"));
}

TEST_F(RrmWorkerScanTest, ReportsSixtyFourThousandNeighbours) {
    ON_CALL(driver, fill_ap_table_vexor_rrm).WillByDefault([&](ap_table& table) {
        table.assign(65535, neighbour(1));
        return 0;
    });
    vexor_update(R"("rrm-scan-channels":"6")");
    finish_scan();
    const json_reader report{last_report().c_str()};
    const json_reader tables = report.get_subobject("rf-environment");
    EXPECT_EQ(tables.get_array_element(0).array_length(), 65535U);
}

TEST_F(RrmWorkerScanTest, ASubBandWithoutANameIsLeftOut) {
    hear(1);
    ON_CALL(driver, primary_channel_to_string).WillByDefault(testing::Return(nullptr));
    vexor_update(R"("rrm-scan-channels":"6")");
    finish_scan();
    EXPECT_THAT(last_report(), EndsWith(R"("tx-power":17,"bandwidth":80}]]})"));
}

TEST_F(RrmWorkerScanTest, WritesTheModeResponse) {
    for (FakeRadio& radio : driver.radios)
        radio.up = false;
    service_commands("rrm-request-mode");
    EXPECT_EQ(last_report(), R"({"version":"2.4","service":"rrm","cmd":"rrm-mode-response",)"
                             R"("ap-mac":"00:11:22:33:44:50","domain":"site-1",)" +
                                 std::string{radios_down} + "}");
}

TEST_F(RrmWorkerScanTest, IgnoresARequestForTheModeWhileHostapdIsNotRunning) {
    driver.hostapd_up = false;
    service_commands("rrm-request-mode");
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_TRUE(log.contains("info: Ignoring rrm-request-mode because hostapd is not running"));
    EXPECT_FALSE(log.contains("Not sending rrm-mode-response"));
}

TEST_F(RrmWorkerScanTest, TheModeResponseLooksAtHostapdAgain) {
    EXPECT_CALL(driver, is_hostapd_initialized)
        .WillOnce(testing::Return(true))
        .WillRepeatedly(testing::Return(false));
    service_commands("rrm-request-mode");
    testing::Mock::VerifyAndClearExpectations(&driver);
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_TRUE(log.contains("info: Not sending rrm-mode-response because hostapd is not running"));
}

}  // namespace
