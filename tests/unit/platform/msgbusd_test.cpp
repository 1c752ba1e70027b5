#include <gmock/gmock.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "bus_test_support.h"
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

    TemporaryFolder folder;
    const std::string path = folder / "bus";
};

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
