#include "connected_flag.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "log_capture.h"
#include "temporary_folder.h"

// The test's own place for the flag file; empty: where it belongs.
static std::string redirection;

static const char* redirected(const char* path) {
    const bool is_flag = std::strcmp(path, orvanta_connected_file) == 0;
    return is_flag && !redirection.empty() ? redirection.c_str() : path;
}

extern "C" FILE* fopen(const char* path, const char* mode) {
    using function = FILE* (*)(const char*, const char*);
    static const auto real = reinterpret_cast<function>(dlsym(RTLD_NEXT, "fopen"));
    return real(redirected(path), mode);
}

extern "C" int unlink(const char* path) noexcept {
    using function = int (*)(const char*);
    static const auto real = reinterpret_cast<function>(dlsym(RTLD_NEXT, "unlink"));
    return real(redirected(path));
}

namespace {

class ConnectedFlag : public testing::Test {
  protected:
    ConnectedFlag() { redirection = folder / "flag"; }
    ~ConnectedFlag() override { redirection.clear(); }

    const TemporaryFolder folder;
};

TEST_F(ConnectedFlag, StandsWhereTheAccessPointLooksForIt) {
    EXPECT_STREQ(orvanta_connected_file, "/tmp/.orvanta-connected");
}

TEST_F(ConnectedFlag, SettingCreatesAnEmptyFile) {
    set_orvanta_connected_mode();
    ASSERT_TRUE(std::filesystem::exists(redirection));
    EXPECT_EQ(std::filesystem::file_size(redirection), 0u);
}

TEST_F(ConnectedFlag, SettingTwiceEmptiesIt) {
    std::ofstream{redirection} << "old";
    set_orvanta_connected_mode();
    EXPECT_EQ(std::filesystem::file_size(redirection), 0u);
}

TEST_F(ConnectedFlag, UnsettingRemovesIt) {
    set_orvanta_connected_mode();
    unset_orvanta_connected_mode();
    EXPECT_FALSE(std::filesystem::exists(redirection));
}

TEST_F(ConnectedFlag, UnsettingAnAbsentFileIsNoError) {
    const LogCapture log;
    unset_orvanta_connected_mode();
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ConnectedFlag, AFileThatCannotBeCreatedIsLogged) {
    const LogCapture log;
    redirection = folder / "missing/flag";
    set_orvanta_connected_mode();
    EXPECT_TRUE(log.contains("error: Cannot create /tmp/.orvanta-connected: "));
}

}  // namespace
