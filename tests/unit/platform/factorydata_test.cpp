#include "factorydata.h"

#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "datafile.h"
#include "datafile_support.h"

namespace {

class Factorydata : public DataFileTest {
  protected:
    int load() {
        // Rubbish that a failure has to clear.
        std::memset(&record, 'x', sizeof record);
        return factorydata_load(&record);
    }
    void expect_empty() const {
        EXPECT_STREQ(record.board, "");
        EXPECT_STREQ(record.hw, "");
        EXPECT_STREQ(record.serial, "");
        EXPECT_STREQ(record.mac, "");
    }

    factorydata_record record;
};

TEST_F(Factorydata, ReadsTheFourTexts) {
    folder.write("factory.json", R"({"board":"ap-42","hw":"1.3","serial":"S0001",)"
                                 R"("mac":"00:11:22:33:44:50"})");
    EXPECT_EQ(load(), 0);
    EXPECT_STREQ(record.board, "ap-42");
    EXPECT_STREQ(record.hw, "1.3");
    EXPECT_STREQ(record.serial, "S0001");
    EXPECT_STREQ(record.mac, "00:11:22:33:44:50");
    expect_silence();
}

TEST_F(Factorydata, AMissingMemberIsEmpty) {
    folder.write("factory.json", R"({"board":"ap-42","hw":null,"serial":["x"]})");
    EXPECT_EQ(load(), 0);
    EXPECT_STREQ(record.board, "ap-42");
    EXPECT_STREQ(record.hw, "");
    EXPECT_STREQ(record.serial, "");
    EXPECT_STREQ(record.mac, "");
}

TEST_F(Factorydata, ALongTextIsCut) {
    folder.write("factory.json", R"({"serial":")" + std::string(200, '7') + "\"}");
    EXPECT_EQ(load(), 0);
    EXPECT_EQ(record.serial, std::string(FACTORYDATA_TEXT_BYTES - 1, '7'));
}

TEST_F(Factorydata, AMissingFileIsOneErrorAndAnEmptyRecord) {
    EXPECT_EQ(load(), -1);
    expect_empty();
    expect_one_error((folder / "factory.json") + ": No such file or directory");
}

TEST_F(Factorydata, AMalformedFileIsOneErrorAndAnEmptyRecord) {
    for (const char* text : kMalformedFiles) {
        folder.write("factory.json", text);
        EXPECT_EQ(load(), -1) << text;
        expect_empty();
        expect_one_error("no JSON object");
    }
}

TEST_F(Factorydata, AFileWithoutEndIsRefused) {
    folder.write("factory.json", "{}" + std::string(DATAFILE_MAX_BYTES - 1, ' '));
    EXPECT_EQ(load(), -1);
    expect_one_error("too long");
    folder.write("factory.json", "{}" + std::string(DATAFILE_MAX_BYTES - 2, ' '));
    EXPECT_EQ(load(), 0);
}

TEST_F(Factorydata, ADirectoryOrANamedPipeInItsPlaceIsOneError) {
    std::filesystem::create_directory(folder / "factory.json");
    EXPECT_EQ(load(), -1);
    expect_one_error("Is a directory");
    std::filesystem::remove(folder / "factory.json");
    ASSERT_EQ(mkfifo((folder / "factory.json").c_str(), 0600), 0);
    EXPECT_EQ(load(), -1);
    expect_one_error("no JSON object");
}

TEST_F(Factorydata, AnEmptyDirectorySettingMeansTheDefault) {
    setenv("LUMD_PLATFORM_DIR", "", 1);
    if (std::filesystem::exists("/etc/lumd/factory.json"))
        GTEST_SKIP() << "this machine has one";
    EXPECT_EQ(load(), -1);
    expect_one_error("/etc/lumd/factory.json");
}

}  // namespace
