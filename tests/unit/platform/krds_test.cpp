#include "krds.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "datafile_support.h"

namespace {

using KRDS::AntennaGainType;
using KRDS::Band;
using KRDS::Driver;
using testing::ElementsAre;
using testing::IsEmpty;

class Krds : public DataFileTest {
  protected:
    Krds() { KRDS::reload(); }
    ~Krds() override { KRDS::reload(); }

    void registry(const std::string& text) {
        folder.write("radios.json", text);
        KRDS::reload();
    }
    static std::vector<std::string> names() {
        std::vector<std::string> result;
        KRDS::for_each_radio([&](const std::string& ifname, const KRDS::RadioDescription&) {
            result.push_back(ifname);
            return false;
        });
        return result;
    }
};

constexpr const char* kTwoRadios =
    R"({"radios":[{"ifname":"wlan1","driver":"g6","bands":["5GHz","6GHz"],)"
    R"("antenna-gain":{"type":"fixed","value":3}},)"
    R"({"ifname":"wlan0","driver":"rtl8192cd","bands":["2.4GHz"],)"
    R"("antenna-gain":{"type":"configurable"}}]})";

TEST_F(Krds, WalksTheRadiosInTheOrderOfTheFile) {
    registry(kTwoRadios);
    EXPECT_THAT(names(), ElementsAre("wlan1", "wlan0"));
    expect_silence();
}

TEST_F(Krds, TheWalkEndsWhenTheCallbackSaysSo) {
    registry(kTwoRadios);
    int calls = 0;
    KRDS::for_each_radio([&](const std::string&, const KRDS::RadioDescription&) {
        calls++;
        return true;
    });
    EXPECT_EQ(calls, 1);
}

TEST_F(Krds, DescribesARadioByItsName) {
    registry(kTwoRadios);
    const auto fixed = KRDS::find_radio("wlan1");
    ASSERT_TRUE(fixed);
    EXPECT_EQ(fixed->driver, Driver::G6);
    EXPECT_THAT(fixed->bands, ElementsAre(Band::BAND_5G, Band::BAND_6G));
    EXPECT_EQ(fixed->band(), Band::BAND_5G);
    EXPECT_EQ(fixed->antenna_gain_type, AntennaGainType::FIXED);
    EXPECT_EQ(fixed->fixed_antenna_gain, 3);
    const auto configurable = KRDS::find_radio("wlan0");
    ASSERT_TRUE(configurable);
    EXPECT_EQ(configurable->driver, Driver::RTL8192CD);
    EXPECT_EQ(configurable->band(), Band::BAND_24G);
    EXPECT_EQ(configurable->antenna_gain_type, AntennaGainType::CONFIGURABLE);
    EXPECT_EQ(configurable->fixed_antenna_gain, 0);
}

TEST_F(Krds, KnowsNoOtherName) {
    registry(kTwoRadios);
    EXPECT_FALSE(KRDS::find_radio("wlan2"));
    EXPECT_FALSE(KRDS::find_radio(""));
    expect_silence();
}

TEST_F(Krds, ReadsTheFileOnceUntilReload) {
    registry(kTwoRadios);
    EXPECT_EQ(names().size(), 2u);
    folder.write("radios.json", R"({"radios":[]})");
    EXPECT_EQ(names().size(), 2u);
    KRDS::reload();
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(Krds, ACallbackMayAskAgainAndReload) {
    registry(kTwoRadios);
    int found = 0;
    KRDS::for_each_radio([&](const std::string& ifname, const KRDS::RadioDescription&) {
        KRDS::reload();
        found += KRDS::find_radio(ifname) ? 1 : 0;
        return false;
    });
    EXPECT_EQ(found, 2);
}

TEST_F(Krds, ARadioMayLackBandsAndAntennaGain) {
    registry(R"({"radios":[{"ifname":"wlan0","driver":"g6"}]})");
    const auto radio = KRDS::find_radio("wlan0");
    ASSERT_TRUE(radio);
    EXPECT_EQ(radio->band(), Band::UNSUPPORTED);
    EXPECT_EQ(radio->antenna_gain_type, AntennaGainType::NONE);
    expect_silence();
}

TEST_F(Krds, TheBandIsTheFirstSupportedOne) {
    KRDS::RadioDescription description;
    EXPECT_EQ(description.band(), Band::UNSUPPORTED);
    description.bands = {Band::UNSUPPORTED, Band::BAND_6G, Band::BAND_5G};
    EXPECT_EQ(description.band(), Band::BAND_6G);
}

TEST_F(Krds, SkipsAnUnknownBandWithAnError) {
    registry(R"({"radios":[{"ifname":"wlan0","driver":"g6","bands":["60GHz","6GHz"]}]})");
    EXPECT_THAT(KRDS::find_radio("wlan0")->bands, ElementsAre(Band::BAND_6G));
    expect_one_error("wlan0 has no known band (60GHz)");
    registry(R"({"radios":[{"ifname":"wlan0","driver":"g6","bands":[5,"6GHz"]}]})");
    EXPECT_THAT(KRDS::find_radio("wlan0")->bands, ElementsAre(Band::BAND_6G));
    expect_one_error("wlan0 has no known band");
}

TEST_F(Krds, SkipsARadioWithoutNameOrKnownDriverWithAnError) {
    for (const char* entry :
         {R"({"driver":"g6"})", R"({"ifname":"","driver":"g6"})", R"({"ifname":"wlan9"})",
          R"({"ifname":"wlan9","driver":"other"})", R"("wlan9")", "null"}) {
        registry(R"({"radios":[)" + std::string{entry} + R"(,{"ifname":"wlan0","driver":"g6"}]})");
        EXPECT_THAT(names(), ElementsAre("wlan0")) << entry;
        expect_one_error("radios.json: ");
    }
}

TEST_F(Krds, SkipsASecondEntryOfTheSameNameWithAnError) {
    registry(R"({"radios":[{"ifname":"wlan0","driver":"g6"},)"
             R"({"ifname":"wlan0","driver":"rtl8192cd"}]})");
    EXPECT_THAT(names(), ElementsAre("wlan0"));
    EXPECT_EQ(KRDS::find_radio("wlan0")->driver, Driver::G6);
    expect_one_error("second entry of wlan0");
}

TEST_F(Krds, AMalformedAntennaGainIsOneErrorAndNone) {
    for (const char* gain : {R"({"type":"huge"})", R"({})", "7"}) {
        registry(R"({"radios":[{"ifname":"wlan0","driver":"g6","antenna-gain":)" +
                 std::string{gain} + "}]}");
        EXPECT_EQ(KRDS::find_radio("wlan0")->antenna_gain_type, AntennaGainType::NONE) << gain;
        expect_one_error("wlan0 has no known antenna gain");
    }
    registry(R"({"radios":[{"ifname":"wlan0","driver":"g6",)"
             R"("antenna-gain":{"type":"fixed","value":"x"}}]})");
    EXPECT_EQ(KRDS::find_radio("wlan0")->fixed_antenna_gain, 0);
    expect_one_error("antenna gain of wlan0 is no integer");
}

TEST_F(Krds, AMissingFileIsOneErrorAndAnEmptyRegistry) {
    EXPECT_THAT(names(), IsEmpty());
    EXPECT_FALSE(KRDS::find_radio("wlan0"));
    expect_one_error("radios.json: No such file or directory");
}

TEST_F(Krds, AMalformedFileIsOneErrorAndAnEmptyRegistry) {
    for (const char* text : kMalformedFiles) {
        registry(text);
        EXPECT_THAT(names(), IsEmpty()) << text;
        expect_one_error("no JSON object");
    }
    registry(R"({"radios":{}})");
    EXPECT_THAT(names(), IsEmpty());
    expect_one_error("no list of radios");
}

TEST_F(Krds, AnswersSeveralThreads) {
    registry(kTwoRadios);
    std::atomic<int> found{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([&] {
            for (int round = 0; round < 50; round++) {
                found += KRDS::find_radio("wlan0") ? 1 : 0;
                KRDS::reload();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(found, 200);
}

}  // namespace
