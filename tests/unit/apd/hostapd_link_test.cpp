#include "hostapd_link.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "fake_hostapd.h"
#include "temporary_folder.h"

namespace apd {
namespace {

class ApdHostapdLink : public testing::Test {
  protected:
    TemporaryFolder folder;
    std::string path = folder / "global";
};

// The kernel may look for a cipher's modules then, and hostapd answers nobody.
TEST_F(ApdHostapdLink, HasATimeOfItsOwnForWhatSetsUpAnAccessPoint) {
    const FakeHostapd hostapd{path, [](const std::string& command) -> std::optional<std::string> {
                                  if (!command.ends_with("STATUS"))
                                      return std::nullopt;
                                  std::this_thread::sleep_for(3 * kShort);
                                  return "OK\n";
                              }};
    for (const char* command :
         {"ADD bss_config=phy0:/run/apd/wlan0-va0.conf", "IFNAME=wlan0-va0 RELOAD"}) {
        HostapdLink link{path, {kPatience, kShort}};
        ASSERT_TRUE(link.connect());
        EXPECT_TRUE(link.tell("wlan0-va0", "STATUS"));
        EXPECT_FALSE(link.tell(command));
        EXPECT_FALSE(link.is_connected());
    }
}

TEST_F(ApdHostapdLink, TellsAHostapdThatIsSilentFromOneThatHasGone) {
    auto hostapd =
        std::make_unique<FakeHostapd>(path, [](const std::string&) { return std::nullopt; });
    HostapdLink link{path, {kPatience, kShort}};
    ASSERT_TRUE(link.connect());
    EXPECT_FALSE(link.is_silent()) << "it may answer yet";
    EXPECT_FALSE(link.tell("ADD bss_config=phy0:/run/apd/wlan0-va0.conf"));
    EXPECT_TRUE(link.is_silent());
    hostapd.reset();
    EXPECT_FALSE(link.is_silent());
}

// Answers PING and ATTACH, and ends at anything else. The socket stays, as that of a hostapd that
// was killed.
[[noreturn]] void play_hostapd(const std::string& path) {
    sockaddr_un own{};
    own.sun_family = AF_UNIX;
    path.copy(own.sun_path, sizeof own.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0)
        _exit(1);
    for (;;) {
        std::array<char, 64> text{};
        sockaddr_un other{};
        socklen_t size = sizeof other;
        if (recvfrom(fd, text.data(), text.size() - 1, 0, reinterpret_cast<sockaddr*>(&other),
                     &size) < 0)
            _exit(1);
        const std::string_view command{text.data()};
        if (command != "PING" && command != "ATTACH")
            _exit(0);
        const std::string_view answer = command == "PING" ? "PONG\n" : "OK\n";
        sendto(fd, answer.data(), answer.size(), 0, reinterpret_cast<const sockaddr*>(&other),
               size);
    }
}

// A process of its own, which is reaped as soon as it has ended.
class HostapdProcess {
  public:
    explicit HostapdProcess(const std::string& path) : pid_(fork()) {
        if (pid_ == 0)
            play_hostapd(path);
        reaper_ = std::thread{[this] { waitpid(pid_, nullptr, 0); }};
    }
    ~HostapdProcess() { reaper_.join(); }
    HostapdProcess(const HostapdProcess&) = delete;
    HostapdProcess& operator=(const HostapdProcess&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }

  private:
    pid_t pid_;
    std::thread reaper_;
};

TEST_F(ApdHostapdLink, DoesNotAwaitTheAnswerOfAHostapdThatHasEnded) {
    const HostapdProcess hostapd{path};
    HostapdLink link{path, {std::chrono::minutes{1}, std::chrono::minutes{1}}};
    while (!link.connect())
        std::this_thread::yield();
    EXPECT_EQ(link.pid(), hostapd.pid());
    EXPECT_FALSE(link.tell("wlan0-va0", "STATUS"));
    unlink(path.c_str());
    const FakeHostapd next{path};
    EXPECT_FALSE(link.is_silent()) << "the one that is there now is another";
    EXPECT_TRUE(link.connect());
}

}  // namespace
}  // namespace apd
