// The kernel boundary that all tests of the radio layer and the lab stand on.
#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/wireless.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "fake_kernel.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class InterposerTest : public ::testing::Test {
  protected:
    InterposerTest() : fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
    ~InterposerTest() override { close(fd); }

    static iwreq request(const char* ifname, void* data, std::uint16_t length) {
        iwreq wrq{};
        std::strncpy(wrq.ifr_ifrn.ifrn_name, ifname, sizeof wrq.ifr_ifrn.ifrn_name - 1);
        wrq.u.data.pointer = data;
        wrq.u.data.length = length;
        return wrq;
    }

    FakeKernel kernel;
    int fd;
};

TEST_F(InterposerTest, LeadsVirtualPathsBelowTheRoot) {
    for (const char* path :
         {"/proc/wlan0/entry", "/proc/net/rtk_wifi6/wlan1/entry", "/sys/class/net/wlan0/flags",
          "/tmp/.orvanta_notify", "/tmp/.orvanta-connected", "/var/run/hostapd.pid",
          "/var/run/guardd.pid"}) {
        EXPECT_NE(access(path, F_OK), 0) << path;
        kernel.put_file(path, "text");
        EXPECT_EQ(access(path, F_OK), 0) << path;
        EXPECT_TRUE(std::filesystem::exists(path)) << path;
        std::string line;
        std::getline(std::ifstream{path} >> std::ws, line);
        EXPECT_EQ(line, "text") << path;
        EXPECT_EQ(unlink(path), 0) << path;
        EXPECT_FALSE(std::filesystem::exists(kernel.root() + path)) << path;
    }
}

TEST_F(InterposerTest, EveryCallFindsWhatIsThere) {
    kernel.put_file("/proc/wlan0/entry", "text");
    const char* const path = "/proc/wlan0/entry";
    struct stat status {};
    EXPECT_EQ(stat(path, &status), 0);
    EXPECT_EQ(status.st_size, 4);
    EXPECT_EQ(lstat(path, &status), 0);
    EXPECT_EQ(fstatat(AT_FDCWD, path, &status, 0), 0);
    struct statx extended {};
    EXPECT_EQ(statx(AT_FDCWD, path, 0, STATX_SIZE, &extended), 0);
    EXPECT_EQ(extended.stx_size, 4U);
    EXPECT_EQ(faccessat(AT_FDCWD, path, R_OK, 0), 0);
    for (const int file : {open(path, O_RDONLY), open64(path, O_RDONLY),
                           openat(AT_FDCWD, path, O_RDONLY), openat64(AT_FDCWD, path, O_RDONLY)}) {
        EXPECT_GE(file, 0);
        close(file);
    }
    DIR* const folder = opendir("/proc/wlan0");
    ASSERT_NE(folder, nullptr);
    closedir(folder);
    EXPECT_EQ(rename(path, "/proc/wlan0/other"), 0);
    EXPECT_EQ(unlinkat(AT_FDCWD, "/proc/wlan0/other", 0), 0);
    EXPECT_EQ(stat("/proc/wlan0/other", &status), -1);
}

TEST_F(InterposerTest, AMissingFileIsAbsentToEveryCall) {
    const char* const path = "/proc/wlan0/none";
    struct stat status {};
    struct statx extended {};
    const auto absent = [](auto result) {
        const int error = errno;
        errno = 0;
        return !(result >= 0) && error == ENOENT;
    };
    EXPECT_TRUE(absent(open(path, O_RDONLY)));
    EXPECT_TRUE(absent(stat(path, &status)));
    EXPECT_TRUE(absent(lstat(path, &status)));
    EXPECT_TRUE(absent(statx(AT_FDCWD, path, 0, STATX_SIZE, &extended)));
    EXPECT_TRUE(absent(access(path, F_OK)));
    EXPECT_TRUE(absent(unlink(path)));
    EXPECT_TRUE(absent(std::remove(path)));
    EXPECT_TRUE(absent(rename(path, "/proc/wlan0/other")));
    EXPECT_EQ(std::fopen(path, "w+"), nullptr);  // its folder is missing
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(opendir(path), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(InterposerTest, LeavesOtherPathsAlone) {
    const std::string path = kernel.root() + "/plain";
    std::ofstream{path} << "x";
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_TRUE(std::filesystem::exists("/proc/self/status"));
    EXPECT_THAT(kernel.writes(), IsEmpty());
}

TEST_F(InterposerTest, WithoutARootNoPathIsMoved) {
    kernel.put_file("/var/run/hostapd.pid", "1");
    lab::set_root("");
    EXPECT_NE(access("/var/run/hostapd.pid", F_OK), 0);
    lab::set_root(kernel.root());
    EXPECT_EQ(access("/var/run/hostapd.pid", F_OK), 0);
}

TEST_F(InterposerTest, ReportsWhatIsWrittenToProc) {
    kernel.add_interface("wlan0");
    FILE* const file = std::fopen("/proc/wlan0/list", "w+");
    std::fputs("delall", file);
    EXPECT_THAT(kernel.writes(), IsEmpty());
    std::fclose(file);
    std::ofstream{"/proc/net/rtk_wifi6/wlan0/list"} << "add";
    EXPECT_THAT(kernel.writes(),
                ElementsAre(FakeKernel::Written{"/proc/wlan0/list", "delall"},
                            FakeKernel::Written{"/proc/net/rtk_wifi6/wlan0/list", "add"}));
}

TEST_F(InterposerTest, ReportsNeitherReadingNorOtherFolders) {
    kernel.add_interface("wlan0");
    kernel.put_file("/proc/wlan0/list", "x");
    std::fclose(std::fopen("/proc/wlan0/list", "r"));
    std::ofstream{"/sys/class/net/wlan0/flags"} << "0x1003";
    std::ofstream{"/tmp/.orvanta_notify"} << "";
    EXPECT_THAT(kernel.writes(), IsEmpty());
}

TEST_F(InterposerTest, GivesTheRadioRequestsToTheKernel) {
    kernel.add_interface("wlan0");
    for (const unsigned long number :
         {0x8B18UL, 0x8BA6UL, 0x8BBFUL, 0x89F1UL, 0x89F4UL, 0x89F6UL}) {
        kernel.forget();
        std::string data = "name=1";
        data.resize(FakeKernel::buffer_size);
        iwreq wrq = request("wlan0", data.data(), 6);
        ioctl(fd, number, &wrq);
        ASSERT_EQ(kernel.calls().size(), 1U);
        EXPECT_EQ(kernel.calls()[0].request, number);
        EXPECT_EQ(kernel.calls()[0].ifname, "wlan0");
    }
}

TEST_F(InterposerTest, HandsTheLengthBack) {
    kernel.add_interface("wlan0");
    kernel.set_mib("wlan0", "chanspec", 0x1006);
    char data[16] = "chanspec";
    iwreq wrq = request("wlan0", data, 9);
    EXPECT_EQ(ioctl(fd, 0x89F2, &wrq), 0);
    EXPECT_EQ(wrq.u.data.length, 4);
    std::int32_t value = 0;
    std::memcpy(&value, data, sizeof value);
    EXPECT_EQ(value, 0x1006);
}

TEST_F(InterposerTest, TurnsANegativeAnswerIntoErrno) {
    kernel.add_interface("wlan0");
    kernel.fail(FakeKernel::SCAN_TRIGGER, EBUSY);
    iwreq wrq = request("wlan0", nullptr, 0);
    EXPECT_EQ(ioctl(fd, 0x8B18, &wrq), -1);
    EXPECT_EQ(errno, EBUSY);
}

TEST_F(InterposerTest, WithoutAKernelThereIsNoDevice) {
    lab::install(nullptr);
    iwreq wrq = request("wlan0", nullptr, 0);
    EXPECT_EQ(ioctl(fd, 0x8B18, &wrq), -1);
    EXPECT_EQ(errno, ENODEV);
    lab::install(&kernel);
}

TEST_F(InterposerTest, RefusesABadDescriptor) {
    iwreq wrq = request("wlan0", nullptr, 0);
    EXPECT_EQ(ioctl(-1, 0x8B18, &wrq), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_THAT(kernel.calls(), IsEmpty());
}

TEST_F(InterposerTest, GivesOtherRequestsToTheRealKernel) {
    constexpr unsigned long get_interface_flags = 0x8913;
    iwreq wrq = request("no-such-if", nullptr, 0);
    EXPECT_EQ(ioctl(fd, get_interface_flags, &wrq), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_THAT(kernel.calls(), IsEmpty());
}

TEST_F(InterposerTest, KeepsSystemLogLines) {
    syslog(LOG_INFO, "scan %d\n", 7);
    syslog(LOG_ERR, "%s", "second");
    EXPECT_EQ(kernel.file("/syslog"), "6 scan 7\n3 second\n");
}

}  // namespace
