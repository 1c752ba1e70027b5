// Configuration from the service: radios, steering options, neighbours, fast transition.
#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "rrm_worker_fixture.h"

namespace {

using testing::_;
using testing::AnyNumber;
using testing::Each;
using testing::ElementsAre;
using testing::Ge;
using testing::InSequence;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StrEq;

std::string repeated(const std::string& element, std::size_t count) {
    std::string list;
    for (std::size_t i = 0; i < count; ++i)
        list += (i == 0 ? "" : ",") + element;
    return '[' + list + ']';
}

class RrmWorkerConfigTest : public RrmWorkerTest {
  protected:
    RrmWorkerConfigTest() { subscribe(); }

    void info(const std::string& fields) { service_commands("rrm-info", fields); }
    // An "rrm-info" that allows everything and holds these "radios" elements.
    void configure(const std::string& elements) {
        info(R"("use-tpc":1,"use-dca":1,"radios":[)" + elements + "]");
    }
    void switch_80211r_on() { info(R"("use-80211r":1)"); }
    // An "fbt-info" with these "vaps" elements, with fast transition on.
    void fbt_info(const std::string& elements) {
        switch_80211r_on();
        service_commands(
            "fbt-info", R"("fbt-reassoc-deadline":2000,"fbt-over-ds":1,"vaps":[)" + elements + "]");
    }
    // Lines about channel switches, as "priority text".
    [[nodiscard]] std::vector<std::string> switches_in_system_log() const {
        std::vector<std::string> lines;
        std::ifstream file{root + "/syslog"};
        for (std::string line; std::getline(file, line);) {
            if (line.find("switch channel") != std::string::npos)
                lines.push_back(line);
        }
        return lines;
    }
};

// --- rrm-info as a whole ---

TEST_F(RrmWorkerConfigTest, NeighboursAreClearedOfTheRadiosAndVapsThereAreAlone) {
    EXPECT_CALL(driver, VapIdToVap).Times(AnyNumber());
    EXPECT_CALL(driver, VapIdToVap(_, Ge(driver.get_max_radios()))).Times(0);
    EXPECT_CALL(driver, VapIdToVap(Ge(static_cast<unsigned>(driver.get_max_vap())), _)).Times(0);
    info(R"("use-80211v":1,"802dot11k":[])");
}

TEST_F(RrmWorkerConfigTest, AppliesEverythingInOrderAndSparesALockedRadio) {
    driver.radios[1].wds = true;
    {
        const InSequence order;
        EXPECT_CALL(driver, set_vexor_roam_attempt_timeout(StrEq("wlan0"), 30));
        EXPECT_CALL(driver, set_tx_power(StrEq("wlan0"), 12));
        EXPECT_CALL(driver, set_chanspec(StrEq("wlan0"), 11, 40, PRIMARY_CHANNEL_UPPER));
        EXPECT_CALL(driver, set_vexor_roam_attempt_timeout(StrEq("wlan1"), 40));
        EXPECT_CALL(driver, clear_rrm_nbr_ap_list(StrEq("wlan0-va0")));
        EXPECT_CALL(driver, clear_rrm_nbr_ap_list(StrEq("wlan1-va0")));
        EXPECT_CALL(driver, clear_rrm_nbr_ap_list(StrEq("wlan1-va2")));
        EXPECT_CALL(driver,
                    set_rrm_nbr_ap_list(StrEq("aa:00:00:00:00:01"), StrEq("home"), 6, 3, 0));
        EXPECT_CALL(driver,
                    set_rrm_nbr_ap_list(StrEq("aa:00:00:00:00:02"), StrEq("guest"), 6, 3, 0));
        EXPECT_CALL(driver,
                    set_rrm_nbr_ap_list(StrEq("bb:00:00:00:00:01"), StrEq("home"), 36, 7, 0));
    }
    info(R"("use-tpc":1,"use-dca":1,"use-80211v":1,"use-80211r":1,"radios":[)"
         R"({"id":0,"channel":11,"bandwidth":40,"power":12,"primary-channel":"upper",)"
         R"("no-balance-enterprise":0,"vexor-roam-attempt-timeout":30},)"
         R"({"id":1,"channel":44,"bandwidth":80,"power":17,)"
         R"("no-balance-enterprise":1,"vexor-roam-attempt-timeout":40}],"802dot11k":[)"
         R"({"neighbour-mac":"aa:00:00:00:00:00","channel":6,"priority":3,"vaps":[)"
         R"({"ssid":"home","mac":"aa:00:00:00:00:01"},)"
         R"({"ssid":"guest","mac":"aa:00:00:00:00:02"}]},)"
         R"({"neighbour-mac":"bb:00:00:00:00:00","channel":36,"priority":7,"vaps":[)"
         R"({"ssid":"home","mac":"bb:00:00:00:00:01"}]}])");
    testing::Mock::VerifyAndClearExpectations(&driver);
    EXPECT_TRUE(is_steering());
    EXPECT_TRUE(takes_fast_transition());
    EXPECT_TRUE(peer().no_balance_enterprise());
}

TEST_F(RrmWorkerConfigTest, IgnoresRrmInfoWhileHostapdIsNotInitialised) {
    driver.hostapd_up = false;
    info(R"("use-tpc":1,"use-80211v":1,"use-80211r":1,"radios":[{"id":0,"power":12}])");
    EXPECT_FALSE(is_steering());
    EXPECT_FALSE(takes_fast_transition());
    EXPECT_THAT(driver.power_calls, IsEmpty());
    EXPECT_THAT(driver.cleared_neighbour_lists, IsEmpty());
    EXPECT_TRUE(log.contains("info: Ignoring rrm-info because hostapd is not running"));
}

TEST_F(RrmWorkerConfigTest, AppliesTheConfigOfASubscribeResponse) {
    subscribe(R"({"use-tpc":1,"use-80211v":1,"radios":[{"id":1,"power":9}]})");
    EXPECT_THAT(driver.power_calls, ElementsAre(IfnameValue{"wlan1", 9}));
    EXPECT_TRUE(is_steering());
}

// --- switches ---

TEST_F(RrmWorkerConfigTest, AMissingUse80211vSwitchesSteeringOff) {
    info(R"("use-80211v":1)");
    ASSERT_TRUE(is_steering());
    info("");
    EXPECT_FALSE(is_steering());
}

TEST_F(RrmWorkerConfigTest, AMissingUse80211rLeavesFastTransitionAsItWas) {
    info(R"("use-80211r":1)");
    info("");
    EXPECT_TRUE(takes_fast_transition());
    EXPECT_EQ(log.count("info: apply_config orvanta_use_80211r = 1"), 2);
    info(R"("use-80211r":0)");
    EXPECT_FALSE(takes_fast_transition());
    EXPECT_EQ(log.count("info: apply_config orvanta_use_80211r = 0"), 1);
}

TEST_F(RrmWorkerConfigTest, ANullUse80211rIsPresentAndReadsAsOff) {
    info(R"("use-80211r":1)");
    info(R"("use-80211r":null)");
    EXPECT_FALSE(takes_fast_transition());
}

TEST_F(RrmWorkerConfigTest, AnyNonZeroSwitchIsOn) {
    info(R"("use-80211v":-1,"use-80211r":7)");
    EXPECT_TRUE(is_steering());
    EXPECT_TRUE(takes_fast_transition());
}

TEST_F(RrmWorkerConfigTest, AnyNonZeroUseTpcAllowsPowerChanges) {
    info(R"("use-tpc":2,"radios":[{"id":0,"power":3}])");
    info(R"("use-tpc":-1,"radios":[{"id":0,"power":4}])");
    EXPECT_THAT(driver.power_calls, ElementsAre(IfnameValue{"wlan0", 3}, IfnameValue{"wlan0", 4}));
}

TEST_F(RrmWorkerConfigTest, AnyNonZeroUseDcaAllowsChannelSwitches) {
    info(R"("use-dca":2,"radios":[{"id":0,"channel":11}])");
    info(R"("use-dca":-1,"radios":[{"id":0,"channel":1}])");
    EXPECT_THAT(driver.channel_calls,
                ElementsAre(ChannelCall{"wlan0", 11, 20, PRIMARY_CHANNEL_NONE},
                            ChannelCall{"wlan0", 1, 20, PRIMARY_CHANNEL_NONE}));
}

TEST_F(RrmWorkerConfigTest, UseDcaOffSuppressesEveryChannelSwitch) {
    info(R"("use-tpc":1,"use-dca":0,"radios":[{"id":0,"channel":11,"power":3},)"
         R"({"id":1,"channel":44}])");
    EXPECT_THAT(driver.channel_calls, IsEmpty());
    EXPECT_THAT(driver.power_calls, ElementsAre(IfnameValue{"wlan0", 3}));
    EXPECT_THAT(switches_in_system_log(), IsEmpty());
}

TEST_F(RrmWorkerConfigTest, UseTpcOffSuppressesEveryPowerChange) {
    info(R"("use-tpc":0,"use-dca":1,"radios":[{"id":0,"channel":11,"power":3},)"
         R"({"id":1,"power":4}])");
    EXPECT_THAT(driver.power_calls, IsEmpty());
    EXPECT_THAT(driver.channel_calls, SizeIs(1));
}

TEST_F(RrmWorkerConfigTest, MissingSwitchesForbidPowerAndChannelChanges) {
    info(R"("radios":[{"id":0,"channel":11,"power":3}])");
    EXPECT_THAT(driver.power_calls, IsEmpty());
    EXPECT_THAT(driver.channel_calls, IsEmpty());
}

// --- power and channel ---

TEST_F(RrmWorkerConfigTest, LeavesThePowerAloneWhenTheElementNamesNone) {
    configure(R"({"id":0,"channel":11})");
    EXPECT_THAT(driver.power_calls, IsEmpty());
}

TEST_F(RrmWorkerConfigTest, SetsAPowerOfZeroThatIsPresent) {
    configure(R"({"id":0,"power":0})");
    EXPECT_THAT(driver.power_calls, ElementsAre(IfnameValue{"wlan0", 0}));
}

TEST_F(RrmWorkerConfigTest, BandwidthZeroMeansTwentyMegahertzWithoutAPrimarySide) {
    configure(R"({"id":1,"channel":44,"bandwidth":0,"primary-channel":"upper"})");
    EXPECT_THAT(driver.channel_calls,
                ElementsAre(ChannelCall{"wlan1", 44, 20, PRIMARY_CHANNEL_NONE}));
}

TEST_F(RrmWorkerConfigTest, ReadsThePrimarySideOfAPairInAnyLetterCase) {
    configure(R"({"id":1,"channel":44,"bandwidth":40,"primary-channel":"LOWER"},)"
              R"({"id":1,"channel":48,"bandwidth":40,"primary-channel":"Upper"})");
    EXPECT_THAT(driver.channel_calls,
                ElementsAre(ChannelCall{"wlan1", 44, 40, PRIMARY_CHANNEL_LOWER},
                            ChannelCall{"wlan1", 48, 40, PRIMARY_CHANNEL_UPPER}));
}

TEST_F(RrmWorkerConfigTest, APairWithoutAKnownPrimarySideHasNone) {
    configure(R"({"id":1,"channel":44,"bandwidth":40},)"
              R"({"id":1,"channel":44,"bandwidth":40,"primary-channel":"up"},)"
              R"({"id":1,"channel":44,"bandwidth":40,"primary-channel":null})");
    EXPECT_THAT(driver.channel_calls, SizeIs(3));
    EXPECT_THAT(driver.channel_calls, Each(ChannelCall{"wlan1", 44, 40, PRIMARY_CHANNEL_NONE}));
}

TEST_F(RrmWorkerConfigTest, IgnoresThePrimarySideAtEightyMegahertz) {
    configure(R"({"id":1,"channel":36,"bandwidth":80,"primary-channel":"upper"})");
    EXPECT_THAT(driver.channel_calls,
                ElementsAre(ChannelCall{"wlan1", 36, 80, PRIMARY_CHANNEL_NONE}));
}

TEST_F(RrmWorkerConfigTest, ChannelZeroChangesNothing) {
    configure(R"({"id":0,"channel":0,"bandwidth":40,"primary-channel":"upper"})");
    EXPECT_THAT(driver.channel_calls, IsEmpty());
}

TEST_F(RrmWorkerConfigTest, ANegativeChannelIsTheDriversToJudge) {
    configure(R"({"id":0,"channel":-6,"bandwidth":-20})");
    EXPECT_THAT(driver.channel_calls,
                ElementsAre(ChannelCall{"wlan0", -6, -20, PRIMARY_CHANNEL_NONE}));
}

TEST_F(RrmWorkerConfigTest, TellsTheSystemLogOfEachChannelSwitch) {
    configure(R"({"id":0,"channel":11},{"id":1,"channel":44})");
    EXPECT_THAT(switches_in_system_log(),
                ElementsAre("6 Orvanta requested switch channel to 11 on wlan0",
                            "6 Orvanta requested switch channel to 44 on wlan1"));
}

// --- which radios ---

TEST_F(RrmWorkerConfigTest, SkipsARadioNumberOutOfRangeWithAWarning) {
    configure(R"({"id":2,"power":3},{"id":-1,"power":4},{"id":1,"power":5})");
    EXPECT_THAT(driver.power_calls, ElementsAre(IfnameValue{"wlan1", 5}));
    EXPECT_EQ(log.count("void rrm_worker::apply_config(const json_reader&) "
                        "Wrong id value: recv 2, max: 2 - skip radio"),
              1);
    EXPECT_EQ(log.count("Wrong id value: recv -1, max: 2 - skip radio"), 1);
    const std::vector<std::string> lines = log.lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) { return line.rfind("warn", 0) == 0; }),
              2);
}

TEST_F(RrmWorkerConfigTest, ADriverWithMoreRadiosThanNamesReachesOnlyTheNamedOnes) {
    ON_CALL(driver, get_max_radios).WillByDefault(testing::Return(5));
    ON_CALL(driver, is_enabled).WillByDefault(testing::Return(true));
    ON_CALL(driver, has_enabled_vaps).WillByDefault(testing::Return(true));
    configure(R"({"id":2,"power":3},{"id":3,"power":4},{"id":4,"power":5})");
    EXPECT_THAT(driver.power_calls, ElementsAre(IfnameValue{"wlan2", 3}));
}

TEST_F(RrmWorkerConfigTest, SkipsADisabledRadioSilently) {
    driver.radios[0].up = false;
    configure(R"({"id":0,"power":3,"channel":11,"no-balance-enterprise":1})");
    EXPECT_THAT(driver.power_calls, IsEmpty());
    EXPECT_THAT(driver.channel_calls, IsEmpty());
    EXPECT_FALSE(peer().no_balance_enterprise());
    EXPECT_FALSE(log.contains("skip radio"));
}

TEST_F(RrmWorkerConfigTest, SkipsARadioWithoutEnabledVapsSilently) {
    for (FakeVap& vap : driver.radios[0].vaps)
        vap.up = false;
    info(R"("use-80211v":1,"use-tpc":1,"radios":[{"id":0,"power":3,"no-balance-enterprise":1}])");
    EXPECT_THAT(driver.power_calls, IsEmpty());
    EXPECT_THAT(driver.roam_attempt_timeouts, IsEmpty());
    EXPECT_FALSE(peer().no_balance_enterprise());
}

TEST_F(RrmWorkerConfigTest, AWidsRadioTakesOnlyTheRoamTimeoutAndTheEnterpriseOption) {
    driver.radios[0].wids = true;
    info(R"("use-80211v":1,"use-tpc":1,"use-dca":1,"radios":[{"id":0,"power":3,"channel":11,)"
         R"("no-balance-enterprise":1,"vexor-roam-attempt-timeout":25}])");
    EXPECT_THAT(driver.roam_attempt_timeouts, ElementsAre(IfnameValue{"wlan0", 25}));
    EXPECT_TRUE(peer().no_balance_enterprise());
    EXPECT_THAT(driver.power_calls, IsEmpty());
    EXPECT_THAT(driver.channel_calls, IsEmpty());
}

TEST_F(RrmWorkerConfigTest, PassesOverElementsThatAreNoObjects) {
    configure(R"(7,"x",null,[{"id":0,"power":1}],{"id":1,"power":5})");
    EXPECT_THAT(driver.power_calls, ElementsAre(IfnameValue{"wlan1", 5}));
}

TEST_F(RrmWorkerConfigTest, RadiosThatAreNoArrayAreNoRadios) {
    info(R"("use-tpc":1,"radios":{"id":0,"power":5})");
    EXPECT_THAT(driver.power_calls, IsEmpty());
}

TEST_F(RrmWorkerConfigTest, AnElementWithoutANumberIsRadioZero) {
    configure(R"({"power":5})");
    EXPECT_THAT(driver.power_calls, ElementsAre(IfnameValue{"wlan0", 5}));
}

// --- steering options of a radio ---

TEST_F(RrmWorkerConfigTest, PushesTheRoamTimeoutOnlyWithSteeringOn) {
    info(R"("radios":[{"id":0,"vexor-roam-attempt-timeout":25}])");
    EXPECT_THAT(driver.roam_attempt_timeouts, IsEmpty());
    info(R"("use-80211v":1,"radios":[{"id":0,"vexor-roam-attempt-timeout":25},{"id":1}])");
    EXPECT_THAT(driver.roam_attempt_timeouts,
                ElementsAre(IfnameValue{"wlan0", 25}, IfnameValue{"wlan1", 0}));
}

TEST_F(RrmWorkerConfigTest, TheLastRadioReachedDecidesTheEnterpriseOption) {
    configure(R"({"id":0,"no-balance-enterprise":0},{"id":1,"no-balance-enterprise":1})");
    EXPECT_TRUE(peer().no_balance_enterprise());
    configure(R"({"id":0,"no-balance-enterprise":1},{"id":1,"no-balance-enterprise":2})");
    EXPECT_FALSE(peer().no_balance_enterprise());
    configure(R"({"id":0,"no-balance-enterprise":1},{"id":9,"no-balance-enterprise":0})");
    EXPECT_TRUE(peer().no_balance_enterprise());
}

TEST_F(RrmWorkerConfigTest, AConfigurationWithoutRadiosKeepsTheEnterpriseOption) {
    configure(R"({"id":0,"no-balance-enterprise":1})");
    info("");
    EXPECT_TRUE(peer().no_balance_enterprise());
}

// --- neighbours ---

TEST_F(RrmWorkerConfigTest, SparesTheNeighbourListOfAVapThatIsDownThoughItHasAName) {
    driver.radios[1].vaps[0].up = false;
    ASSERT_STREQ(driver.VapIdToVap(0, 1), "wlan1-va0");
    info("");
    EXPECT_THAT(driver.cleared_neighbour_lists, ElementsAre("wlan0-va0", "wlan1-va2"));
}

TEST_F(RrmWorkerConfigTest, ClearsTheNeighbourListsEvenWithoutRadiosOrNeighbours) {
    info("");
    EXPECT_THAT(driver.cleared_neighbour_lists, ElementsAre("wlan0-va0", "wlan1-va0", "wlan1-va2"));
    EXPECT_THAT(driver.neighbour_calls, IsEmpty());
}

TEST_F(RrmWorkerConfigTest, TellsTheDriverTheVapsOfANeighbourAndNeverTheNeighbourItself) {
    info(R"("802dot11k":[{"neighbour-mac":"cc:00:00:00:00:00","channel":1,"priority":255,)"
         R"("vaps":[{"ssid":"home","mac":"cc:00:00:00:00:01"}]}])");
    EXPECT_THAT(driver.neighbour_calls,
                ElementsAre(NeighbourCall{"cc:00:00:00:00:01", "home", 1, 255, 0}));
}

TEST_F(RrmWorkerConfigTest, SkipsANeighbourWithoutItsMac) {
    info(R"("802dot11k":[{"channel":1,"vaps":[{"ssid":"home","mac":"cc:00:00:00:00:01"}]},)"
         R"({"neighbour-mac":null,"vaps":[{"ssid":"home","mac":"cc:00:00:00:00:02"}]},)"
         R"({"neighbour-mac":"","vaps":[{"ssid":"home","mac":"cc:00:00:00:00:03"}]}])");
    EXPECT_THAT(driver.neighbour_calls,
                ElementsAre(NeighbourCall{"cc:00:00:00:00:03", "home", 0, 0, 0}));
}

TEST_F(RrmWorkerConfigTest, SkipsANeighboursVapWithoutMacOrSsid) {
    info(R"("802dot11k":[{"neighbour-mac":"cc:00:00:00:00:00","vaps":[)"
         R"({"ssid":"home"},{"mac":"cc:00:00:00:00:01"},7,null,)"
         R"({"ssid":"guest","mac":"cc:00:00:00:00:02"}]}])");
    EXPECT_THAT(driver.neighbour_calls,
                ElementsAre(NeighbourCall{"cc:00:00:00:00:02", "guest", 0, 0, 0}));
}

TEST_F(RrmWorkerConfigTest, NeighboursOfAnotherShapeAddNothing) {
    info(R"("802dot11k":{"neighbour-mac":"cc:00:00:00:00:00"})");
    info(R"("802dot11k":[1,null,"x",[],{"neighbour-mac":"cc:00:00:00:00:00"},)"
         R"({"neighbour-mac":"cc:00:00:00:00:00","vaps":{"mac":"cc:00:00:00:00:01"}}])");
    EXPECT_THAT(driver.neighbour_calls, IsEmpty());
}

TEST_F(RrmWorkerConfigTest, TakesFiveThousandNeighbours) {
    info(R"("802dot11k":)" + repeated(R"({"neighbour-mac":"cc:00:00:00:00:00","channel":6,)"
                                      R"("vaps":[{"ssid":"home","mac":"cc:00:00:00:00:01"}]})",
                                      5000));
    EXPECT_THAT(driver.neighbour_calls, SizeIs(5000));
}

TEST_F(RrmWorkerConfigTest, TakesTenThousandRadioElements) {
    info(R"("use-tpc":1,"radios":)" + repeated(R"({"id":1,"power":8})", 10000));
    EXPECT_THAT(driver.power_calls, SizeIs(10000));
}

// --- fast transition ---

TEST_F(RrmWorkerConfigTest, FbtInfoOnlyResetsTheDriverWhileFastTransitionIsOff) {
    EXPECT_CALL(driver, start_orvanta_fbt_params).Times(0);
    EXPECT_CALL(driver, finish_orvanta_fbt_params).Times(0);
    service_commands("fbt-info", R"("fbt-reassoc-deadline":2000,"fbt-over-ds":0)");
    EXPECT_THAT(driver.fbt_resets, ElementsAre(UNKNOWN));
    EXPECT_EQ(peer().fbt_reassoc_deadline(), 1000);
    EXPECT_TRUE(peer().fbt_over_ds());
    EXPECT_TRUE(log.contains("info: process_fbt_info orvanta_use_80211r = 0"));
}

TEST_F(RrmWorkerConfigTest, PushesTheFastTransitionDocumentOfAVap) {
    fbt_info(R"({"vap_id":1,"radio_id":0,"mobility-domain":4660,"r0-key-holder-id":"r0.ap",)"
             R"("r1-key-holder-id":"001122334455","fbt-rrb-key":"0011","remotes":[)"
             R"({"remote-r1-kh-id":"aabbccddeeff","remote-r0-kh-id":"r0.other",)"
             R"("remote-r1-kh-key":"2233"}]})");
    EXPECT_THAT(
        driver.fbt_params,
        ElementsAre(IfnameText{
            "wlan0-va1",
            R"({"version":"2.4","service":"fbt","ft-config":{"enabled":"true",)"
            R"("ft-over-ds":"true","ft-psk-generate-local":"false","reassociation-deadline":2000,)"
            R"("mobility-domain":4660,"r0-key-holder-id":"r0.ap",)"
            R"("r1-key-holder-id":"001122334455","mac":{"aabbccddeeff":{"name":"aabbccddeeff",)"
            R"("index":"0","r0-kh-id":"r0.other","r1-kh-id":"aabbccddeeff","r0-kh-key":"0011",)"
            R"("r1-kh-key":"2233"}}}})"}));
    EXPECT_TRUE(log.contains("info: process_fbt_info orvanta_use_80211r = 1"));
}

TEST_F(RrmWorkerConfigTest, NamesTheVapByItsRadioAndItsOwnNumber) {
    fbt_info(
        R"({"vap_id":2,"radio_id":1,"r0-key-holder-id":"a","r1-key-holder-id":"b","remotes":[]})");
    ASSERT_THAT(driver.fbt_params, SizeIs(1));
    EXPECT_EQ(driver.fbt_params[0].first, "wlan1-va2");
}

TEST_F(RrmWorkerConfigTest, StartsThePushBeforeAndFinishesItAfterTheVaps) {
    switch_80211r_on();
    const InSequence order;
    EXPECT_CALL(driver, start_orvanta_fbt_params);
    EXPECT_CALL(driver, set_orvanta_fbt_params("wlan0-va0", _));
    EXPECT_CALL(driver, set_orvanta_fbt_params("wlan1-va1", _));
    EXPECT_CALL(driver, finish_orvanta_fbt_params);
    EXPECT_CALL(driver, reset_orvanta_fbt).Times(0);
    service_commands(
        "fbt-info",
        R"("vaps":[{"r0-key-holder-id":"a","r1-key-holder-id":"b","remotes":[]},)"
        R"({"vap_id":1,"radio_id":1,"r0-key-holder-id":"a","r1-key-holder-id":"b","remotes":[]}])");
    testing::Mock::VerifyAndClearExpectations(&driver);
}

TEST_F(RrmWorkerConfigTest, StartsAndFinishesThePushWithoutAnyVap) {
    switch_80211r_on();
    service_commands("fbt-info");
    EXPECT_EQ(driver.fbt_starts, 1);
    EXPECT_EQ(driver.fbt_finishes, 1);
}

TEST_F(RrmWorkerConfigTest, AMissingDeadlineAndSwitchReadAsZero) {
    switch_80211r_on();
    service_commands("fbt-info", R"("vaps":[{"r0-key-holder-id":"a","r1-key-holder-id":"b",)"
                                 R"("remotes":[]}])");
    ASSERT_THAT(driver.fbt_params, SizeIs(1));
    EXPECT_THAT(driver.fbt_params[0].second, testing::HasSubstr(R"("ft-over-ds":"false")"));
    EXPECT_THAT(driver.fbt_params[0].second, testing::HasSubstr(R"("reassociation-deadline":0)"));
}

TEST_F(RrmWorkerConfigTest, AnyNonZeroFbtOverDsIsOn) {
    switch_80211r_on();
    for (const char* value : {"2", "-1"}) {
        driver.fbt_params.clear();
        service_commands("fbt-info", R"("fbt-over-ds":)" + std::string{value} +
                                         R"(,"vaps":[{"r0-key-holder-id":"a",)"
                                         R"("r1-key-holder-id":"b","remotes":[]}])");
        ASSERT_THAT(driver.fbt_params, SizeIs(1)) << value;
        EXPECT_THAT(driver.fbt_params[0].second, testing::HasSubstr(R"("ft-over-ds":"true")"));
    }
}

TEST_F(RrmWorkerConfigTest, WritesTheOverTheAirSwitchAsFalse) {
    switch_80211r_on();
    service_commands("fbt-info", R"("fbt-over-ds":0,"vaps":[{"r0-key-holder-id":"a",)"
                                 R"("r1-key-holder-id":"b","remotes":[]}])");
    ASSERT_THAT(driver.fbt_params, SizeIs(1));
    EXPECT_EQ(driver.fbt_params[0].second,
              R"({"version":"2.4","service":"fbt","ft-config":{"enabled":"true",)"
              R"("ft-over-ds":"false","ft-psk-generate-local":"false",)"
              R"("reassociation-deadline":0,"mobility-domain":0,"r0-key-holder-id":"a",)"
              R"("r1-key-holder-id":"b","mac":{}}})");
}

TEST_F(RrmWorkerConfigTest, TheIndexCountsRemotesThatAreSkipped) {
    fbt_info(R"({"r0-key-holder-id":"a","r1-key-holder-id":"b","remotes":[)"
             R"({"remote-r0-kh-id":"no r1"},null,7,{"remote-r1-kh-id":"x"}]})");
    ASSERT_THAT(driver.fbt_params, SizeIs(1));
    EXPECT_THAT(driver.fbt_params[0].second,
                testing::EndsWith(R"("mac":{"x":{"name":"x","index":"3","r1-kh-id":"x"}}}})"));
}

TEST_F(RrmWorkerConfigTest, LeavesOutTheTextsThatARemoteDoesNotHave) {
    fbt_info(R"({"r0-key-holder-id":"a","r1-key-holder-id":"b","fbt-rrb-key":null,"remotes":[)"
             R"({"remote-r1-kh-id":"x","remote-r0-kh-id":null,"remote-r1-kh-key":"k"}]})");
    ASSERT_THAT(driver.fbt_params, SizeIs(1));
    EXPECT_THAT(driver.fbt_params[0].second,
                testing::EndsWith(
                    R"("mac":{"x":{"name":"x","index":"0","r1-kh-id":"x","r1-kh-key":"k"}}}})"));
}

TEST_F(RrmWorkerConfigTest, OfTwoRemotesWithOneNameTheLaterStands) {
    fbt_info(R"({"r0-key-holder-id":"a","r1-key-holder-id":"b","remotes":[)"
             R"({"remote-r1-kh-id":"x"},{"remote-r1-kh-id":"x"}]})");
    ASSERT_THAT(driver.fbt_params, SizeIs(1));
    EXPECT_THAT(driver.fbt_params[0].second,
                testing::EndsWith(R"("mac":{"x":{"name":"x","index":"1","r1-kh-id":"x"}}}})"));
}

TEST_F(RrmWorkerConfigTest, ARemoteWhoseNameIsNoUtf8IsNamedAsItsObject) {
    fbt_info(
        "{\"r0-key-holder-id\":\"a\",\"r1-key-holder-id\":\"b\",\"remotes\":["
        "{\"remote-r1-kh-id\":\"caf\xE9\"}]}");
    ASSERT_THAT(driver.fbt_params, SizeIs(1));
    EXPECT_THAT(driver.fbt_params[0].second,
                testing::EndsWith("\"mac\":{\"caf\uFFFD\":{\"name\":\"caf\uFFFD\",\"index\":\"0\","
                                  "\"r1-kh-id\":\"caf\uFFFD\"}}}}"));
}

TEST_F(RrmWorkerConfigTest, PushesNothingForAVapWithoutRemotes) {
    fbt_info(R"({"r0-key-holder-id":"a","r1-key-holder-id":"b"})");
    EXPECT_THAT(driver.fbt_params, IsEmpty());
    EXPECT_EQ(driver.fbt_finishes, 1);
}

TEST_F(RrmWorkerConfigTest, SkipsAVapThatTheAccessPointDoesNotHave) {
    fbt_info(
        R"({"vap_id":6,"radio_id":0},{"vap_id":-1,"radio_id":0},{"vap_id":0,"radio_id":5},)"
        R"({"vap_id":0,"radio_id":1,"r0-key-holder-id":"a","r1-key-holder-id":"b","remotes":[]})");
    ASSERT_THAT(driver.fbt_params, SizeIs(1));
    EXPECT_EQ(driver.fbt_params[0].first, "wlan1-va0");
    EXPECT_EQ(driver.fbt_finishes, 1);
    EXPECT_THAT(driver.fbt_resets, IsEmpty());
}

TEST_F(RrmWorkerConfigTest, SkipsAVapThatIsDownThoughItHasAName) {
    driver.radios[0].vaps[1].up = false;
    ASSERT_STREQ(driver.VapIdToVap(1, 0), "wlan0-va1");
    fbt_info(
        R"({"vap_id":1,"radio_id":0,"r0-key-holder-id":"a","r1-key-holder-id":"b","remotes":[]},)"
        R"({"vap_id":0,"radio_id":0,"r0-key-holder-id":"a","r1-key-holder-id":"b","remotes":[]})");
    ASSERT_THAT(driver.fbt_params, SizeIs(1));
    EXPECT_EQ(driver.fbt_params[0].first, "wlan0-va0");
    EXPECT_EQ(driver.fbt_finishes, 1);
}

TEST_F(RrmWorkerConfigTest, AMissingKeyHolderAbandonsTheMessageWithoutRemotesToo) {
    const std::string good = R"({"r0-key-holder-id":"a","r1-key-holder-id":"b","remotes":[]})";
    for (const char* broken : {R"({"r0-key-holder-id":"a"})", R"({"r1-key-holder-id":"b"})"}) {
        driver.fbt_params.clear();
        driver.fbt_resets.clear();
        fbt_info(broken + ("," + good));
        EXPECT_THAT(driver.fbt_params, IsEmpty()) << broken;
        EXPECT_THAT(driver.fbt_resets, ElementsAre(UNKNOWN)) << broken;
    }
    EXPECT_EQ(driver.fbt_finishes, 0);
}

TEST_F(RrmWorkerConfigTest, AMissingKeyHolderAbandonsTheWholeMessage) {
    const std::string good = R"({"r0-key-holder-id":"a","r1-key-holder-id":"b","remotes":[]})";
    for (const char* broken :
         {R"({"r0-key-holder-id":"a","remotes":[]})", R"({"r1-key-holder-id":"b","remotes":[]})"}) {
        driver.fbt_params.clear();
        driver.fbt_resets.clear();
        fbt_info(good + "," + broken + "," + good);
        EXPECT_THAT(driver.fbt_params, SizeIs(1)) << broken;
        EXPECT_THAT(driver.fbt_resets, ElementsAre(UNKNOWN)) << broken;
    }
    EXPECT_EQ(driver.fbt_finishes, 0);
    EXPECT_EQ(log.count("error: Unexpected error, no r0/r1 key holders found"), 2);
}

TEST_F(RrmWorkerConfigTest, TheWalkOfVapsEndsAtAMissingElement) {
    const std::string good = R"({"r0-key-holder-id":"a","r1-key-holder-id":"b","remotes":[]})";
    fbt_info(good + ",null," + good);
    EXPECT_THAT(driver.fbt_params, SizeIs(1));
    EXPECT_EQ(driver.fbt_finishes, 1);
}

TEST_F(RrmWorkerConfigTest, HandlesOnlyTheFirst32VapsAndTheFirst1025RemotesOfEach) {
    std::string remotes;
    for (int i = 0; i < 1100; ++i)
        remotes += (i == 0 ? "" : ",") + (R"({"remote-r1-kh-id":"r)" + std::to_string(i) + R"("})");
    const std::string vap =
        R"({"r0-key-holder-id":"a","r1-key-holder-id":"b","remotes":[)" + remotes + "]}";
    switch_80211r_on();
    service_commands("fbt-info", R"("vaps":)" + repeated(vap, 40));
    ASSERT_THAT(driver.fbt_params, SizeIs(32));
    for (const IfnameText& push : driver.fbt_params) {
        EXPECT_THAT(push.second, testing::EndsWith(R"("index":"1024","r1-kh-id":"r1024"}}}})"));
    }
    EXPECT_EQ(driver.fbt_finishes, 1);
}

}  // namespace
