#include "antcfg.h"

#include <cstring>
#include <filesystem>
#include <string>

#include "datafile_support.h"
#include "owned.h"

namespace {

class Antcfg : public DataFileTest {
  protected:
    Antcfg() { folder.write("antennas.json", kAntennas); }

    // Asks with a record as the driver fills it: named "custom", figures not yet meaningful.
    int get(const char* tree_text, const char* name = "custom") {
        const cfgtree_ptr tree{cfgtree_parse(tree_text)};
        record = {};
        std::strncpy(record.name, name, sizeof record.name);
        record.antenna_gain = record.cable_loss = 999;
        return antcfg_get("wlan0", tree.get(), &record);
    }
    void expect_figures(int gain, int loss) const {
        EXPECT_EQ(record.antenna_gain, gain);
        EXPECT_EQ(record.cable_loss, loss);
    }

    static constexpr const char* kAntennas =
        R"({"antennas":[17,{"name":"omni","antenna-gain":25,"cable-loss":-15},)"
        R"({"name":"bare"},{"name":"odd","antenna-gain":30,"cable-loss":"much"}]})";
    antcfg_record record{};
};

TEST_F(Antcfg, CustomTakesTheTreesOwnFigures) {
    EXPECT_EQ(get(R"({"name":"custom","antenna-gain":70,"cable-loss":-5})"), 0);
    expect_figures(70, -5);
    EXPECT_STREQ(record.name, "custom");
    expect_silence();
}

TEST_F(Antcfg, FiguresMayBeTexts) {
    EXPECT_EQ(get(R"({"name":"custom","antenna-gain":"70","cable-loss":"-5"})"), 0);
    expect_figures(70, -5);
}

TEST_F(Antcfg, AFigureThatIsNotGivenIsZero) {
    EXPECT_EQ(get(R"({"name":"custom","cable-loss":-5})"), 0);
    expect_figures(0, -5);
    EXPECT_EQ(get(R"({"name":"bare"})"), 0);
    expect_figures(0, 0);
}

TEST_F(Antcfg, WithoutANameInTheTreeTheRecordsOwnCounts) {
    EXPECT_EQ(get(R"({"antenna-gain":11,"cable-loss":12})"), 0);
    expect_figures(11, 12);
    EXPECT_EQ(get("{}", "omni"), 0);
    expect_figures(25, -15);
    EXPECT_EQ(get(nullptr, "omni"), 0);
    expect_figures(25, -15);
    EXPECT_EQ(get(nullptr), 0);
    expect_figures(0, 0);
}

TEST_F(Antcfg, AnotherNameIsLookedUpAndReported) {
    EXPECT_EQ(get(R"({"name":"omni","antenna-gain":1,"cable-loss":1})"), 0);
    expect_figures(25, -15);
    EXPECT_STREQ(record.name, "omni");
}

TEST_F(Antcfg, AnUnknownNameIsOneErrorAndZero) {
    EXPECT_EQ(get(R"({"name":"missing","antenna-gain":1})"), -1);
    expect_figures(0, 0);
    expect_one_error("wlan0: antenna 'missing' is not known");
}

TEST_F(Antcfg, AFigureThatIsNoIntegerIsOneErrorAndZero) {
    EXPECT_EQ(get(R"({"name":"odd"})"), -1);
    expect_figures(0, 0);
    expect_one_error("antenna 'odd' is malformed");
    for (const char* figure : {"\"x\"", "1.5", "{}", "null", "true", "\"\"", "\"3 dB\"",
                               "99999999999", "99999999999999999999"}) {
        EXPECT_EQ(get((R"({"antenna-gain":7,"cable-loss":)" + std::string{figure} + "}").c_str()),
                  -1)
            << figure;
        expect_figures(0, 0);
        expect_one_error("wlan0: custom antenna figures are malformed");
    }
}

TEST_F(Antcfg, ALongNameIsCutInTheRecordOnly) {
    const std::string name(100, 'n');
    folder.write("antennas.json", R"({"antennas":[{"name":")" + name + R"(","antenna-gain":5}]})");
    EXPECT_EQ(get((R"({"name":")" + name + "\"}").c_str()), 0);
    expect_figures(5, 0);
    EXPECT_EQ(record.name, name.substr(0, ANTCFG_NAME_BYTES - 1));
}

TEST_F(Antcfg, CustomNeedsNoFile) {
    std::filesystem::remove(folder / "antennas.json");
    EXPECT_EQ(get(R"({"name":"custom","antenna-gain":7})"), 0);
    expect_silence();
    EXPECT_EQ(get(R"({"name":"omni"})"), -1);
    expect_figures(0, 0);
    expect_one_error("antennas.json: No such file or directory");
}

TEST_F(Antcfg, AMalformedFileIsOneErrorAndZero) {
    for (const char* text : kMalformedFiles) {
        folder.write("antennas.json", text);
        EXPECT_EQ(get(R"({"name":"omni"})"), -1) << text;
        expect_figures(0, 0);
        expect_one_error("no JSON object");
    }
}

TEST_F(Antcfg, AFileWithoutAListKnowsNoName) {
    folder.write("antennas.json", R"({"antennas":{"name":"omni"}})");
    EXPECT_EQ(get(R"({"name":"omni"})"), -1);
    expect_one_error("not known");
}

}  // namespace
