#include "driver_fixture.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class DriverScanTest : public LiveDriverTest {
  protected:
    int start(bool active, const std::set<unsigned>& channels_2,
              const std::set<unsigned>& channels_5) {
        return driver().start(active, channels_2, channels_5, duration);
    }

    // All notices to the scan daemon so far: those before one more, as the bus keeps their order.
    std::vector<std::string> all_scan_notices() {
        driver().lock_scan_scand("last");
        for (std::size_t count = 1;; ++count) {
            std::vector<std::string> notices = scan_notices(count);
            if (notices.size() < count)
                throw std::runtime_error("the scan daemon hears nothing");
            if (notices[count - 1] == "lock-scan last") {
                notices.resize(count - 1);
                return notices;
            }
        }
    }

    static std::set<unsigned> channels(unsigned count) {
        std::set<unsigned> result;
        for (unsigned channel = 1; channel <= count; ++channel)
            result.insert(channel);
        return result;
    }

    // Either kind of scan has heard as many neighbours on wlan0 and wlan1.
    void hear(std::size_t on_wlan0, std::size_t on_wlan1) {
        for (const auto heard :
             {&FakeKernel::Interface::heard, &FakeKernel::Interface::rrm_heard}) {
            (kernel.interface("wlan0").*heard).resize(on_wlan0);
            (kernel.interface("wlan1").*heard).resize(on_wlan1);
        }
    }
    // The table of either kind of scan can be read and holds as many neighbours.
    void expect_tables_of(std::size_t neighbours) {
        ap_table table;
        EXPECT_EQ(driver().fill_ap_table(table), 0);
        EXPECT_EQ(table.size(), neighbours);
        EXPECT_EQ(driver().fill_ap_table_vexor_rrm(table), 0);
        EXPECT_EQ(table.size(), neighbours);
    }

    int duration = 0;
};

// --- start ---

TEST_F(DriverScanTest, StartsEachRadioOnItsOwnBandsChannels) {
    EXPECT_EQ(start(true, {1, 6, 11}, {36, 40}), 0);
    EXPECT_THAT(kernel.history(),
                ElementsAre("wlan0 stop", "wlan0 scan", "wlan1 stop", "wlan1 scan"));
    EXPECT_THAT(kernel.interface("wlan0").scanning, ElementsAre(1, 6, 11));
    EXPECT_THAT(kernel.interface("wlan1").scanning, ElementsAre(36, 40));
    EXPECT_TRUE(driver().is_in_progress());
    EXPECT_EQ(logged("info: Attempt to start active scanning..."), 1);
    EXPECT_THAT(scan_notices(2), ElementsAre("lock-scan wlan0", "lock-scan wlan1"));
}

TEST_F(DriverScanTest, AnRrmScanMeasuresTheLowestChannelOfEachRadio) {
    EXPECT_EQ(start(false, {11, 6, 1}, {40, 36}), 0);
    EXPECT_THAT(kernel.history(),
                ElementsAre("wlan0 set rrm_scan_chan=0", "wlan0 set rrm_scan_chan=1",
                            "wlan0 trigger", "wlan1 trigger"));
    EXPECT_THAT(tools.lines(), ElementsAre("iwpriv wlan1 set_mib rrm_scan_chan=0",
                                           "iwpriv wlan1 set_mib rrm_scan_chan=36"));
    EXPECT_EQ(logged("info: Attempt to start RRM scanning..."), 1);
    EXPECT_TRUE(driver().is_in_progress());
}

TEST_F(DriverScanTest, AnRrmScanTakesAtLeastSixSeconds) {
    start(false, {1}, {36});
    EXPECT_EQ(duration, 6);
}

TEST_F(DriverScanTest, AnRrmScanWithoutChannelsMeasuresNothing) {
    EXPECT_EQ(start(false, {}, {}), 0);
    EXPECT_THAT(kernel.history(), ElementsAre("wlan0 set rrm_scan_chan=0"));
    EXPECT_EQ(duration, 6);
    EXPECT_EQ(logged(R"(error: <start_rrm_scan:\d+> no channel to measure\(ifname == wlan[01]\))"),
              2);
}

TEST_F(DriverScanTest, TheDurationIsThatOfTheRadioWithMostChannels) {
    start(true, channels(3), channels(10));
    EXPECT_EQ(duration, 8);
}

TEST_F(DriverScanTest, TheDurationRoundsTenthsDownAndAddsOne) {
    start(true, channels(1), channels(13));
    EXPECT_EQ(duration, 10);  // 9.1 seconds
}

TEST_F(DriverScanTest, AScanOfAllChannelsTakesFifteenSecondsAt5GHz) {
    start(true, {}, {});
    EXPECT_EQ(duration, 15);
}

TEST_F(DriverScanTest, AScanOfAllChannelsTakesTenSecondsAt2GHz) {
    tools.set_mib("wlan1", "chanspec", 0x1000 | 11);
    start(true, {}, {});
    EXPECT_EQ(duration, 10);
}

TEST_F(DriverScanTest, ALongerDurationIsKept) {
    duration = 100;
    start(true, {1}, {36});
    EXPECT_EQ(duration, 100);
}

TEST_F(DriverScanTest, ASecondStartIsIgnored) {
    start(true, {1}, {36});
    kernel.forget();
    duration = 0;
    EXPECT_EQ(start(true, channels(13), channels(30)), 0);
    EXPECT_EQ(duration, 0);
    EXPECT_THAT(kernel.calls(), IsEmpty());
    EXPECT_THAT(all_scan_notices(), ElementsAre("lock-scan wlan0", "lock-scan wlan1"));
}

TEST_F(DriverScanTest, WithHostapdDownNothingStartsAndNothingIsLocked) {
    driver().set_hostapd_initialized(false);
    EXPECT_EQ(start(true, {1}, {36}), 0);
    EXPECT_EQ(start(false, {1}, {36}), 0);
    EXPECT_FALSE(driver().is_in_progress());
    EXPECT_EQ(duration, 0);
    EXPECT_THAT(kernel.calls(), IsEmpty());
    EXPECT_THAT(all_scan_notices(), IsEmpty());
    EXPECT_EQ(log.count("Attempt to start"), 2);
}

TEST_F(DriverScanTest, NothingStartsAndNothingIsLockedWhileTheProcessStops) {
    run_flag = false;
    EXPECT_EQ(start(true, {1}, {36}), 0);
    EXPECT_EQ(start(false, {1}, {36}), 0);
    EXPECT_FALSE(driver().is_in_progress());
    EXPECT_EQ(duration, 0);
    EXPECT_THAT(kernel.calls(), IsEmpty());
    EXPECT_THAT(all_scan_notices(), IsEmpty());
}

TEST_F(DriverScanTest, A6GHzRadioIsLockedButNotScannedAndUnlockedByStop) {
    platform.radios(R"({"ifname":"wlan0","driver":"rtl8192cd","bands":["2.4GHz"]},)"
                    R"({"ifname":"wlan1","driver":"g6","bands":["6GHz"]})");
    start(true, {1}, {36});
    EXPECT_THAT(kernel.history(), ElementsAre("wlan0 stop", "wlan0 scan"));
    driver().stop(true);
    EXPECT_THAT(scan_notices(4), ElementsAre("lock-scan wlan0", "lock-scan wlan1",
                                             "unlock-scan wlan0", "unlock-scan wlan1"));
}

TEST_F(DriverScanTest, A6GHzRadioKeepsNoneBehindItFromTheScan) {
    platform.radios(R"({"ifname":"wlan1","driver":"g6","bands":["6GHz"]},)"
                    R"({"ifname":"wlan0","driver":"rtl8192cd","bands":["2.4GHz"]})");
    start(true, {1}, {36});
    EXPECT_THAT(kernel.history(), ElementsAre("wlan0 stop", "wlan0 scan"));
}

TEST_F(DriverScanTest, TheFirstRadioIsScannedWithoutAnErrorLine) {
    const LogCapture fresh;
    start(true, {1}, {36});
    driver().stop(true);
    start(false, {1}, {36});
    driver().stop(false);
    EXPECT_EQ(fresh.count("error: "), 0);
}

TEST_F(DriverScanTest, A6GHzRadioIsLeftOutOfAnRrmScanToo) {
    platform.radios(R"({"ifname":"wlan1","driver":"g6","bands":["6GHz"]})");
    start(false, {1}, {36});
    EXPECT_THAT(kernel.history(), IsEmpty());
    EXPECT_THAT(tools.lines(), IsEmpty());
    EXPECT_EQ(duration, 0);
    EXPECT_THAT(all_scan_notices(), ElementsAre("lock-scan wlan1"));
}

TEST_F(DriverScanTest, ARadioThatIsSkippedDoesNotRaiseTheDuration) {
    set_down("wlan1");
    refresh();
    start(true, channels(1), channels(30));
    EXPECT_EQ(duration, 1);
}

TEST_F(DriverScanTest, AWdsAndAWidsRadioRaiseNoDuration) {
    set_wds("wlan0");
    set_wids("wlan1");
    refresh();
    start(true, channels(10), {});
    driver().stop(true);
    start(false, {1}, {36});
    EXPECT_EQ(duration, 0);
}

// Bus and kernel are two ways: each request to the kernel waits for the notices due before it.
TEST_F(DriverScanTest, EachRadioIsLockedRightBeforeItsCommandsAndUnlockedRightAfter) {
    std::vector<std::string> order;
    std::size_t notices_seen = 0;
    const auto take_notices = [&](std::size_t due) {
        const std::vector<std::string> notices = scan_notices(due);
        for (; notices_seen < notices.size(); ++notices_seen)
            order.push_back(notices[notices_seen]);
    };
    std::size_t due_before_wlan0 = 1;
    kernel.watch([&](const std::string& request) {
        take_notices(due_before_wlan0 + (request.starts_with("wlan1") ? 1 : 0));
        order.push_back(request);
    });
    start(true, {1}, {36});
    due_before_wlan0 = 2;
    driver().stop(true);
    take_notices(4);
    kernel.watch({});
    EXPECT_THAT(order, ElementsAre("lock-scan wlan0", "wlan0 stop", "wlan0 scan", "lock-scan wlan1",
                                   "wlan1 stop", "wlan1 scan", "wlan0 stop", "unlock-scan wlan0",
                                   "wlan1 stop", "unlock-scan wlan1"));
}

TEST_F(DriverScanTest, ARadioThatFailsDoesNotStopTheOthers) {
    kernel.fail(FakeKernel::RTL8192CD_VEXOR, EIO);
    EXPECT_EQ(start(true, {1}, {36}), 0);
    EXPECT_TRUE(kernel.interface("wlan1").scan_runs);
    EXPECT_TRUE(driver().is_in_progress());
}

TEST_F(DriverScanTest, ReportsARadioWhoseNameHasNoNumber) {
    platform.radios(R"({"ifname":"radio","driver":"g6","bands":["5GHz"]})");
    start(true, {1}, {36});
    driver().stop(true);
    start(false, {1}, {36});
    driver().stop(false);
    for (const char* operation :
         {"start_active_scan", "stop_active_scan", "start_rrm_scan", "stop_rrm_scan"})
        EXPECT_EQ(logged("error: <" + std::string{operation} +
                         R"(:\d+> cannot parse ifname\(ifname == radio\))"),
                  1);
    EXPECT_THAT(kernel.calls(), IsEmpty());
}

// --- stop ---

TEST_F(DriverScanTest, StopEndsTheScanOfEachRadio) {
    start(true, {1}, {36});
    EXPECT_EQ(driver().stop(true), 0);
    EXPECT_FALSE(kernel.interface("wlan0").scan_runs);
    EXPECT_FALSE(kernel.interface("wlan1").scan_runs);
    EXPECT_FALSE(driver().is_in_progress());
    EXPECT_EQ(logged("info: Attempt to stop active scanning..."), 1);
}

TEST_F(DriverScanTest, StopEndsAnRrmScanThroughTheMib) {
    start(false, {6}, {36});
    EXPECT_EQ(driver().stop(false), 0);
    EXPECT_EQ(kernel.mib_text("wlan0", "rrm_scan_chan"), "0");
    EXPECT_EQ(tools.lines().back(), "iwpriv wlan1 set_mib rrm_scan_chan=0");
    EXPECT_EQ(logged("info: Attempt to stop RRM scanning..."), 1);
}

TEST_F(DriverScanTest, StopDoesNothingUnlessAScanRuns) {
    EXPECT_EQ(driver().stop(true), 0);
    EXPECT_THAT(kernel.calls(), IsEmpty());
    EXPECT_THAT(all_scan_notices(), IsEmpty());
}

TEST_F(DriverScanTest, StopReachesARadioThatHasBecomeAWdsOrWidsRadio) {
    start(true, {1}, {36});
    set_wds("wlan0");
    set_wids("wlan1");
    refresh();
    driver().stop(true);
    EXPECT_THAT(kernel.history(), ElementsAre("wlan0 stop", "wlan1 stop"));
}

TEST_F(DriverScanTest, StoppingAnRrmScanReachesARadioThatHasBecomeAWdsOrWidsRadio) {
    start(false, {1}, {36});
    set_wds("wlan0");
    set_wids("wlan1");
    refresh();
    driver().stop(false);
    EXPECT_THAT(kernel.history(), ElementsAre("wlan0 set rrm_scan_chan=0"));
    EXPECT_THAT(tools.lines(), ElementsAre("iwpriv wlan1 set_mib rrm_scan_chan=0"));
}

TEST_F(DriverScanTest, ARadioThatWentDownIsUnlockedButNotStopped) {
    for (const bool active : {true, false}) {
        start(active, {1}, {36});
        all_scan_notices();
        set_down("wlan0");
        set_down("wlan1");
        refresh();
        driver().stop(active);
        EXPECT_THAT(kernel.history(), IsEmpty());
        EXPECT_THAT(tools.lines(), IsEmpty());
        EXPECT_FALSE(driver().is_in_progress());
        EXPECT_THAT(all_scan_notices(), ElementsAre("unlock-scan wlan0", "unlock-scan wlan1"));
        set_up("wlan0");
        set_up("wlan1");
        refresh();
    }
}

TEST_F(DriverScanTest, WhileTheProcessStopsTheRadiosAreOnlyUnlocked) {
    for (const bool active : {true, false}) {
        start(active, {1}, {36});
        all_scan_notices();
        forget();
        run_flag = false;
        driver().stop(active);
        EXPECT_THAT(kernel.history(), IsEmpty());
        EXPECT_THAT(tools.lines(), IsEmpty());
        EXPECT_FALSE(driver().is_in_progress());
        EXPECT_THAT(all_scan_notices(), ElementsAre("unlock-scan wlan0", "unlock-scan wlan1"));
        forget();
        run_flag = true;
    }
}

TEST_F(DriverScanTest, InitEndsTheScanThatRuns) {
    start(true, {1}, {36});
    driver().init();
    EXPECT_FALSE(kernel.interface("wlan0").scan_runs);
    EXPECT_FALSE(kernel.interface("wlan1").scan_runs);
    EXPECT_FALSE(driver().is_in_progress());
}

TEST_F(DriverScanTest, StopDoesNothingWithHostapdDown) {
    start(true, {1}, {36});
    kernel.forget();
    driver().set_hostapd_initialized(false);
    EXPECT_EQ(driver().stop(true), 0);
    EXPECT_TRUE(driver().is_in_progress());
    EXPECT_THAT(kernel.calls(), IsEmpty());
    EXPECT_THAT(all_scan_notices(), ElementsAre("lock-scan wlan0", "lock-scan wlan1"));
}

// --- results ---

TEST_F(DriverScanTest, TheTableHoldsTheNeighboursOfAllRadios) {
    kernel.interface("wlan0").heard = {{{1}, -50, 6, 20, 0, 0x1006}};
    kernel.interface("wlan1").heard = {{{2}, -60, 36, 20, 0, 0xD024},
                                       {{3}, -70, 40, 20, 0, 0xD028}};
    ap_table table(5);
    EXPECT_EQ(driver().fill_ap_table(table), 0);
    ASSERT_EQ(table.size(), 3U);
    EXPECT_EQ(table[0].bssid[0], 1);
    EXPECT_EQ(table[2].channel, 40);
    EXPECT_EQ(logged("info: Attempt to fill a scanning result table..."), 1);
}

TEST_F(DriverScanTest, TheRrmTableHoldsWhatTheRrmScansHeard) {
    kernel.interface("wlan0").rrm_heard = {{{1}, -50, 0, 0, 80, 0x1006}};
    kernel.interface("wlan1").rrm_heard = {{{2}, -60, 0, 0, 92, 0xD024}};
    ap_table table(5);
    EXPECT_EQ(driver().fill_ap_table_vexor_rrm(table), 0);
    ASSERT_EQ(table.size(), 2U);
    EXPECT_EQ(table[0].channel, 6);
    EXPECT_EQ(table[1].tx_power, 23);
    EXPECT_EQ(logged("info: Attempt to fill a rrm scanning result table..."), 1);
}

TEST_F(DriverScanTest, AFailingRadioEndsTheTable) {
    kernel.interface("wlan1").heard.resize(2);
    kernel.interface("wlan1").rrm_heard.resize(2);
    kernel.fail(FakeKernel::RTL8192CD_VEXOR, EIO);
    ap_table table(1);
    EXPECT_EQ(driver().fill_ap_table(table), -1);
    EXPECT_THAT(table, IsEmpty());
    EXPECT_EQ(driver().fill_ap_table_vexor_rrm(table), -1);
    EXPECT_THAT(table, IsEmpty());
    EXPECT_THAT(kernel.history(), ElementsAre("wlan0 results", "wlan0 rrm-results"));
}

TEST_F(DriverScanTest, NeighboursBeforeAFailingRadioStay) {
    kernel.interface("wlan0").heard.resize(2);
    kernel.fail(FakeKernel::G6_VEXOR, EIO);
    ap_table table;
    EXPECT_EQ(driver().fill_ap_table(table), -1);
    EXPECT_EQ(table.size(), 2U);
}

TEST_F(DriverScanTest, AMissingSocketIsAFailingRadio) {
    const call_faults::NoSocket fault;
    ap_table table;
    EXPECT_EQ(driver().fill_ap_table(table), -1);
}

TEST_F(DriverScanTest, WithoutAnyRadioTheTablesAreEmptyWithoutAnError) {
    platform.radios("");
    ap_table table(1);
    EXPECT_EQ(driver().fill_ap_table(table), 0);
    EXPECT_THAT(table, IsEmpty());
    table.resize(1);
    EXPECT_EQ(driver().fill_ap_table_vexor_rrm(table), 0);
    EXPECT_THAT(table, IsEmpty());
}

TEST_F(DriverScanTest, ADisabledRadioIsLeftOutWithoutAnError) {
    set_down("wlan0");
    refresh();
    hear(2, 1);
    expect_tables_of(1);
    start(true, {1}, {36});
    EXPECT_FALSE(kernel.interface("wlan0").scan_runs);
}

TEST_F(DriverScanTest, AWdsRadioIsLeftOutWithoutAnError) {
    set_wds("wlan1");
    refresh();
    hear(2, 1);
    expect_tables_of(2);
    start(true, {1}, {36});
    EXPECT_FALSE(kernel.interface("wlan1").scan_runs);
    EXPECT_THAT(scan_notices(2), Contains("lock-scan wlan1"));
}

TEST_F(DriverScanTest, AWidsRadioIsLeftOutWithoutAnError) {
    set_wids("wlan0");
    refresh();
    ASSERT_TRUE(driver().is_wids_enabled(0));
    hear(2, 1);
    expect_tables_of(1);
    start(false, {1}, {36});
    EXPECT_THAT(kernel.history(),
                ElementsAre("wlan1 results", "wlan1 rrm-results", "wlan1 trigger"));
}

}  // namespace
