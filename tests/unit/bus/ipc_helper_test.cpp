#include "ipc_helper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <latch>

#include "json_memory.h"
#include "log_capture.h"
#include "test_bus.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

// Longer than a test may take: a request that should fail at once does, or the test never ends.
constexpr int forever = 100'000;
constexpr int briefly = 1;  // seconds, the least wait there is

class helper_under_test : public ipc_helper {
  public:
    explicit helper_under_test(int limit = forever, const volatile bool* run = nullptr)
        : ipc_helper(ORVANTAMOD, limit, run) {}
    using ipc_helper::send_ipc_message_wait_answer;
};

class IpcHelperTest : public testing::Test {
  protected:
    [[nodiscard]] std::vector<std::string> errors() const {
        std::vector<std::string> lines = log.lines();
        std::erase_if(lines, [](const std::string& line) { return !line.starts_with("error: "); });
        return lines;
    }

    TestBus bus;
    LogCapture log;
};

class ConfigurationTest : public IpcHelperTest {
  protected:
    std::optional<std::string> getconf(const std::string& path) const {
        std::string value;
        if (helper.getconf(path, value) != 0)
            return std::nullopt;
        return value;
    }

    FakeVaultd vaultd{bus};
    helper_under_test helper;
};

class HubdTest : public IpcHelperTest {
  protected:
    FakeHubd hubd{bus};
    helper_under_test helper;
};

// A child forked from a process with threads has none of them: the leak checker, which would look
// for them at its end, is left out there.
void end_without_leak_check() {
    on_exit([](int status, void*) { _exit(status); }, nullptr);
}

// ---- joining the bus

TEST(IpcHelperStartTest, EndsTheProcessWhenThereIsNoBus) {
    EXPECT_EXIT(
        {
            end_without_leak_check();
            setenv("MSGBUS_SOCKET", "/tmp/lumd-no-such-folder/bus", 1);
            helper_under_test helper;
        },
        testing::ExitedWithCode(255), "");
}

TEST_F(IpcHelperTest, EndsTheProcessWhenItsModuleIdIsTaken) {
    bus.serve(ORVANTAMOD, [](const std::string&) { return std::nullopt; });
    EXPECT_EXIT(
        {
            end_without_leak_check();
            helper_under_test helper;
        },
        testing::ExitedWithCode(255), "");
    EXPECT_TRUE(log.contains("error: Error: couldn't ctx initialization"));
}

TEST_F(IpcHelperTest, LeavesTheBusAtItsEnd) {
    { const helper_under_test helper; }
    bus.serve(ORVANTAMOD, [](const std::string&) { return std::nullopt; });
}

// ---- getconf

TEST_F(ConfigurationTest, ReadsAStringAsItsBareText) {
    vaultd.set("/a", "wlan \"x\"");
    EXPECT_EQ(getconf("/a"), "wlan \"x\"");
    EXPECT_THAT(bus.requests(VAULTDMOD), ElementsAre(R"({"command":"get","path":"/a"})"));
}

TEST_F(ConfigurationTest, ReadsNumbersAndBooleansAsText) {
    vaultd.set_json("/number", "42");
    vaultd.set_json("/boolean", "true");
    EXPECT_EQ(getconf("/number"), "42");
    EXPECT_EQ(getconf("/boolean"), "true");
}

TEST_F(ConfigurationTest, ReadsAnObjectAsItsJson) {
    vaultd.set_json("/object", R"({"name": "custom", "cable-loss": -15})");
    EXPECT_EQ(getconf("/object"), R"({"name":"custom","cable-loss":-15})");
}

TEST_F(ConfigurationTest, FailsForTheValueNull) {
    vaultd.set_json("/null", "null");
    EXPECT_EQ(getconf("/null"), std::nullopt);
    EXPECT_TRUE(log.contains("error: Child 'value' has type 'none' in vaultd response: "));
}

TEST_F(ConfigurationTest, CountsAValueOfAnotherTypeAsReadAndLeavesTheOutputUntouched) {
    vaultd.set_json("/array", R"(["a", "b"])");
    std::string value = "untouched";
    EXPECT_EQ(helper.getconf("/array", value), 0);
    EXPECT_EQ(value, "untouched");
}

TEST_F(ConfigurationTest, FailsForAnAnswerWithoutValue) {
    std::string value = "untouched";
    EXPECT_EQ(helper.getconf("/missing", value), -1);
    EXPECT_EQ(value, "untouched");
    EXPECT_TRUE(log.contains("error: Child 'value' not found in vaultd response: "));
}

TEST_F(ConfigurationTest, FailsWithMinusOneWhateverTheReason) {
    vaultd.set_json("/null", "null");
    std::string value;
    for (const char* path : {"", "/missing", "/null"})
        EXPECT_EQ(helper.getconf(path, value), -1) << path;
    vaultd.stop();
    EXPECT_EQ(helper.getconf("/a", value), -1);
}

TEST_F(ConfigurationTest, TellsOfAnAnswerWithoutValueOnce) {
    EXPECT_EQ(getconf("/missing"), std::nullopt);
    EXPECT_THAT(errors(), ElementsAre(StartsWith("error: Child 'value' not found")));
}

TEST_F(ConfigurationTest, TellsOnlyWhatItAskedForWhenTheStoreIsAbsent) {
    vaultd.stop();
    EXPECT_EQ(getconf("/a"), std::nullopt);
    EXPECT_THAT(errors(), ElementsAre("error: Error: can't get config",
                                      "error: Error: path (/a) reason (not found)"));
}

TEST_F(ConfigurationTest, SendsNothingForAnEmptyPath) {
    EXPECT_EQ(getconf(""), std::nullopt);
    EXPECT_THAT(bus.requests(VAULTDMOD), IsEmpty());
}

TEST_F(ConfigurationTest, KnowsAtOnceThatTheStoreIsAbsent) {
    vaultd.stop();
    EXPECT_EQ(getconf("/a"), std::nullopt);
    EXPECT_TRUE(log.contains("error: Error: path (/a) reason (not found)"));
    EXPECT_TRUE(log.contains("error: Error: can't get config"));
}

TEST_F(ConfigurationTest, ReadsAgainWhenTheStoreIsBack) {
    vaultd.set("/a", "b");
    vaultd.stop();
    EXPECT_EQ(getconf("/a"), std::nullopt);
    vaultd.start();
    EXPECT_EQ(getconf("/a"), "b");
}

TEST_F(ConfigurationTest, EachRequestRejoinsTheBusWhenTheBrokerHasRestarted) {
    vaultd.set("/a", "b");
    EXPECT_EQ(getconf("/a"), "b");
    for (int restarts = 0; restarts < 2; ++restarts) {
        bus.restart();
        vaultd.start();
        EXPECT_EQ(getconf("/a"), "b");
    }
}

TEST_F(IpcHelperTest, GivesASilentStoreUpAfterTheWaitLimit) {
    FakeVaultd vaultd{bus};
    vaultd.set_silent(true);
    const helper_under_test helper{briefly};
    std::string value;
    EXPECT_EQ(helper.getconf("/a", value), -1);
    EXPECT_TRUE(log.contains("error: Error: can't get config"));
    EXPECT_TRUE(log.contains("error: Error: path (/a) reason (not found)"));
}

TEST_F(IpcHelperTest, NeverTakesALateAnswerForTheNextRequests) {
    FakeVaultd vaultd{bus};
    vaultd.set("/first", "late");
    vaultd.set("/second", "timely");
    std::latch given_up{1};
    vaultd.on_request([&](const std::string& path) {
        if (path == "/first")
            given_up.wait();
    });
    const helper_under_test brief{briefly};
    std::string value;
    EXPECT_EQ(brief.getconf("/first", value), -1);
    given_up.count_down();
    EXPECT_EQ(brief.getconf("/second", value), 0);
    EXPECT_EQ(value, "timely");
}

TEST_F(ConfigurationTest, TakesOnlyTheAnswerThatBearsItsRequestsNumber) {
    vaultd.set("/a", "mine");
    vaultd.on_request([&](const std::string&) {
        bus.send(VAULTDMOD, ORVANTAMOD, R"({"command":"get-response","value":"not mine"})");
    });
    EXPECT_EQ(getconf("/a"), "mine");
}

TEST_F(IpcHelperTest, TakesOnlyTheAnswerWithTheAwaitedCommand) {
    bus.serve(VAULTDMOD, [](const std::string&) -> std::optional<std::string> {
        return R"({"command":"another-response","value":"x"})";
    });
    const helper_under_test helper{briefly};
    std::string value;
    EXPECT_EQ(helper.getconf("/a", value), -1);
}

// ---- readers

TEST_F(ConfigurationTest, LogsThePathBeforeItReads) {
    EXPECT_FALSE(helper.get_tpc());
    EXPECT_TRUE(log.contains("debug: getconf '/orvanta/tpc'"));
}

TEST_F(ConfigurationTest, TheCountryIsWhatTheStoreHolds) {
    vaultd.set("/interface/wlan0/wlan/radio/country", "FI");
    EXPECT_EQ(helper.get_country("wlan0"), "FI");
}

TEST_F(ConfigurationTest, TheCountryIsRuWhenTheStoreDoesNotAnswer) {
    vaultd.stop();
    EXPECT_EQ(helper.get_country("wlan0"), "RU");
}

TEST_F(ConfigurationTest, NullInterfaceNamesReadAsEmptyOnes) {
    EXPECT_EQ(helper.get_country(nullptr), "RU");
    EXPECT_FALSE(helper.get_wds_enabled(nullptr));
    EXPECT_FALSE(helper.get_auto_channel(nullptr));
    EXPECT_FALSE(helper.get_use_limit_channels(nullptr));
    EXPECT_EQ(helper.lock_scan_scand(nullptr), 0);
    EXPECT_EQ(helper.unlock_scan_scand(nullptr), 0);
    EXPECT_EQ(vaultd.paths().front(), "/interface//wlan/radio/country");
}

TEST_F(ConfigurationTest, FormattedPathsAreCutAt63Characters) {
    const std::string name(80, 'x');
    helper.get_auto_channel(name.c_str());
    EXPECT_THAT(vaultd.paths(), ElementsAre("/interface/" + std::string(52, 'x')));
}

TEST_F(ConfigurationTest, AsksForAtMostEightWdsLinks) {
    EXPECT_FALSE(helper.get_wds_enabled("wlan1"));
    const std::vector<std::string> paths = vaultd.paths();
    ASSERT_THAT(paths, SizeIs(8));
    EXPECT_EQ(paths.front(), "/interface/wlan1-wds0/common/enabled");
    EXPECT_EQ(paths.back(), "/interface/wlan1-wds7/common/enabled");
}

TEST_F(ConfigurationTest, StopsAtTheFirstEnabledWdsLink) {
    vaultd.set("/interface/wlan0-wds0/common/enabled", "false");
    vaultd.set("/interface/wlan0-wds2/common/enabled", "true");
    EXPECT_TRUE(helper.get_wds_enabled("wlan0"));
    EXPECT_THAT(vaultd.paths(), SizeIs(3));
}

TEST_F(ConfigurationTest, OnlyTheTextTrueMeansOn) {
    vaultd.set("/interface/wlan0/wlan/radio/auto-channel", "True");
    EXPECT_FALSE(helper.get_auto_channel("wlan0"));
    vaultd.set("/interface/wlan0/wlan/radio/auto-channel", "true");
    EXPECT_TRUE(helper.get_auto_channel("wlan0"));
    vaultd.set("/interface/wlan0/wlan/radio/use-limit-channels", "true");
    EXPECT_TRUE(helper.get_use_limit_channels("wlan0"));
}

TEST_F(ConfigurationTest, LimitChannelsAreTheNumbersFromOneUp) {
    vaultd.set("/interface/wlan1/wlan/radio/limit-channels", "36 40 1 0 -5 44");
    std::set<int> channels{100};
    helper.fill_limit_channels("wlan1", channels);
    EXPECT_THAT(channels, ElementsAre(1, 36, 40, 44));
}

TEST_F(ConfigurationTest, UnknownLimitChannelsLeaveTheSetEmpty) {
    std::set<int> channels{1};
    helper.fill_limit_channels("wlan1", channels);
    EXPECT_THAT(channels, IsEmpty());
}

TEST_F(ConfigurationTest, APieceOfLimitChannelsThatIsNoNumberThrows) {
    std::set<int> channels;
    vaultd.set("/interface/wlan1/wlan/radio/limit-channels", "36 x");
    EXPECT_THROW(helper.fill_limit_channels("wlan1", channels), std::invalid_argument);
    vaultd.set("/interface/wlan1/wlan/radio/limit-channels", "36  40");
    EXPECT_THROW(helper.fill_limit_channels("wlan1", channels), std::invalid_argument);
    vaultd.set("/interface/wlan1/wlan/radio/limit-channels", "99999999999");
    EXPECT_THROW(helper.fill_limit_channels("wlan1", channels), std::out_of_range);
}

TEST_F(ConfigurationTest, SecurityModesOfWpa2AndWpa3) {
    const char* path = "/interface/wlan0-vap3/vap/ap-security/mode";
    const std::map<std::string, bool> modes{{"WPA2_PSK", true},      {"WPA3_SAE", true},
                                            {"WPA_WPA2_PSK", false}, {"WPA_PSK", false},
                                            {"OPEN", false},         {"WPA2-1X", true}};
    for (const auto& [mode, expected] : modes) {
        vaultd.set(path, mode);
        EXPECT_EQ(helper.is_wpa23_vap(0, 3), expected) << mode;
    }
    vaultd.erase(path);
    EXPECT_FALSE(helper.is_wpa23_vap(0, 3));
}

TEST_F(ConfigurationTest, AModeWithWpa2And1xIsBothWpa2AndEnterprise) {
    vaultd.set("/interface/wlan0-vap3/vap/ap-security/mode", "WPA2-1X");
    vaultd.set("/interface/wlan0-va3/vap/ap-security/mode", "WPA2-1X");
    EXPECT_TRUE(helper.is_wpa23_vap(0, 3));
    EXPECT_TRUE(helper.get_enterprise_vap("wlan0-va3"));
}

TEST_F(ConfigurationTest, FastTransitionNeedsWpa2OrWpa3) {
    vaultd.set("/interface/wlan1-vap2/vap/ft-config/enabled", "true");
    vaultd.set("/interface/wlan1-vap2/vap/ap-security/mode", "WPA2_PSK");
    EXPECT_TRUE(helper.is_fbt_enabled(1, 2));
    vaultd.set("/interface/wlan1-vap2/vap/ap-security/mode", "OPEN");
    EXPECT_FALSE(helper.is_fbt_enabled(1, 2));
}

TEST_F(ConfigurationTest, FastTransitionLooksAtTheSecurityModeBeforeItsOwnValue) {
    vaultd.set("/interface/wlan1-vap2/vap/ft-config/enabled", "false");
    EXPECT_FALSE(helper.is_fbt_enabled(1, 2));
    EXPECT_THAT(vaultd.paths(), ElementsAre("/interface/wlan1-vap2/vap/ft-config/enabled",
                                            "/interface/wlan1-vap2/vap/ap-security/mode"));
}

TEST_F(ConfigurationTest, FastTransitionIsOffWithoutAValueAndTheModeIsNotAskedFor) {
    vaultd.set("/interface/wlan1-vap2/vap/ap-security/mode", "WPA2_PSK");
    EXPECT_FALSE(helper.is_fbt_enabled(1, 2));
    EXPECT_THAT(vaultd.paths(), ElementsAre("/interface/wlan1-vap2/vap/ft-config/enabled"));
}

TEST_F(IpcHelperTest, FastTransitionAsksTheDerivedClassAboutTheSecurityMode) {
    class open_vaps : public helper_under_test {
      public:
        bool is_wpa23_vap(int, int) const override { return false; }
    };
    FakeVaultd vaultd{bus};
    vaultd.set("/interface/wlan0-vap0/vap/ft-config/enabled", "true");
    vaultd.set("/interface/wlan0-vap0/vap/ap-security/mode", "WPA2_PSK");
    const open_vaps helper;
    EXPECT_FALSE(helper.is_fbt_enabled(0, 0));
}

TEST_F(ConfigurationTest, VapReadersTakeTheVapsName) {
    vaultd.set("/interface/wlan0-va1/vap/w80211kv-config/enabled", "true");
    vaultd.set("/interface/wlan0-va1/vap/ssid", "guests");
    vaultd.set("/interface/wlan0-va1/common/enabled", "true");
    vaultd.set("/interface/wlan0-va1/vap/captive-portal/enabled", "true");
    EXPECT_TRUE(helper.get_802dot11k_vap("wlan0-va1"));
    EXPECT_EQ(helper.get_ssid("wlan0-va1"), "guests");
    EXPECT_TRUE(helper.get_vap_enabled_state("wlan0-va1"));
    EXPECT_TRUE(helper.get_captive_portal_state("wlan0-va1"));
}

TEST_F(ConfigurationTest, VapReadersAnswerOffWithoutAValue) {
    EXPECT_FALSE(helper.get_enterprise_vap("wlan0-va1"));
    EXPECT_FALSE(helper.get_802dot11k_vap("wlan0-va1"));
    EXPECT_EQ(helper.get_ssid("wlan0-va1"), "");
    EXPECT_FALSE(helper.get_vap_enabled_state("wlan0-va1"));
    EXPECT_FALSE(helper.get_captive_portal_state("wlan0-va1"));
}

TEST_F(ConfigurationTest, VapReadersLogInTheirOwnNames) {
    vaultd.set("/interface/wlan0-va1/common/enabled", "false");
    helper.get_vap_enabled_state("wlan0-va1");
    helper.get_802dot11k_vap("wlan0-va1");
    EXPECT_TRUE(log.contains("debug: <get_vap_enabled_state:"));
    EXPECT_TRUE(log.contains("> /interface/wlan0-va1/common/enabled = false"));
    EXPECT_TRUE(log.contains("error: <get_802dot11k_vap:"));
    EXPECT_TRUE(
        log.contains("> can't get value from '/interface/wlan0-va1/vap/w80211kv-config/enabled'"));
}

TEST_F(ConfigurationTest, VapReadersLogNoValueThatTheyCouldNotRead) {
    helper.get_ssid("wlan0-va1");
    EXPECT_TRUE(log.contains("> can't get value from '/interface/wlan0-va1/vap/ssid'"));
    EXPECT_FALSE(log.contains("/interface/wlan0-va1/vap/ssid = "));
}

TEST_F(ConfigurationTest, WidsIsConfiguredWhenEnabledInSentryMode) {
    vaultd.set("/wids/enabled", "true");
    vaultd.set("/wids/scan-mode", "sentry");
    EXPECT_TRUE(helper.get_config_wids());
    vaultd.set("/wids/scan-mode", "background");
    EXPECT_FALSE(helper.get_config_wids());
    vaultd.set("/wids/scan-mode", "sentry");
    vaultd.set("/wids/enabled", "false");
    EXPECT_FALSE(helper.get_config_wids());
}

TEST_F(ConfigurationTest, TheScanModeOfWidsIsReadOnlyWhenWidsIsEnabled) {
    vaultd.set("/wids/scan-mode", "sentry");
    EXPECT_FALSE(helper.get_config_wids());
    vaultd.set("/wids/enabled", "false");
    EXPECT_FALSE(helper.get_config_wids());
    EXPECT_THAT(vaultd.paths(), ElementsAre("/wids/enabled", "/wids/enabled"));
}

TEST_F(ConfigurationTest, ServiceSwitchesAreReadFromTheOrvantaBranch) {
    vaultd.set("/orvanta/tpc", "true");
    vaultd.set("/orvanta/dca", "true");
    vaultd.set("/orvanta/load-balance-80211v", "true");
    EXPECT_TRUE(helper.get_tpc());
    EXPECT_TRUE(helper.get_dca());
    EXPECT_TRUE(helper.get_load_balance_80211v());
    EXPECT_THAT(vaultd.paths(),
                ElementsAre("/orvanta/tpc", "/orvanta/dca", "/orvanta/load-balance-80211v"));
}

// ---- pushes to hubd

TEST_F(HubdTest, UpdateSendsTheParametersInTheirOrder) {
    EXPECT_EQ(helper.update_orvanta("wlan1", {{"tx-power", "14"}, {"channel", "44"}}), 0);
    EXPECT_THAT(hubd.requests(), ElementsAre(R"({"command":"update-orvanta","ifname":"wlan1",)"
                                             R"("params":{"tx-power":"14","channel":"44"}})"));
}

TEST_F(HubdTest, UpdateWithNothingToPushSendsNothing) {
    EXPECT_EQ(helper.update_orvanta("wlan0", {}), -1);
    EXPECT_EQ(helper.update_orvanta("", {{"tx-power", "14"}}), -1);
    EXPECT_THAT(hubd.requests(), IsEmpty());
}

TEST_F(HubdTest, ARefusedUpdateFailsWithItsReason) {
    hubd.set_mood(FakeHubd::REFUSES);
    EXPECT_EQ(helper.update_orvanta("wlan0", {{"tx-power", "14"}}), -1);
    EXPECT_TRUE(log.contains("error: Error: ifname (wlan0) reason (radio is busy)"));
}

TEST_F(HubdTest, ARefusalWithoutReasonIsAnInvalidResponse) {
    hubd.set_mood(FakeHubd::REFUSES_WITHOUT_REASON);
    EXPECT_EQ(helper.update_orvanta("wlan0", {{"tx-power", "14"}}), -1);
    EXPECT_EQ(helper.send_reset_orvanta("wlan1"), -1);
    EXPECT_TRUE(log.contains("Error: ifname (wlan0) reason (invalid response)"));
    EXPECT_TRUE(log.contains("Error: ifname (wlan1) reason (invalid response)"));
}

TEST_F(HubdTest, KnowsAtOnceThatHubdIsAbsent) {
    hubd.stop();
    EXPECT_EQ(helper.update_orvanta("wlan0", {{"tx-power", "14"}}), -1);
    EXPECT_EQ(helper.send_reset_orvanta("wlan0"), -1);
    EXPECT_EQ(helper.set_wisd_bw_list("{}"), -1);
    EXPECT_TRUE(log.contains("error: Error: can't update Orvanta params"));
    EXPECT_TRUE(log.contains("error: Error: no response (update_orvanta)"));
    EXPECT_TRUE(log.contains("error: Error: can't reset Orvanta params"));
    EXPECT_TRUE(log.contains("error: Error: can't update wids b/w params"));
    EXPECT_EQ(log.count("error: Error: no response"), 3);
}

TEST_F(HubdTest, PushesAgainAfterHubdHasRestarted) {
    EXPECT_EQ(helper.send_reset_orvanta("wlan0"), 0);
    hubd.stop();
    EXPECT_EQ(helper.send_reset_orvanta("wlan0"), -1);
    hubd.start();
    EXPECT_EQ(helper.send_reset_orvanta("wlan0"), 0);
}

TEST_F(IpcHelperTest, AnAnswerThatIsNoJsonCountsAsNone) {
    FakeHubd hubd{bus, FakeHubd::TALKS_GARBAGE};
    const helper_under_test helper{briefly};
    EXPECT_EQ(helper.update_orvanta("wlan0", {{"tx-power", "14"}}), -1);
    EXPECT_TRUE(log.contains("error: Error: no response (update_orvanta)"));
    hubd.set_mood(FakeHubd::CONSENTS);
    EXPECT_EQ(helper.update_orvanta("wlan0", {{"tx-power", "14"}}), 0);
}

TEST_F(IpcHelperTest, ASilentHubdIsGivenUpAfterTheWaitLimit) {
    FakeHubd hubd{bus, FakeHubd::STAYS_SILENT};
    const helper_under_test helper{briefly};
    EXPECT_EQ(helper.send_reset_orvanta("wlan0"), -1);
    EXPECT_TRUE(log.contains("error: Error: no response"));
}

TEST_F(IpcHelperTest, AStatusThatIsNoTextIsARefusal) {
    bus.serve(HUBDMOD, [](const std::string&) -> std::optional<std::string> {
        return R"({"command":"reset-orvanta-response","status":{"ok":1},"reason":[]})";
    });
    const helper_under_test helper;
    EXPECT_EQ(helper.send_reset_orvanta("wlan0"), -1);
    EXPECT_TRUE(log.contains("Error: ifname (wlan0) reason (invalid response)"));
}

TEST_F(HubdTest, ResetNamesTheInterface) {
    EXPECT_EQ(helper.send_reset_orvanta("wlan1"), 0);
    EXPECT_THAT(hubd.requests(), ElementsAre(R"({"command":"reset-orvanta","ifname":"wlan1"})"));
}

TEST_F(HubdTest, ResetOfNoInterfaceSendsNothing) {
    EXPECT_EQ(helper.send_reset_orvanta(""), -1);
    EXPECT_THAT(hubd.requests(), IsEmpty());
}

TEST_F(HubdTest, WidsListsGoOutUnchangedUnderTheirCommand) {
    EXPECT_EQ(helper.set_wisd_bw_list(R"({"b": [1, {"c": null}], "a": "x", "d": 1.50})"), 0);
    EXPECT_THAT(hubd.requests(), ElementsAre(R"({"b":[1,{"c":null}],"a":"x","d":1.50,)"
                                             R"("command":"update-wids-mac-lists"})"));
    EXPECT_TRUE(log.contains("debug: Try to send update-wids-mac-lists to hubd:"));
}

TEST_F(HubdTest, RefusedWidsListsAreLoggedButNoFailure) {
    hubd.set_mood(FakeHubd::REFUSES);
    EXPECT_EQ(helper.set_wisd_bw_list("{}"), 0);
    EXPECT_TRUE(log.contains("error: Error: reason (radio is busy)"));
}

TEST_F(HubdTest, WidsListsThatAreNoJsonObjectAreNotSent) {
    for (const char* text : {"", "{", "null", "[1]", "5"})
        EXPECT_EQ(helper.set_wisd_bw_list(text), -1) << text;
    EXPECT_TRUE(log.contains("> can't parse json string '[1]'"));
    EXPECT_THAT(hubd.requests(), IsEmpty());
}

// ---- scan daemon

TEST_F(IpcHelperTest, ScanNoticesNeedNoAnswer) {
    bus.serve(SCANDMOD, [](const std::string&) { return std::nullopt; });
    const helper_under_test helper;
    EXPECT_EQ(helper.lock_scan_scand("wlan0"), 0);
    EXPECT_EQ(helper.unlock_scan_scand("wlan1"), 0);
    EXPECT_THAT(bus.wait_requests(SCANDMOD, 2),
                ElementsAre(R"({"command":"lock-scan","interface":"wlan0"})",
                            R"({"command":"unlock-scan","interface":"wlan1"})"));
}

TEST_F(IpcHelperTest, ScanNoticesToAnAbsentDaemonDoNotDisturbTheNextRequest) {
    FakeVaultd vaultd{bus};
    vaultd.set("/orvanta/dca", "true");
    const helper_under_test helper;
    EXPECT_EQ(helper.lock_scan_scand("wlan0"), 0);
    EXPECT_TRUE(helper.get_dca());
}

// ---- no memory for a request

class ShortOfMemoryTest : public IpcHelperTest {
  protected:
    FakeVaultd vaultd{bus};
    FakeHubd hubd{bus};
    helper_under_test helper{briefly};
};

TEST_F(ShortOfMemoryTest, AReadFailsAndAsksNothing) {
    const JsonShortage shortage{JsonShortage::OBJECT};
    std::string value;
    EXPECT_EQ(helper.getconf("/a", value), -1);
    EXPECT_THAT(errors(), ElementsAre(EndsWith("> can't create json object")));
    EXPECT_THAT(vaultd.paths(), IsEmpty());
}

TEST_F(ShortOfMemoryTest, AnUpdateFailsAndSendsNothing) {
    const JsonShortage shortage{JsonShortage::OBJECT};
    EXPECT_EQ(helper.update_orvanta("wlan0", {{"tx-power", "14"}}), -1);
    EXPECT_THAT(errors(), ElementsAre(EndsWith("> can't create json object")));
    EXPECT_THAT(hubd.requests(), IsEmpty());
}

TEST_F(ShortOfMemoryTest, AnUpdateWithoutItsParametersIsNotSent) {
    const JsonShortage shortage{JsonShortage::OBJECT, 1};
    EXPECT_EQ(helper.update_orvanta("wlan0", {{"tx-power", "14"}}), -1);
    EXPECT_THAT(errors(), ElementsAre(EndsWith("> not enough memory")));
    EXPECT_THAT(hubd.requests(), IsEmpty());
}

TEST_F(ShortOfMemoryTest, AResetFailsAndSendsNothing) {
    const JsonShortage shortage{JsonShortage::OBJECT};
    EXPECT_EQ(helper.send_reset_orvanta("wlan0"), -1);
    EXPECT_THAT(errors(), ElementsAre(EndsWith("> can't create json object")));
    EXPECT_THAT(hubd.requests(), IsEmpty());
}

TEST_F(ShortOfMemoryTest, AScanNoticeIsLeftOut) {
    bus.serve(SCANDMOD, [](const std::string&) { return std::nullopt; });
    {
        const JsonShortage shortage{JsonShortage::OBJECT};
        EXPECT_EQ(helper.lock_scan_scand("wlan0"), 0);
        EXPECT_TRUE(shortage.has_struck());
    }
    EXPECT_EQ(helper.unlock_scan_scand("wlan0"), 0);
    EXPECT_THAT(bus.wait_requests(SCANDMOD, 1),
                ElementsAre(R"({"command":"unlock-scan","interface":"wlan0"})"));
}

// ---- a process that is told to stop

volatile bool run_flag = true;
void stop_running(int) {
    run_flag = false;
}

TEST_F(IpcHelperTest, AStoppingProcessSendsNothingThatWouldWait) {
    FakeVaultd vaultd{bus};
    FakeHubd hubd{bus};
    vaultd.set("/orvanta/dca", "true");
    run_flag = true;
    const helper_under_test helper{forever, &run_flag};
    EXPECT_TRUE(helper.get_dca());
    run_flag = false;
    EXPECT_FALSE(helper.get_dca());
    EXPECT_EQ(helper.update_orvanta("wlan0", {{"tx-power", "14"}}), -1);
    EXPECT_THAT(vaultd.paths(), SizeIs(1));
    EXPECT_THAT(hubd.requests(), IsEmpty());
}

TEST_F(IpcHelperTest, ASignalDuringAWaitLetsThatWaitEndAndStartsNoOther) {
    FakeVaultd vaultd{bus};
    vaultd.set_silent(true);
    run_flag = true;
    std::signal(SIGUSR1, stop_running);
    vaultd.on_request(
        [worker = pthread_self()](const std::string&) { pthread_kill(worker, SIGUSR1); });
    const helper_under_test helper{briefly, &run_flag};
    EXPECT_FALSE(helper.get_wds_enabled("wlan0"));
    EXPECT_THAT(vaultd.paths(), ElementsAre("/interface/wlan0-wds0/common/enabled"));
    std::signal(SIGUSR1, SIG_DFL);
}

}  // namespace
