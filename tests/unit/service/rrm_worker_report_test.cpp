// The radio objects of the reports.
#include <stdexcept>

#include "json_memory.h"
#include "rrm_worker_fixture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Return;

class RrmWorkerReportTest : public RrmWorkerTest {
  protected:
    // The config-changed report as a notified change brings it about; the worker is subscribed.
    std::string report() {
        if (!exists(connected_flag))
            subscribe();
        touch(notify_config_updated);
        touch(notify);
        pass();
        return last_report();
    }
    // The object of one radio in it.
    std::string radio(std::size_t number) {
        const std::unique_ptr<json_object, int (*)(json_object*)> message{
            json_tokener_parse(report().c_str()), json_object_put};
        json_object* radios = nullptr;
        json_object_object_get_ex(message.get(), "radios", &radios);
        return json_object_to_json_string_ext(json_object_array_get_idx(radios, number),
                                              JSON_C_TO_STRING_PLAIN);
    }
    void switch_everything_on() {
        for (const char* path : {"/orvanta/dca", "/orvanta/tpc", "/orvanta/load-balance-80211v"})
            vaultd.set(path, "true");
    }
    static std::string locks(int dca, int tpc, int dot11v) {
        return R"("locked-for-dca":)" + std::to_string(dca) + R"(,"locked-for-tpc":)" +
               std::to_string(tpc) + R"(,"locked-for-balancer":1,"locked-for-80211v":)" +
               std::to_string(dot11v);
    }
};

TEST_F(RrmWorkerReportTest, ConfigChangedHasDomainAndRadiosAndNoFactory) {
    driver.radios[1].vaps.clear();
    EXPECT_EQ(
        report(),
        std::string{R"({"version":"2.4","service":"rrm","cmd":"rrm-config-changed",)"} +
            R"("ap-mac":"00:11:22:33:44:50","domain":"site-1","radios":[)" +
            R"({"id":0,"status":1,"mac-offset":0,"radio-mac-count":8,"locked-for-dca":1,)" +
            R"("locked-for-tpc":1,"locked-for-balancer":1,"locked-for-80211v":1,"power":14,)" +
            R"("power-max":20,"power-min":5,"eirp":16,"eirp-max":23,"eirp-min":8,)" +
            R"("antenna-configuration":{"antenna-gain":3,"cable-loss":1},"channel":6,"band":2,)" +
            R"("bandwidth":20,"primary-channel":"none","available-channels":"1 6 11 ",)" +
            R"("vaps":[{"id":0,"ssid":"home","mac":"00:11:22:33:44:51","802dot11k":1,)" +
            R"("802dot11r":0},{"id":1,"ssid":"guest","mac":"00:11:22:33:44:52",)" +
            R"("802dot11k":0,"802dot11r":0}]},)" +
            R"({"id":1,"status":0,"mac-offset":8,"radio-mac-count":8,"locked-for-dca":1,)" +
            R"("locked-for-tpc":1,"locked-for-balancer":1,"locked-for-80211v":1,"power":16,)" +
            R"("power-max":16,"power-min":11,"eirp":18,"eirp-max":100,"eirp-min":0,)" +
            R"("antenna-configuration":{"antenna-gain":3,"cable-loss":1},"channel":36,"band":5,)" +
            R"("bandwidth":80,"primary-channel":"none"}]})");
}

TEST_F(RrmWorkerReportTest, AtMostThreeRadiosAreReported) {
    ON_CALL(driver, get_max_radios).WillByDefault(Return(5));
    start_worker();
    link("connected");
    EXPECT_THAT(last_report(), HasSubstr(R"("id":2,)"));
    EXPECT_THAT(last_report(), Not(HasSubstr(R"("id":3,)")));
}

TEST_F(RrmWorkerReportTest, EmptyAndMissingMacLeaveTheHeaderWithoutApMac) {
    ON_CALL(driver, get_mac).WillByDefault(Return(nullptr));
    subscribe();
    remove(hostapd_pid);
    EXPECT_TRUE(pass());
    EXPECT_THAT(last_report(), HasSubstr(R"("cmd":"rrm-disassoc-all-clients","domain":"site-1")"));
}

TEST_F(RrmWorkerReportTest, FactoryTextMayFillItsFieldUpToTheNul) {
    std::fill(std::begin(driver.factory.hw), std::end(driver.factory.hw) - 1, 'x');
    driver.factory.hw[sizeof driver.factory.hw - 1] = 0;
    link("connected");
    EXPECT_THAT(last_report(), HasSubstr(R"("hw":")" + std::string(31, 'x') + R"(","serial")"));
}

TEST_F(RrmWorkerReportTest, StopDuringAReportAsksTheStoreNoMore) {
    ON_CALL(driver, is_wids_enabled).WillByDefault([this](int radio) {
        run_flag = run_flag && radio == 0;
        return false;
    });
    link("connected");
    EXPECT_THAT(vaultd.paths(),
                ElementsAre("/orvanta/dca", "/orvanta/tpc", "/orvanta/load-balance-80211v"))
        << "of the first radio alone";
}

TEST_F(RrmWorkerReportTest, WithoutMemoryForItsHeaderTheReportIsNotSent) {
    subscribe();
    announce(notify_config_updated);
    const JsonShortage shortage{JsonShortage::OBJECT};
    EXPECT_TRUE(pass());
    EXPECT_TRUE(shortage.has_struck());
    EXPECT_THAT(reports(), IsEmpty());
}

// --- Radios not in use ---

TEST_F(RrmWorkerReportTest, DisabledRadioReportsDefaultsAndNoLists) {
    driver.radios[1].up = false;
    const std::string object = radio(1);
    EXPECT_THAT(object, HasSubstr(R"("status":0,)"));
    EXPECT_THAT(object, HasSubstr(R"("power":16,"power-max":16,"power-min":11,)"));
    EXPECT_THAT(object, HasSubstr(R"("eirp-max":100,"eirp-min":0,)"));
    EXPECT_THAT(object, HasSubstr(R"("channel":36,"band":5,)"));
    for (const char* list : {"available-channels", "vaps", "assoclist"})
        EXPECT_THAT(object, Not(HasSubstr(list)));
}

TEST_F(RrmWorkerReportTest, RadioWithoutEnabledVapsCountsAsDisabled) {
    for (FakeVap& vap : driver.radios[0].vaps)
        vap.up = false;
    EXPECT_THAT(radio(0), HasSubstr(R"("status":0,)"));
}

struct DefaultChannel {
    int band;
    int channel;
};

class DefaultChannelTest : public RrmWorkerReportTest,
                           public testing::WithParamInterface<DefaultChannel> {};

TEST_P(DefaultChannelTest, IsThatOfTheBand) {
    driver.radios[0].up = false;
    ON_CALL(driver, get_band_from_ifname).WillByDefault(Return(GetParam().band));
    EXPECT_THAT(radio(0), HasSubstr(R"("channel":)" + std::to_string(GetParam().channel) +
                                    R"(,"band":)" + std::to_string(GetParam().band) + ","));
}

INSTANTIATE_TEST_SUITE_P(Bands, DefaultChannelTest,
                         testing::Values(DefaultChannel{BAND_NONE, 0}, DefaultChannel{BAND_2G, 1},
                                         DefaultChannel{BAND_5G, 36}, DefaultChannel{BAND_6G, 1}));

TEST_F(RrmWorkerReportTest, BandOutsideTheTableIsAProgrammingError) {
    subscribe();
    ON_CALL(driver, get_band_from_ifname).WillByDefault(Return(60));
    driver.radios[0].up = false;
    EXPECT_THROW(report(), std::out_of_range);
}

TEST_F(RrmWorkerReportTest, BandOfARadioInUseIsReportedAsItIs) {
    ON_CALL(driver, get_band_from_ifname).WillByDefault(Return(60));
    EXPECT_THAT(radio(0), HasSubstr(R"("channel":6,"band":60,)"));
}

// --- Locks ---

TEST_F(RrmWorkerReportTest, UnlockedRadioFollowsTheConfigurationStore) {
    switch_everything_on();
    EXPECT_THAT(radio(0), HasSubstr(locks(0, 0, 0)));
    vaultd.set("/orvanta/dca", "false");
    EXPECT_THAT(radio(0), HasSubstr(locks(1, 0, 0)));
    vaultd.set("/orvanta/dca", "true");
    vaultd.set("/orvanta/tpc", "false");
    EXPECT_THAT(radio(0), HasSubstr(locks(0, 1, 0)));
    vaultd.set("/orvanta/tpc", "true");
    vaultd.set("/orvanta/load-balance-80211v", "false");
    EXPECT_THAT(radio(0), HasSubstr(locks(0, 0, 1)));
}

TEST_F(RrmWorkerReportTest, SettingTheStoreDoesNotHaveLocks) {
    EXPECT_THAT(radio(0), HasSubstr(locks(1, 1, 1)));
}

TEST_F(RrmWorkerReportTest, AbsentStoreLocks) {
    vaultd.stop();
    EXPECT_THAT(radio(0), HasSubstr(locks(1, 1, 1)));
}

TEST_F(RrmWorkerReportTest, WdsLocksWhateverTheStoreSays) {
    switch_everything_on();
    driver.radios[0].wds = true;
    EXPECT_THAT(radio(0), HasSubstr(locks(1, 1, 1)));
    EXPECT_THAT(radio(0), HasSubstr(R"("status":1,)"));
}

TEST_F(RrmWorkerReportTest, WidsLocksWhateverTheStoreSays) {
    switch_everything_on();
    driver.radios[1].wids = true;
    EXPECT_THAT(radio(1), HasSubstr(locks(1, 1, 1)));
    EXPECT_THAT(radio(0), HasSubstr(locks(0, 0, 0)));
}

TEST_F(RrmWorkerReportTest, DisabledRadioIsLockedWhateverTheStoreSays) {
    switch_everything_on();
    driver.radios[0].up = false;
    EXPECT_THAT(radio(0), HasSubstr(locks(1, 1, 1)));
}

TEST_F(RrmWorkerReportTest, StoreIsNotAskedAboutLockedRadios) {
    subscribe();
    bus.forget_requests();
    driver.radios[0].wds = true;
    driver.radios[1].up = false;
    report();
    EXPECT_THAT(vaultd.paths(), IsEmpty());
}

// --- Power ---

TEST_F(RrmWorkerReportTest, EirpIsPowerLessCableLossPlusAntennaGain) {
    driver.radios[0].antenna = antenna_config_t{7, 2};
    EXPECT_THAT(radio(0), HasSubstr(R"("eirp":19,)"));
    EXPECT_THAT(radio(0),
                HasSubstr(R"("antenna-configuration":{"antenna-gain":7,"cable-loss":2})"));
}

TEST_F(RrmWorkerReportTest, RadioWithoutAntennaConfigurationReportsZeroGainAndLoss) {
    driver.radios[0].antenna.reset();
    EXPECT_THAT(radio(0), HasSubstr(R"("eirp":14,)"));
    EXPECT_THAT(radio(0),
                HasSubstr(R"("antenna-configuration":{"antenna-gain":0,"cable-loss":0})"));
}

TEST_F(RrmWorkerReportTest, AbsurdAntennaFiguresDoNoHarm) {
    driver.radios[0].antenna = antenna_config_t{2147483647, -2147483647 - 1};
    EXPECT_THAT(radio(0), HasSubstr(R"("antenna-gain":2147483647,"cable-loss":-2147483648)"));
}

// --- Channel ---

TEST_F(RrmWorkerReportTest, ChannelInUseDecidesUnlessTheRadioChoosesItself) {
    FakeRadio& r = driver.radios[0];
    r.chanspec_in_use = LWLIO_CHANSPEC_BW_40 | LWLIO_CHANSPEC_CTL_SB_UPPER | 9U;
    r.config_spec = LWLIO_CHANSPEC_BW_20 | 6U;
    EXPECT_THAT(radio(0), HasSubstr(R"("channel":11,"band":2,"bandwidth":40,)"
                                    R"("primary-channel":"upper")"));
}

TEST_F(RrmWorkerReportTest, CoexistenceAndAutomaticChannelReportTheConfiguredBandwidth) {
    FakeRadio& r = driver.radios[0];
    r.chanspec_in_use = LWLIO_CHANSPEC_BW_20 | 6U;
    r.config_spec = LWLIO_CHANSPEC_BW_40 | LWLIO_CHANSPEC_CTL_SB_LOWER;
    const auto configured = HasSubstr(R"("channel":6,"band":2,"bandwidth":40,)"
                                      R"("primary-channel":"lower")");
    r.obss_coex = true;
    EXPECT_THAT(radio(0), configured);
    r.obss_coex = false;
    r.auto_channel = true;
    EXPECT_THAT(radio(0), configured);
}

TEST_F(RrmWorkerReportTest, ConfiguredSpecOfADisabledRadioIsTakenAsNone) {
    FakeRadio& r = driver.radios[0];
    r.up = false;
    r.auto_channel = true;
    r.config_spec = LWLIO_CHANSPEC_BW_40;
    EXPECT_THAT(radio(0), HasSubstr(R"("bandwidth":20,"primary-channel":"none"})"));
}

TEST_F(RrmWorkerReportTest, MissingPrimaryTextLeavesTheFieldOut) {
    ON_CALL(driver, chanspec_primary).WillByDefault(Return(nullptr));
    EXPECT_THAT(radio(0), HasSubstr(R"("bandwidth":20,"available-channels")"));
}

TEST_F(RrmWorkerReportTest, UnknownChannelsAreAnEmptyText) {
    driver.radios[0].wds = true;
    EXPECT_THAT(radio(0), HasSubstr(R"("available-channels":"",)"));
}

// --- VAPs and clients ---

TEST_F(RrmWorkerReportTest, VapsCarryTheirFlags) {
    driver.radios[0].vaps[0].dot11k = false;
    driver.radios[0].vaps[1].fbt = true;
    EXPECT_THAT(radio(0), HasSubstr(R"("vaps":[{"id":0,"ssid":"home","mac":"00:11:22:33:44:51",)"
                                    R"("802dot11k":0,"802dot11r":0},)"
                                    R"({"id":1,"ssid":"guest","mac":"00:11:22:33:44:52",)"
                                    R"("802dot11k":0,"802dot11r":1}])"));
}

TEST_F(RrmWorkerReportTest, ClientReportsTheStrongestOfItsReadings) {
    subscribe_steering();
    driver.add_station(0, 0, "aa:bb:cc:00:00:01", -60).rssi = {-90, -75, -60, -80};
    EXPECT_THAT(radio(0), HasSubstr(R"("ssid":"home","rssi":-60}])"));
}

TEST_F(RrmWorkerReportTest, ClientWithoutMeasurementReportsRssi0) {
    subscribe(R"({"use-80211v":1})");
    driver.add_station(0, 0, "aa:bb:cc:00:00:01", -1000);
    driver.add_station(0, 1, "aa:bb:cc:00:00:02", -999);
    EXPECT_THAT(radio(0), HasSubstr(R"("assoclist":[)"
                                    R"({"mac":"aa:bb:cc:00:00:01","ssid":"home","rssi":0},)"
                                    R"({"mac":"aa:bb:cc:00:00:02","ssid":"guest","rssi":-999}])"));
}

TEST_F(RrmWorkerReportTest, SubscribedWithoutSteeringAndBlacklistingReportsNoClients) {
    driver.add_station(0, 0, "aa:bb:cc:00:00:01", -60);
    EXPECT_THAT(report(), Not(HasSubstr("assoclist")));
}

TEST_F(RrmWorkerReportTest, SubscribedWithBlacklistingReportsClients) {
    subscribe();
    peer().blacklist_enabled() = true;
    driver.add_station(1, 0, "aa:bb:cc:00:00:01", -60);
    EXPECT_THAT(radio(1), HasSubstr(R"("assoclist":[{"mac":"aa:bb:cc:00:00:01")"));
    EXPECT_THAT(radio(0), HasSubstr(R"("assoclist":[])"));
}

TEST_F(RrmWorkerReportTest, ReportsBeforeTheSubscriptionListClients) {
    driver.add_station(0, 0, "aa:bb:cc:00:00:01", -60);
    link("connected");
    EXPECT_THAT(last_report(), HasSubstr(R"("assoclist":[{"mac":"aa:bb:cc:00:00:01")"));
}

}  // namespace
