#include "driver_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using DriverFbtTest = DriverTest;

constexpr const char* reset_message =
    R"({"command":"reset-orvanta-fbt",)"
    R"("wlan0-va0":{},"wlan0-va1":{},"wlan0-va2":{},"wlan0-va3":{},)"
    R"("wlan0-va4":{},"wlan0-va5":{},"wlan0-va6":{},)"
    R"("wlan1-va0":{},"wlan1-va1":{},"wlan1-va2":{},"wlan1-va3":{},)"
    R"("wlan1-va4":{},"wlan1-va5":{},"wlan1-va6":{}})";

// ---- pushing parameters

TEST_F(DriverFbtTest, StagedParametersGoOutAsOneMessage) {
    EXPECT_EQ(driver().start_orvanta_fbt_params(), 0);
    driver().set_orvanta_fbt_params("wlan0-va0", R"({"ft-config": {"enabled": "true"}})");
    driver().set_orvanta_fbt_params("wlan1-va2", R"({"ft-config": {"mobility-domain": 7}})");
    EXPECT_EQ(driver().finish_orvanta_fbt_params(), 0);
    EXPECT_THAT(hubd.requests(),
                ElementsAre(R"({"command":"update-orvanta-fbt",)"
                            R"("wlan0-va0":{"ft-config":{"enabled":"true"}},)"
                            R"("wlan1-va2":{"ft-config":{"mobility-domain":7}}})"));
    EXPECT_TRUE(log.contains("debug: Try to send update-orvanta-fbt to hubd"));
    EXPECT_TRUE(log.contains("debug: set_orvanta_fbt_params: {"));
    EXPECT_TRUE(log.contains("debug: set_orvanta_fbt_params resp: {"));
    EXPECT_TRUE(log.contains("debug: Successfully received update-orvanta-fbt-response from hubd"));
}

TEST_F(DriverFbtTest, AnUpdateAndItsAnswerAreLoggedInTheirTextForm) {
    driver().start_orvanta_fbt_params();
    driver().set_orvanta_fbt_params("wlan0-va0", R"({"key":"a/b"})");
    driver().finish_orvanta_fbt_params();
    EXPECT_EQ(logged(R"(debug: set_orvanta_fbt_params: \{ +"command": "update-orvanta-fbt", +)"
                     R"("wlan0-va0": \{ +"key": "a/b" +\} +\})"),
              1);
    EXPECT_EQ(logged(R"(debug: set_orvanta_fbt_params resp: \{ +"command": )"
                     R"("update-orvanta-fbt-response", +"status": "ok" +\})"),
              1);
}

TEST_F(DriverFbtTest, ParametersBeforeTheStartAreIgnored) {
    driver().set_orvanta_fbt_params("wlan0-va0", "{}");
    EXPECT_EQ(driver().finish_orvanta_fbt_params(), -1);
    EXPECT_THAT(hubd.requests(), IsEmpty());
    EXPECT_TRUE(log.contains("error: virtual int driver_realtek::finish_orvanta_fbt_params():"));
    EXPECT_TRUE(log.contains("> fbt params is NULL!"));
}

TEST_F(DriverFbtTest, ParametersBeforeTheStartAreNotEvenLookedAt) {
    driver().set_orvanta_fbt_params("wlan0-va0", "{");
    EXPECT_EQ(errors(), 0);
}

TEST_F(DriverFbtTest, ParametersThatAreNoJsonAreLeftOutWithALine) {
    driver().start_orvanta_fbt_params();
    driver().set_orvanta_fbt_params("wlan0-va0", "{");
    driver().set_orvanta_fbt_params("wlan0-va1", "{}");
    EXPECT_EQ(logged(R"(error: <set_orvanta_fbt_params:\d+> can't parse json string '\{')"), 1);
    driver().finish_orvanta_fbt_params();
    EXPECT_THAT(hubd.requests(), ElementsAre(R"({"command":"update-orvanta-fbt","wlan0-va1":{}})"));
}

TEST_F(DriverFbtTest, ASecondStartDiscardsTheFirstStaging) {
    driver().start_orvanta_fbt_params();
    driver().set_orvanta_fbt_params("wlan0-va0", "{}");
    driver().start_orvanta_fbt_params();
    EXPECT_EQ(driver().finish_orvanta_fbt_params(), 0);
    EXPECT_THAT(hubd.requests(), ElementsAre(R"({"command":"update-orvanta-fbt"})"));
}

TEST_F(DriverFbtTest, AVapThatIsStagedTwiceHasTheLaterParameters) {
    driver().start_orvanta_fbt_params();
    driver().set_orvanta_fbt_params("wlan0-va0", R"({"mobility-domain": 7, "enabled": "true"})");
    driver().set_orvanta_fbt_params("wlan0-va1", "{}");
    driver().set_orvanta_fbt_params("wlan0-va0", R"({"mobility-domain": 8})");
    EXPECT_EQ(driver().finish_orvanta_fbt_params(), 0);
    EXPECT_THAT(hubd.requests(),
                ElementsAre(R"({"command":"update-orvanta-fbt",)"
                            R"("wlan0-va0":{"mobility-domain":8},"wlan0-va1":{}})"));
}

TEST_F(DriverFbtTest, WithoutMemoryNothingIsStaged) {
    driver().start_orvanta_fbt_params();
    {
        const call_faults::NoJsonObject fault;
        EXPECT_EQ(driver().start_orvanta_fbt_params(), -1);
    }
    EXPECT_EQ(logged(R"(error: virtual int driver_realtek::start_orvanta_fbt_params\(\):\d+> )"
                     R"(can't create json object)"),
              1);
    EXPECT_EQ(driver().finish_orvanta_fbt_params(), -1);
    EXPECT_THAT(hubd.requests(), IsEmpty());
}

TEST_F(DriverFbtTest, ParametersThatAreNoJsonAreLeftOutWithAnErrorLine) {
    driver().start_orvanta_fbt_params();
    driver().set_orvanta_fbt_params("wlan0-va0", "{");
    driver().set_orvanta_fbt_params("wlan0-va1", "{}");
    EXPECT_EQ(driver().finish_orvanta_fbt_params(), 0);
    EXPECT_THAT(hubd.requests(), ElementsAre(R"({"command":"update-orvanta-fbt","wlan0-va1":{}})"));
    EXPECT_TRUE(log.contains("error: <set_orvanta_fbt_params:"));
}

TEST_F(DriverFbtTest, ARefusedUpdateIsLoggedButNoFailure) {
    hubd.set_mood(FakeHubd::REFUSES);
    driver().start_orvanta_fbt_params();
    EXPECT_EQ(driver().finish_orvanta_fbt_params(), 0);
    EXPECT_TRUE(log.contains(
        "error: Error: can't apply update-orvanta-fbt-response reason (radio is busy)"));
}

TEST_F(DriverFbtTest, ARefusalWithoutReasonIsAnInvalidResponse) {
    hubd.set_mood(FakeHubd::REFUSES_WITHOUT_REASON);
    driver().start_orvanta_fbt_params();
    EXPECT_EQ(driver().finish_orvanta_fbt_params(), 0);
    EXPECT_EQ(driver().reset_orvanta_fbt(UNKNOWN), 0);
    EXPECT_TRUE(log.contains("update-orvanta-fbt-response reason (invalid response)"));
    EXPECT_TRUE(log.contains("Error: fail reset-orvanta-fbt: reason (invalid response)"));
}

TEST_F(DriverFbtTest, NothingStaysStagedWhenHubdIsAbsent) {
    hubd.stop();
    driver().start_orvanta_fbt_params();
    EXPECT_EQ(driver().finish_orvanta_fbt_params(), -1);
    EXPECT_TRUE(log.contains("error: Error: can't update Orvanta fbt params"));
    EXPECT_TRUE(log.contains("error: Error: no response (finish_orvanta_fbt_params)"));
    hubd.start();
    EXPECT_EQ(driver().finish_orvanta_fbt_params(), -1);
    EXPECT_TRUE(log.contains("> fbt params is NULL!"));
}

TEST_F(DriverFbtTest, StagingThatIsNeverFinishedIsReleasedWithTheDriver) {
    driver().start_orvanta_fbt_params();
    driver().set_orvanta_fbt_params("wlan0-va0", "{}");
    EXPECT_THAT(hubd.requests(), IsEmpty());
}

// ---- withdrawing them

TEST_F(DriverFbtTest, AResetNamesEveryVapThatThereCouldBe) {
    EXPECT_EQ(driver().reset_orvanta_fbt(UNKNOWN), 0);
    EXPECT_THAT(hubd.requests(), ElementsAre(reset_message));
    EXPECT_TRUE(log.contains("debug: __reset_orvanta_fbt"));
    EXPECT_TRUE(log.contains("debug: Try to send reset-orvanta-fbt to hubd"));
    EXPECT_TRUE(log.contains("debug: reset_orvanta_fbt_params: {"));
    EXPECT_TRUE(log.contains("debug: reset_orvanta_fbt_params resp: {"));
    EXPECT_TRUE(log.contains("debug: Successfully received reset-orvanta-fbt-response from hubd"));
}

TEST_F(DriverFbtTest, AResetAndItsAnswerAreLoggedInTheirTextForm) {
    driver().reset_orvanta_fbt(UNKNOWN);
    EXPECT_EQ(logged(R"(debug: reset_orvanta_fbt_params: \{ +"command": "reset-orvanta-fbt", +)"
                     R"("wlan0-va0": \{ *\}, .*"wlan1-va6": \{ *\} +\})"),
              1);
    EXPECT_EQ(logged(R"(debug: reset_orvanta_fbt_params resp: \{ +"command": )"
                     R"("reset-orvanta-fbt-response", +"status": "ok" +\})"),
              1);
}

TEST_F(DriverFbtTest, FastTransitionIsResetWhenTheServiceIsGoneButNotWhenTheDaemonStops) {
    EXPECT_EQ(driver().reset_orvanta_fbt(DAEMON_STOPPED), 0);
    EXPECT_EQ(driver().reset_orvanta_fbt(static_cast<ResetOrvantaCause>(3)), 0);
    EXPECT_THAT(hubd.requests(), IsEmpty());
    EXPECT_EQ(driver().reset_orvanta_fbt(ORVANTA_DISCONNECTED), 0);
    EXPECT_THAT(hubd.requests(), ElementsAre(reset_message));
}

TEST_F(DriverFbtTest, AResetThatNobodyAnswersFails) {
    hubd.stop();
    EXPECT_EQ(driver().reset_orvanta_fbt(UNKNOWN), -1);
    EXPECT_TRUE(log.contains("error: Error: can't reset Orvanta params"));
    EXPECT_TRUE(log.contains("error: Error: no response (__reset_orvanta_fbt)"));
}

TEST_F(DriverFbtTest, WithoutMemoryNothingIsReset) {
    driver();
    {
        const call_faults::NoJsonObject fault;
        EXPECT_EQ(driver().reset_orvanta_fbt(UNKNOWN), -1);
    }
    EXPECT_EQ(logged(R"(error: int driver_realtek::__reset_orvanta_fbt\(ResetOrvantaCause\) const:)"
                     R"(\d+> can't create json object)"),
              1);
    EXPECT_THAT(hubd.requests(), IsEmpty());
}

TEST_F(DriverFbtTest, ARefusedResetIsLoggedButNoFailure) {
    hubd.set_mood(FakeHubd::REFUSES);
    EXPECT_EQ(driver().reset_orvanta_fbt(UNKNOWN), 0);
    EXPECT_TRUE(log.contains("error: Error: fail reset-orvanta-fbt: reason (radio is busy)"));
}

TEST_F(DriverFbtTest, SettingsAreResetOnEveryDescribedRadioInItsOrder) {
    platform.radios(R"({"ifname": "wlan1", "driver": "g6", "bands": ["5GHz"]},
                       {"ifname": "wlan0", "driver": "g6", "bands": ["2.4GHz"]})");
    driver().reset_orvanta(UNKNOWN);
    EXPECT_THAT(hubd.requests(), ElementsAre(R"({"command":"reset-orvanta","ifname":"wlan1"})",
                                             R"({"command":"reset-orvanta","ifname":"wlan0"})"));
}

TEST_F(DriverFbtTest, ARefusedResetOfOneRadioDoesNotKeepTheNextFromIt) {
    hubd.set_mood(FakeHubd::REFUSES);
    driver().reset_orvanta(UNKNOWN);
    EXPECT_THAT(hubd.requests(), SizeIs(2));
}

TEST_F(DriverFbtTest, SettingsStayForEveryOtherCause) {
    driver().reset_orvanta(DAEMON_STOPPED);
    driver().reset_orvanta(ORVANTA_DISCONNECTED);
    EXPECT_THAT(hubd.requests(), IsEmpty());
}

TEST_F(DriverFbtTest, AStoppingProcessPushesNothing) {
    driver().start_orvanta_fbt_params();
    run_flag = false;
    EXPECT_EQ(driver().finish_orvanta_fbt_params(), -1);
    driver().reset_orvanta(UNKNOWN);
    EXPECT_EQ(driver().reset_orvanta_fbt(UNKNOWN), -1);
    EXPECT_THAT(hubd.requests(), IsEmpty());
}

}  // namespace
