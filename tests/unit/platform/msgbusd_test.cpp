#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bus_test_support.h"
#include "msgbus_fixture.h"
#include "program.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class Msgbusd : public testing::Test {
  protected:
    // Joins as soon as the daemon listens.
    [[nodiscard]] RawPeer join(int module) const {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds{kPatienceMs};
        for (;;) {
            try {
                RawPeer peer{path};
                EXPECT_TRUE(peer.attach(module));
                return peer;
            } catch (const std::runtime_error&) {
                if (std::chrono::steady_clock::now() > deadline)
                    throw;
            }
            std::this_thread::yield();
        }
    }

    [[nodiscard]] unsigned mode_of_socket() const {
        struct stat status {};
        EXPECT_EQ(stat(path.c_str(), &status), 0);
        return status.st_mode & 07777u;
    }

    TemporaryFolder folder;
    const std::string path = folder / "bus";
};

// A test that tries until the daemon listens must not run out of descriptors meanwhile.
TEST_F(Msgbusd, IsTriedManyTimesBeforeItListensWithoutKeepingADescriptor) {
    const auto open_descriptors = [] {
        return std::distance(std::filesystem::directory_iterator{"/proc/self/fd"},
                             std::filesystem::directory_iterator{});
    };
    const auto before = open_descriptors();
    for (int attempt = 0; attempt < 10; attempt++)
        EXPECT_THROW(RawPeer{path}, std::runtime_error);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Msgbusd, ServesUntilASignalAndRemovesItsSocket) {
    for (const int signal : {SIGTERM, SIGINT}) {
        Program daemon{{MSGBUSD, "-s", path}};
        RawPeer peer = join(1);
        ASSERT_TRUE(peer.send(1, 1, "echo"));
        EXPECT_EQ(peer.read()->payload, "echo");
        daemon.kill(signal);
        EXPECT_TRUE(peer.ended());
        EXPECT_EQ(daemon.rest(), "");
        EXPECT_EQ(daemon.exit_status(), 0);
        EXPECT_FALSE(std::filesystem::exists(path));
    }
}

TEST_F(Msgbusd, TakesItsSocketFromTheEnvironment) {
    const ScopedEnvironment environment{"MSGBUS_SOCKET", path};
    Program daemon{{MSGBUSD}};
    const RawPeer peer = join(1);
    daemon.kill(SIGTERM);
    EXPECT_EQ(daemon.exit_status(), 0);
}

TEST_F(Msgbusd, StartsAgainAfterItWasKilled) {
    {
        Program daemon{{MSGBUSD, "-s", path}};
        const RawPeer peer = join(1);
        daemon.kill(SIGKILL);
        EXPECT_EQ(daemon.exit_status(), 128 + SIGKILL);
    }
    EXPECT_TRUE(std::filesystem::exists(path));
    Program daemon{{MSGBUSD, "-s", path}};
    const RawPeer peer = join(1);
}

TEST_F(Msgbusd, SaysInOneLineWhyItCannotServe) {
    Program daemon{{MSGBUSD, "-s", folder / "missing/bus"}};
    EXPECT_THAT(daemon.line(), StartsWith("msgbusd: cannot listen on " + folder.path()));
    EXPECT_EQ(daemon.rest(), "");
    EXPECT_EQ(daemon.exit_status(), 1);
}

// Joins and sends as the policy file below allows.
TEST_F(Msgbusd, FollowsThePolicyInItsFile) {
    const std::string me = std::to_string(getuid());
    folder.write("conf", "mode=0600\nallow=" + me + " as 5 to 6\nallow=" + me + " as 6 to 5\n");
    Program daemon{{MSGBUSD, "-s", path, "-c", folder / "conf"}};
    RawPeer five = join(5);
    RawPeer six = join(6);
    ASSERT_TRUE(five.send(6, 1, "allowed"));
    EXPECT_EQ(six.read()->payload, "allowed");
    ASSERT_TRUE(five.send(5, 2, "not allowed"));
    EXPECT_EQ(five.read()->header.type, MSGBUS_UNDELIVERABLE);
    EXPECT_FALSE(RawPeer{path}.attach(7));
    EXPECT_EQ(mode_of_socket(), 0600u);
}

TEST_F(Msgbusd, IsRootsAndItsOwnUsersWithoutAFile) {
    Program daemon{{MSGBUSD, "-s", path}};
    const RawPeer peer = join(5);
    EXPECT_EQ(mode_of_socket(), 0660u);
}

TEST_F(Msgbusd, ServesWithoutTheGroupThatItsFileNames) {
    folder.write("conf", "group=no-such-group\nallow=any as any to any\n");
    Program daemon{{MSGBUSD, "-s", path, "-c", folder / "conf"}};
    const RawPeer peer = join(5);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_gid, getegid());
    EXPECT_EQ(mode_of_socket(), 0660u);
}

TEST_F(Msgbusd, HoldsItsClientsToTheLimitsInItsFile) {
    folder.write("conf", "waiting=100000\nallow=any as any to any\n");
    Program daemon{{MSGBUSD, "-s", path, "-c", folder / "conf"}};
    RawPeer sender = join(5);
    const RawPeer receiver = join(6);
    ASSERT_TRUE(sender.send(6, 1, std::string(1000000, 'x')));
    ASSERT_TRUE(sender.send(6, 2, "x"));
    const std::optional<Frame> notice = sender.read();
    ASSERT_TRUE(notice);
    EXPECT_EQ(notice->header.type, MSGBUS_UNDELIVERABLE);
    EXPECT_EQ(notice->header.seq, 2u);
}

TEST_F(Msgbusd, KilledWhileItsClientsSendHasDeliveredNothingTwice) {
    const ScopedEnvironment environment{"MSGBUS_SOCKET", path};
    constexpr unsigned kMessages = 2000;
    msgbus_ptr sender;
    msgbus_ptr receiver;
    unsigned sent = 0;
    unsigned last = 0;
    for (const bool kills : {true, true, false}) {
        Program daemon{{MSGBUSD, "-s", path}};
        static_cast<void>(join(9));
        if (!sender) {
            sender = ::join(1);
            receiver = ::join(2);
        }
        ASSERT_TRUE(sender && receiver);
        msgbus_peer_start(sender.get());
        msgbus_peer_start(receiver.get());
        for (unsigned i = 0; i < kMessages; i++)
            send(sender, 2, std::to_string(++sent));
        if (kills)
            daemon.kill(SIGKILL);
        while (last != sent) {
            const Message frame = poll_frame(receiver);
            if (!frame)
                break;
            const auto number = static_cast<unsigned>(std::stoul(text_of(frame)));
            ASSERT_GT(number, last);
            last = number;
        }
    }
    EXPECT_EQ(last, sent);
}

// It would end by SIGPIPE, pipe(7).
TEST_F(Msgbusd, LivesOnWhenAClientHandsItAPipeThatNobodyReads) {
    Program daemon{{MSGBUSD, "-s", path}};
    RawPeer other = join(5);
    std::array<int, 2> pipe_ends{};
    ASSERT_EQ(pipe(pipe_ends.data()), 0);
    RawPeer strange{path};
    ASSERT_TRUE(strange.attach_with(6, {pipe_ends[1]}));
    close(pipe_ends[0]);
    close(pipe_ends[1]);
    for (std::uint32_t seq = 1; seq <= 2; seq++) {
        ASSERT_TRUE(other.send(6, seq, "hello"));
        EXPECT_EQ(strange.read()->payload, "hello");
    }
    ASSERT_TRUE(other.send(5, 3, "echo"));
    EXPECT_EQ(other.read()->payload, "echo");
}

TEST_F(Msgbusd, TakesGroupAndModeFromItsOptionsBeforeItsFile) {
    const std::string group = std::to_string(getgid());
    folder.write("conf", "group=" + group + "\nmode=0600\nallow=any as any to any\n");
    Program daemon{{MSGBUSD, "-s", path, "-c", folder / "conf", "-g", group, "-m", "0640"}};
    const RawPeer peer = join(5);
    EXPECT_EQ(mode_of_socket(), 0640u);
}

TEST_F(Msgbusd, DoesNotServeWithSettingsThatItDoesNotUnderstand) {
    folder.write("conf", "# rules\nallow=any\n");
    const std::vector<std::vector<std::string>> wrong{{"-c", folder / "conf"},
                                                      {"-c", folder / "missing"},
                                                      {"-c", folder.path()},
                                                      {"-g", "no-such-group"},
                                                      {"-m", "rw"}};
    for (const std::vector<std::string>& options : wrong) {
        std::vector<std::string> line{MSGBUSD, "-s", path};
        line.insert(line.end(), options.begin(), options.end());
        Program daemon{line};
        EXPECT_THAT(daemon.line(), StartsWith("msgbusd: ")) << options[1];
        EXPECT_EQ(daemon.rest(), "") << options[1];
        EXPECT_EQ(daemon.exit_status(), 1) << options[1];
        EXPECT_FALSE(std::filesystem::exists(path)) << options[1];
    }
}

TEST_F(Msgbusd, ExplainsItsUse) {
    Program help{{MSGBUSD, "-h"}};
    EXPECT_THAT(help.rest(), StartsWith("usage: msgbusd"));
    EXPECT_EQ(help.exit_status(), 0);
    for (const char* wrong : {"-z", "file"}) {
        Program daemon{{MSGBUSD, wrong}};
        EXPECT_THAT(daemon.rest(), HasSubstr("usage: msgbusd"));
        EXPECT_EQ(daemon.exit_status(), 1);
    }
}

}  // namespace
