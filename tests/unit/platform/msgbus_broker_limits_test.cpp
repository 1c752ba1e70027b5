// What keeps one client of the broker from delaying the others.
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bus_test_support.h"
#include "msgbus_broker.h"
#include "syslog_spy.h"

namespace {

constexpr int kFlooder = 1;
constexpr int kReceiver = 2;
constexpr int kOther = 3;
// More than a socket and the broker's next system call hold.
constexpr std::size_t kLong = std::size_t{64} * 1024;

MsgbusSettings settings_with(MsgbusLimits limits) {
    MsgbusSettings settings = MsgbusSettings::for_everybody();
    settings.limits = limits;
    return settings;
}

class BrokerLimits : public testing::Test {
  protected:
    void start(MsgbusLimits limits = {}) {
        broker = std::make_unique<RunningBroker>(path, settings_with(limits));
    }
    [[nodiscard]] RawPeer module(int id) const {
        RawPeer peer{path};
        EXPECT_TRUE(peer.attach(id));
        return peer;
    }
    // Once this returns the broker has taken all that the peer has sent.
    static void settle(RawPeer& peer, int module) {
        ASSERT_TRUE(peer.send(module, 1, "settled"));
        EXPECT_EQ(peer.read()->payload, "settled");
    }
    // Sends frames of that size to the receiver, numbered from 1, until one comes back; how many
    // did not.
    static std::uint32_t fill(RawPeer& peer, int module, std::size_t size) {
        for (std::uint32_t sent = 0;; sent++) {
            EXPECT_TRUE(peer.send(kReceiver, sent + 1, std::string(size, 'x')));
            EXPECT_TRUE(peer.send(module, 1, "settled"));
            const std::optional<Frame> answer = peer.read();
            if (!answer || answer->header.type == MSGBUS_DATA)
                continue;
            EXPECT_EQ(answer->header.seq, sent + 1);
            EXPECT_EQ(peer.read()->payload, "settled");
            return sent;
        }
    }
    // How many frames the peer reads before one of that module.
    static int frames_before_one_of(int module, RawPeer& peer) {
        for (int count = 0;; count++) {
            const std::optional<Frame> frame = peer.read();
            if (!frame)
                return -1;
            if (frame->header.src == module)
                return count;
        }
    }
    static long lines_with(const std::string& text) {
        const std::vector<SyslogLine> lines = take_syslog();
        return std::count_if(lines.begin(), lines.end(), [&](const SyslogLine& line) {
            return line.text.find(text) != std::string::npos;
        });
    }

    TemporaryFolder folder;
    const std::string path = folder / "bus";
    std::unique_ptr<RunningBroker> broker;
};

TEST_F(BrokerLimits, AFrameDoesNotWaitBehindAllThatAnotherHasSentToItsReceiver) {
    start();
    RawPeer flooder = module(kFlooder);
    RawPeer receiver = module(kReceiver);
    RawPeer other = module(kOther);
    for (std::uint32_t seq = 1; seq <= 100; seq++)
        ASSERT_TRUE(flooder.send(kReceiver, seq, std::string(kLong, 'x')));
    settle(flooder, kFlooder);
    ASSERT_TRUE(other.send(kReceiver, 1, "short"));
    settle(other, kOther);
    const int before = frames_before_one_of(kOther, receiver);
    EXPECT_GE(before, 0);
    EXPECT_LT(before, 20);
}

TEST_F(BrokerLimits, AFrameIsTakenForAReceiverThatAnotherHasFilled) {
    start();
    RawPeer flooder = module(kFlooder);
    RawPeer receiver = module(kReceiver);
    RawPeer other = module(kOther);
    fill(flooder, kFlooder, 1024 * 1024);
    ASSERT_TRUE(other.send(kReceiver, 7, "short"));
    settle(other, kOther);
    EXPECT_GE(frames_before_one_of(kOther, receiver), 0);
}

TEST_F(BrokerLimits, SendersToOneThatDoesNotReadShareWhatMayWaitForIt) {
    start({64 * kLong, 0});
    RawPeer first = module(kFlooder);
    const RawPeer receiver = module(kReceiver);
    RawPeer second = module(kOther);
    const std::uint32_t alone = fill(first, kFlooder, kLong);
    const std::uint32_t beside = fill(second, kOther, kLong);
    EXPECT_GE(alone, 64u);
    EXPECT_GE(beside, 32u);
    EXPECT_LE(beside, 34u);
}

TEST_F(BrokerLimits, FramesOfEachSenderArriveInTheirOrder) {
    start();
    RawPeer receiver = module(kReceiver);
    RawPeer first = module(kFlooder);
    RawPeer second = module(kOther);
    constexpr std::uint32_t kFrames = 60;
    for (std::uint32_t seq = 1; seq <= kFrames; seq++)
        for (RawPeer* sender : {&first, &second})
            ASSERT_TRUE(sender->send(kReceiver, seq, std::string(kLong, 'x')));
    std::array<std::uint32_t, 4> last{};
    for (std::uint32_t i = 0; i < 2 * kFrames; i++) {
        const std::optional<Frame> frame = receiver.read();
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->header.seq, ++last.at(frame->header.src));
    }
}

TEST_F(BrokerLimits, WhatWaitsInLanesComesBackWhenItsReceiverLeaves) {
    start();
    RawPeer receiver = module(kReceiver);
    RawPeer first = module(kFlooder);
    RawPeer second = module(kOther);
    for (std::uint32_t seq = 1; seq <= 20; seq++)
        ASSERT_TRUE(first.send(kReceiver, seq, std::string(kLong, 'x')));
    settle(first, kFlooder);
    for (std::uint32_t seq = 1; seq <= 20; seq++)
        ASSERT_TRUE(second.send(kReceiver, seq, std::string(kLong, 'x')));
    settle(second, kOther);
    receiver.hang_up();
    for (std::uint32_t seq = 1; seq <= 20; seq++) {
        const std::optional<Frame> notice = second.read();
        ASSERT_TRUE(notice);
        EXPECT_EQ(notice->header.type, MSGBUS_UNDELIVERABLE);
        EXPECT_EQ(notice->header.seq, seq);
    }
}

// All three have spoken before the broker looks.
TEST_F(BrokerLimits, AShortTurnOfEachClientIsTakenBeforeTheNextOne) {
    constexpr std::uint32_t kFlood = 700;  // in one piece
    MsgbusBroker waiting{path, MsgbusSettings::for_everybody()};
    ASSERT_TRUE(waiting.open());
    RawPeer receiver{path};
    RawPeer flooder{path};
    RawPeer other{path};
    ASSERT_TRUE(receiver.send(make_frame(MSGBUS_ATTACH, kReceiver, 0)));
    std::string flood = bytes_of(make_frame(MSGBUS_ATTACH, kFlooder, 0));
    for (std::uint32_t seq = 1; seq <= kFlood; seq++)
        flood += bytes_of(make_frame(MSGBUS_DATA, 0, kReceiver, seq));
    ASSERT_TRUE(flooder.write(flood));
    ASSERT_TRUE(other.send(make_frame(MSGBUS_ATTACH, kOther, 0)) &&
                other.send(kReceiver, 1, "short"));
    std::thread thread{[&] { waiting.run(); }};
    EXPECT_EQ(receiver.read()->header.type, MSGBUS_ATTACH);
    const int before = frames_before_one_of(kOther, receiver);
    EXPECT_GE(before, 0);
    EXPECT_LT(before, 100);
    for (auto seq = static_cast<std::uint32_t>(before) + 1; seq <= kFlood; seq++)
        EXPECT_EQ(receiver.read()->header.seq, seq);
    waiting.stop();
    thread.join();
}

TEST_F(BrokerLimits, WhatLiesBehindATurnIsTakenAlthoughItsSenderHasLeft) {
    start();
    RawPeer receiver = module(kReceiver);
    constexpr std::uint32_t kFrames = 700;
    std::string frames;
    for (std::uint32_t seq = 1; seq <= kFrames; seq++)
        frames += bytes_of(make_frame(MSGBUS_DATA, 0, kReceiver, seq));
    {
        RawPeer sender = module(kFlooder);
        ASSERT_TRUE(sender.write(frames));
    }
    const RawPeer next = module(kFlooder);
    for (std::uint32_t seq = 1; seq <= kFrames; seq++)
        ASSERT_EQ(receiver.read()->header.seq, seq);
}

TEST_F(BrokerLimits, AMalformedFrameBehindATurnEndsItsConnection) {
    start();
    RawPeer receiver = module(kReceiver);
    RawPeer sender = module(kFlooder);
    constexpr std::uint32_t kFrames = 200;
    std::string frames;
    for (std::uint32_t seq = 1; seq <= kFrames; seq++)
        frames += bytes_of(make_frame(MSGBUS_DATA, 0, kReceiver, seq));
    ASSERT_TRUE(sender.write(frames + std::string(17, 'x')));
    EXPECT_TRUE(sender.ended());
    for (std::uint32_t seq = 1; seq <= kFrames; seq++)
        ASSERT_EQ(receiver.read()->header.seq, seq);
}

TEST_F(BrokerLimits, FramesBeyondTheRateArriveLaterAndThatIsLoggedOnce) {
    start({MSGBUS_MAX_WAITING, 100});
    RawPeer sender = module(kFlooder);
    take_syslog();
    for (std::uint32_t seq = 1; seq <= 120; seq++)
        ASSERT_TRUE(sender.send(kFlooder, seq, "x"));
    for (std::uint32_t seq = 1; seq <= 120; seq++)
        ASSERT_EQ(sender.read()->header.seq, seq);
    EXPECT_EQ(lines_with("sends more than 100 frames a second and waits"), 1);
}

TEST_F(BrokerLimits, OneThatSendsBeyondTheRateHoldsBackNobodyElse) {
    start({MSGBUS_MAX_WAITING, 2});
    RawPeer receiver = module(kReceiver);
    RawPeer flooder = module(kFlooder);
    RawPeer other = module(kOther);
    for (std::uint32_t seq = 1; seq <= 30; seq++)
        ASSERT_TRUE(flooder.send(kReceiver, seq, "x"));
    ASSERT_TRUE(other.send(kReceiver, 1, "short"));
    const int before = frames_before_one_of(kOther, receiver);
    EXPECT_GE(before, 0);
    EXPECT_LT(before, 30);
}

TEST_F(BrokerLimits, WhatWasSentBeyondTheRateIsDeliveredAlthoughItsSenderHasLeft) {
    start({MSGBUS_MAX_WAITING, 1});
    RawPeer receiver = module(kReceiver);
    {
        RawPeer sender = module(kFlooder);
        for (std::uint32_t seq = 1; seq <= 50; seq++)
            ASSERT_TRUE(sender.send(kReceiver, seq, "x"));
    }
    for (std::uint32_t seq = 1; seq <= 50; seq++)
        ASSERT_EQ(receiver.read()->header.seq, seq);
}

TEST_F(BrokerLimits, WithoutARateNobodyIsHeldBack) {
    start();
    RawPeer sender = module(kFlooder);
    take_syslog();
    for (std::uint32_t seq = 1; seq <= 5000; seq++)
        ASSERT_TRUE(sender.send(kFlooder, seq, "") && sender.read());
    EXPECT_EQ(lines_with("and waits"), 0);
}

TEST_F(BrokerLimits, ACrowdIsRefusedWithOneLogLine) {
    start();
    constexpr int kMost = 320;
    take_syslog();
    std::vector<RawPeer> crowd;
    for (int id = 0; id < 255; id++)
        crowd.push_back(module(id));
    for (int id = 255; id < kMost; id++) {
        crowd.emplace_back(path);
        ASSERT_TRUE(crowd.back().attach(0, MSGBUS_MONITOR));
    }
    for (int i = 0; i < 5; i++)
        EXPECT_TRUE(RawPeer{path}.ended());
    EXPECT_EQ(lines_with("client refused, 320 are there"), 1);
    ASSERT_TRUE(crowd[0].send(254, 1, "across"));
    EXPECT_EQ(crowd[254].read()->payload, "across");
}

}  // namespace
