#include "driver_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using DriverChannelTest = DriverTest;

// ---- taking a chanspec apart

TEST_F(DriverChannelTest, TwentyMhzHasTheChannelItNames) {
    const unsigned spec = LWLIO_CHANSPEC_BW_20 | 11;
    EXPECT_EQ(driver().chanspec_channel(spec), 11);
    EXPECT_EQ(driver().chanspec_bw(spec), 20);
    EXPECT_EQ(errors() + log.count("warning: "), 0);
}

TEST_F(DriverChannelTest, FortyMhzUpper) {
    const unsigned spec = 0x1800 | 0x100 | 38;
    EXPECT_EQ(driver().chanspec_channel(spec), 40);
    EXPECT_STREQ(driver().chanspec_primary(spec), "upper");
    EXPECT_EQ(driver().chanspec_bw(spec), 40);
    EXPECT_EQ(driver().chanspec_band(spec), 5);
}

TEST_F(DriverChannelTest, FortyMhzLowerIn24Ghz) {
    const unsigned spec = 0x1800 | 3;
    EXPECT_EQ(driver().chanspec_channel(spec), 1);
    EXPECT_STREQ(driver().chanspec_primary(spec), "lower");
    EXPECT_EQ(driver().chanspec_band(spec), 2);
}

TEST_F(DriverChannelTest, EightyMhzHighestQuarter) {
    const unsigned spec = 0x2000 | 0x300 | 42;
    EXPECT_EQ(driver().chanspec_channel(spec), 48);
    EXPECT_STREQ(driver().chanspec_primary(spec), "none");
    EXPECT_EQ(driver().chanspec_bw(spec), 80);
    EXPECT_EQ(driver().chanspec_band(spec), 5);
}

TEST_F(DriverChannelTest, EveryQuarterOf80MhzHasItsPrimaryChannel) {
    EXPECT_EQ(driver().chanspec_channel(0x2000 | 42), 36);
    EXPECT_EQ(driver().chanspec_channel(0x2000 | 0x100 | 42), 40);
    EXPECT_EQ(driver().chanspec_channel(0x2000 | 0x200 | 42), 44);
    EXPECT_EQ(driver().chanspec_channel(0x2000 | 0x400 | 42), 42);
    EXPECT_EQ(driver().chanspec_channel(0x1800 | 0x200 | 38), 38);
}

TEST_F(DriverChannelTest, AFortyMhzChanspecIsLowerUnlessItsSubBandIsUpper) {
    for (const unsigned sub_band : {0x000U, 0x200U, 0x300U, 0x500U})
        EXPECT_STREQ(driver().chanspec_primary(0x1800 | sub_band | 38), "lower") << sub_band;
    EXPECT_EQ(driver().chanspec_channel(0x1800 | 0x500 | 38), 38);
    EXPECT_EQ(driver().chanspec_channel(0x2000 | 0x700 | 42), 42);
}

TEST_F(DriverChannelTest, TheBandIsThatOfThePrimaryChannel) {
    EXPECT_EQ(driver().chanspec_band(0x1800 | 31), 2);
    EXPECT_EQ(driver().chanspec_band(0x1800 | 0x100 | 28), 5);
    EXPECT_EQ(driver().chanspec_band(0x2000 | 35), 2);
}

TEST_F(DriverChannelTest, NoBandwidthBitsReadAs20MhzWithAWarning) {
    EXPECT_EQ(driver().chanspec_bw(36), 20);
    EXPECT_TRUE(log.contains("warning: <chanspec_bw:"));
    EXPECT_TRUE(log.contains("> bandwidth is not set in chanspec"));
    EXPECT_EQ(driver().chanspec_channel(36), 36);
    EXPECT_STREQ(driver().chanspec_primary(36), "none");
}

TEST_F(DriverChannelTest, BandsMeetAtChannel30) {
    EXPECT_EQ(driver().channel_band(29), 2);
    EXPECT_EQ(driver().channel_band(30), 5);
    EXPECT_EQ(driver().channel_band(-1), 2);
    EXPECT_EQ(driver().channel_band(233), 5);
}

TEST_F(DriverChannelTest, SubBandsHaveNames) {
    EXPECT_STREQ(driver().primary_channel_to_string(0, 40), "lower");
    EXPECT_STREQ(driver().primary_channel_to_string(0x100, 40), "upper");
    EXPECT_STREQ(driver().primary_channel_to_string(0, 80), "ll");
    EXPECT_STREQ(driver().primary_channel_to_string(0x100, 80), "lu");
    EXPECT_STREQ(driver().primary_channel_to_string(0x200, 80), "ul");
    EXPECT_STREQ(driver().primary_channel_to_string(0x300, 80), "uu");
    EXPECT_STREQ(driver().primary_channel_to_string(0x200, 40), "none");
    EXPECT_STREQ(driver().primary_channel_to_string(0, 20), "none");
    EXPECT_STREQ(driver().primary_channel_to_string(0x100, 160), "none");
}

TEST_F(DriverChannelTest, TheSideOf40MhzIsReadFromItsLetters) {
    EXPECT_EQ(driver().chanspec_primary_40("upper"), PRIMARY_CHANNEL_UPPER);
    EXPECT_EQ(driver().chanspec_primary_40("lu"), PRIMARY_CHANNEL_UPPER);
    EXPECT_EQ(driver().chanspec_primary_40("lower"), PRIMARY_CHANNEL_LOWER);
    EXPECT_EQ(driver().chanspec_primary_40("ll"), PRIMARY_CHANNEL_LOWER);
    EXPECT_EQ(driver().chanspec_primary_40("none"), PRIMARY_CHANNEL_NONE);
    EXPECT_EQ(driver().chanspec_primary_40(""), PRIMARY_CHANNEL_NONE);
    EXPECT_EQ(driver().chanspec_primary_40(nullptr), PRIMARY_CHANNEL_NONE);
}

// ---- the chanspec in use

TEST_F(DriverChannelTest, TheChanspecInUseComesFromTheKernel) {
    driver_realtek& ready = ready_driver();
    kernel.set_mib("wlan0", "chanspec", 0xD92E);
    EXPECT_EQ(ready.get_chanspec("wlan0"), 0xD92EU);
    EXPECT_TRUE(log.contains("debug: <get_chanspec:"));
    EXPECT_TRUE(log.contains("> ifname == wlan0 chanspec == d92e"));
}

TEST_F(DriverChannelTest, AChanspecThatCannotBeReadIsZero) {
    EXPECT_EQ(ready_driver().get_chanspec("wlan0-va5"), 0U);
}

TEST_F(DriverChannelTest, WithoutANameTheChanspecIsZero) {
    EXPECT_EQ(ready_driver().get_chanspec(nullptr), 0U);
    EXPECT_TRUE(log.contains("error: <get_chanspec:"));
    EXPECT_TRUE(log.contains("> interface is not set"));
}

TEST_F(DriverChannelTest, TheChanspecIsZeroUnlessLive) {
    kernel.set_mib("wlan0", "chanspec", 0x1006);
    EXPECT_EQ(driver().get_chanspec("wlan0"), 0U);
    EXPECT_EQ(driver().get_chanspec(nullptr), 0U);
    EXPECT_FALSE(log.contains("interface is not set"));
}

// ---- asking for a channel or power

TEST_F(DriverChannelTest, AChannelWithoutSideSendsThreeParameters) {
    EXPECT_EQ(ready_driver().set_chanspec("wlan1", 44, 40, PRIMARY_CHANNEL_NONE), 0);
    EXPECT_THAT(hubd.requests(),
                ElementsAre(R"({"command":"update-orvanta","ifname":"wlan1","params":)"
                            R"({"auto-channel":"false","channel":"44","bandwidth":"40"}})"));
}

TEST_F(DriverChannelTest, AChannelWithASideNamesItLast) {
    driver_realtek& ready = ready_driver();
    ready.set_chanspec("wlan0", 6, 40, PRIMARY_CHANNEL_UPPER);
    ready.set_chanspec("wlan0", 6, 40, PRIMARY_CHANNEL_LOWER);
    const std::vector<std::string> sent = hubd.requests();
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_NE(sent[0].find(R"("bandwidth":"40","control-sideband":"upper"}})"), std::string::npos);
    EXPECT_NE(sent[1].find(R"("bandwidth":"40","control-sideband":"lower"}})"), std::string::npos);
}

TEST_F(DriverChannelTest, PowerIsOneParameter) {
    EXPECT_EQ(ready_driver().set_tx_power("wlan0", 14), 0);
    EXPECT_THAT(hubd.requests(), ElementsAre(R"({"command":"update-orvanta","ifname":"wlan0",)"
                                             R"("params":{"tx-power":"14"}})"));
}

TEST_F(DriverChannelTest, ARefusalIsTheResult) {
    hubd.set_mood(FakeHubd::REFUSES);
    driver_realtek& ready = ready_driver();
    EXPECT_EQ(ready.set_chanspec("wlan0", 6, 20, PRIMARY_CHANNEL_NONE), -1);
    EXPECT_EQ(ready.set_tx_power("wlan0", 14), -1);
}

TEST_F(DriverChannelTest, WithoutANameNothingIsSent) {
    driver_realtek& ready = ready_driver();
    EXPECT_EQ(ready.set_chanspec(nullptr, 6, 20, PRIMARY_CHANNEL_NONE), -1);
    EXPECT_EQ(ready.set_tx_power(nullptr, 14), -1);
    EXPECT_THAT(hubd.requests(), IsEmpty());
}

TEST_F(DriverChannelTest, NothingIsAskedForUnlessLive) {
    EXPECT_EQ(driver().set_chanspec("wlan0", 6, 20, PRIMARY_CHANNEL_NONE), 0);
    EXPECT_EQ(driver().set_tx_power("wlan0", 14), 0);
    EXPECT_THAT(hubd.requests(), IsEmpty());
}

// ---- channels the radio may use

class AvailableChannelsTest : public DriverTest {
  protected:
    AvailableChannelsTest() {
        for (const char* ifname : {"wlan0", "wlan1"})
            kernel.interface(ifname).channels = {13, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    }

    // What fill_chanspecs() makes of the text "untouched".
    std::string filled(const char* ifname) {
        std::string out = "untouched";
        ready.fill_chanspecs(ifname, out);
        return out;
    }

    driver_realtek& ready = ready_driver();
};

TEST_F(AvailableChannelsTest, AreInAscendingOrderEachWithABlank) {
    EXPECT_EQ(filled("wlan0"), "1 2 3 4 5 6 7 8 9 10 11 12 13 ");
    EXPECT_TRUE(log.contains("debug: <fill_chanspecs:"));
    EXPECT_TRUE(log.contains("> chanspecs == 1 2 3 4 5 6 7 8 9 10 11 12 13 "));
}

TEST_F(AvailableChannelsTest, TheResultTellsWhetherTheTextWasFilled) {
    std::string out;
    EXPECT_EQ(ready.fill_chanspecs("wlan0", out), 0);
    EXPECT_EQ(ready.fill_chanspecs(nullptr, out), -1);
    EXPECT_EQ(ready.fill_chanspecs("wlan5", out), -1);
    kernel.fail_command(FakeKernel::GET_AVAILABLE_CHANNELS, EIO);
    EXPECT_EQ(ready.fill_chanspecs("wlan0", out), -1);
}

TEST_F(AvailableChannelsTest, AnEmptySetIsTheEmptyText) {
    kernel.interface("wlan0").channels.clear();
    EXPECT_EQ(filled("wlan0"), "");
}

TEST_F(AvailableChannelsTest, TheConfiguredLimitReplacesThem) {
    vaultd.set("/interface/wlan0/wlan/radio/use-limit-channels", "true");
    vaultd.set("/interface/wlan0/wlan/radio/limit-channels", "1 6 11");
    EXPECT_EQ(filled("wlan0"), "1 6 11 ");
    vaultd.set("/interface/wlan0/wlan/radio/limit-channels", "14");
    EXPECT_EQ(filled("wlan0"), "14 ");
    vaultd.set("/interface/wlan0/wlan/radio/limit-channels", "  11   1  ");
    EXPECT_EQ(filled("wlan0"), "1 11 ");
}

TEST_F(AvailableChannelsTest, ALimitOfBlanksReplacesThemByNone) {
    vaultd.set("/interface/wlan0/wlan/radio/use-limit-channels", "true");
    vaultd.set("/interface/wlan0/wlan/radio/limit-channels", "  ");
    EXPECT_EQ(filled("wlan0"), "");
}

TEST_F(AvailableChannelsTest, APieceOfALimitThatIsNoNumberIsChannelZero) {
    vaultd.set("/interface/wlan0/wlan/radio/use-limit-channels", "true");
    vaultd.set("/interface/wlan0/wlan/radio/limit-channels", "1 x 6y");
    EXPECT_EQ(filled("wlan0"), "0 1 6 ");
}

TEST_F(AvailableChannelsTest, AnEmptyOrUnusedLimitDoesNot) {
    const std::string all = "1 2 3 4 5 6 7 8 9 10 11 12 13 ";
    vaultd.set("/interface/wlan0/wlan/radio/use-limit-channels", "true");
    EXPECT_EQ(filled("wlan0"), all);
    vaultd.set("/interface/wlan0/wlan/radio/limit-channels", "");
    EXPECT_EQ(filled("wlan0"), all);
    vaultd.set("/interface/wlan0/wlan/radio/limit-channels", "1 6 11");
    vaultd.set("/interface/wlan0/wlan/radio/use-limit-channels", "false");
    EXPECT_EQ(filled("wlan0"), all);
}

TEST_F(AvailableChannelsTest, TheTextStaysUntouchedWithoutAUsableRadio) {
    EXPECT_EQ(filled(nullptr), "untouched");
    EXPECT_EQ(filled("eth0"), "untouched");
    EXPECT_EQ(filled("wlan5"), "untouched");
    set_down("wlan0");
    ready.set_vapcontext();
    EXPECT_EQ(filled("wlan0"), "untouched");
}

TEST_F(AvailableChannelsTest, TheTextStaysUntouchedOnAWdsRadio) {
    vaultd.set("/interface/wlan0/wlan/wds/enabled", "true");
    vaultd.set("/interface/wlan0-wds0/common/enabled", "true");
    ready.set_vapcontext();
    EXPECT_EQ(filled("wlan0"), "untouched");
    EXPECT_NE(filled("wlan1"), "untouched");
}

TEST_F(AvailableChannelsTest, TheTextStaysUntouchedOnAWidsRadio) {
    vaultd.set("/wids/enabled", "true");
    vaultd.set("/wids/scan-mode", "sentry");
    vaultd.set("/wids/scan-interface", "wlan0");
    ready.set_vapcontext();
    EXPECT_EQ(filled("wlan0"), "untouched");
}

TEST_F(AvailableChannelsTest, TheTextStaysUntouchedWhenTheKernelRefuses) {
    kernel.fail_command(FakeKernel::GET_AVAILABLE_CHANNELS, EIO);
    EXPECT_EQ(filled("wlan0"), "untouched");
    EXPECT_THAT(bus.requests(VAULTDMOD), IsEmpty());
}

}  // namespace
