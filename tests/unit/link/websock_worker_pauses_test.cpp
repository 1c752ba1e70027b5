#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "pause_log.h"
#include "websock_worker.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Touches no network: it has its connection at once, or never, and then nothing to do.
class idle_websock_worker : public websock_worker {
  public:
    idle_websock_worker(safe_queue& from, safe_queue& to, const volatile bool& flag, bool connects)
        : websock_worker(from, to, "127.0.0.1", "/agent", 1, flag, 1, 1, WS_INSTANCE_RRM),
          connects_(connects) {}

    bool __connect() override { return connects_; }
    bool execute() override { return true; }
    void __disconnect() override {}
    bool condition(const volatile bool& flag) override { return flag; }

  private:
    const bool connects_;
};

class WebsockWorkerPauses : public testing::Test {
  protected:
    // Until it waits for the second time.
    void run_worker(bool connects) { idle_websock_worker(from_ipc, to_ipc, run, connects).func(); }

    safe_queue from_ipc;
    safe_queue to_ipc;
    volatile bool run = true;
    const PauseLog log{[this, waits = 0]() mutable { run = ++waits < 2; }};
};

TEST_F(WebsockWorkerPauses, AreASecondLongBetweenTwoAttemptsToConnect) {
    run_worker(false);
    EXPECT_THAT(log.pauses(), ElementsAre(1000000u, 1000000u));
    EXPECT_THAT(log.waits(), IsEmpty());
}

TEST_F(WebsockWorkerPauses, AreATenthOfASecondAtMostWhileItIsIdle) {
    run_worker(true);
    EXPECT_THAT(log.waits(), ElementsAre(100, 100));
    EXPECT_THAT(log.pauses(), IsEmpty());
}

}  // namespace
