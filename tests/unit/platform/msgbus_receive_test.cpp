#include <sys/eventfd.h>

#include <array>
#include <string>
#include <thread>

#include "msgbus.h"
#include "msgbus_fixture.h"

namespace {

using MsgbusReceive = MsgbusOnFake;

TEST_F(MsgbusReceive, KeepsWhatFollowsTheAttachAnswerInOnePiece) {
    const msgbus_ptr ctx = join_fake(data(1, "at once"));
    EXPECT_EQ(text_of(poll_once(ctx)), "at once");
}

TEST_F(MsgbusReceive, PutsFramesTogetherWhateverTheSplit) {
    const msgbus_ptr ctx = start_fake();
    const std::string stream = data(1, "first") + data(2, "") + data(3, "third");
    for (const char byte : stream) {
        ASSERT_TRUE(peer->write({byte}));
        if (&byte == &stream[16]) {
            EXPECT_EQ(poll_once(ctx), nullptr);
        }
    }
    EXPECT_EQ(text_of(poll_frame(ctx)), "first");
    EXPECT_EQ(text_of(poll_frame(ctx)), "");
    EXPECT_EQ(text_of(poll_frame(ctx)), "third");
    EXPECT_EQ(poll_once(ctx), nullptr);
}

TEST_F(MsgbusReceive, APartOfAFrameIsNoFrameYet) {
    const msgbus_ptr ctx = start_fake();
    const std::string frame = data(1, "whole");
    for (std::size_t split = 1; split < frame.size(); split++) {
        ASSERT_TRUE(peer->write(frame.substr(0, split)));
        EXPECT_EQ(poll_once(ctx), nullptr) << split;
        ASSERT_TRUE(peer->write(frame.substr(split)));
        EXPECT_EQ(text_of(poll_frame(ctx)), "whole") << split;
    }
}

TEST_F(MsgbusReceive, HandsOutDataFramesAlone) {
    const msgbus_ptr ctx = start_fake();
    ASSERT_TRUE(peer->write(undeliverable(1) + bytes_of(make_frame(MSGBUS_ATTACH, 28, 28)) +
                            bytes_of(make_frame(MSGBUS_DETACH, 1, 1)) + data(2, "data")));
    EXPECT_EQ(text_of(poll_frame(ctx)), "data");
    EXPECT_EQ(poll_once(ctx), nullptr);
}

TEST_F(MsgbusReceive, HandsOutWhatHasArrivedSinceTheModuleLoopWasAskedFor) {
    const msgbus_ptr ctx = start_fake();
    EXPECT_NE(msgbus_get_module_loop(ctx.get()), 0);
    ASSERT_TRUE(peer->write(data(1, "since")));
    EXPECT_EQ(text_of(poll_once(ctx)), "since");
}

TEST_F(MsgbusReceive, HandsOutWhatArrivedBeforeTheConnectionWasLost) {
    const msgbus_ptr ctx = start_fake();
    ASSERT_TRUE(peer->write(data(1, "one") + data(2, "two")));
    peer->hang_up();
    EXPECT_NE(msgbus_get_module_loop(ctx.get()), 0);
    EXPECT_EQ(text_of(poll_once(ctx)), "one");
    EXPECT_EQ(text_of(poll_once(ctx)), "two");
    EXPECT_EQ(poll_once(ctx), nullptr);
    EXPECT_EQ(msgbus_get_module_loop(ctx.get()), 0);
    EXPECT_THAT(take_syslog(), logged("module 28 lost its connection"));
}

TEST_F(MsgbusReceive, TellsWhetherMoreOfTheSamePieceWaits) {
    const msgbus_ptr ctx = start_fake();
    EXPECT_EQ(msgbus_has_frame(ctx.get()), 0);
    ASSERT_TRUE(peer->write(data(1, "one") + data(2, "two")));
    EXPECT_EQ(msgbus_has_frame(ctx.get()), 0) << "it does not look itself";
    EXPECT_EQ(text_of(poll_once(ctx)), "one");
    EXPECT_NE(msgbus_has_frame(ctx.get()), 0);
    EXPECT_EQ(text_of(poll_once(ctx)), "two");
    EXPECT_EQ(msgbus_has_frame(ctx.get()), 0);
}

TEST_F(MsgbusReceive, OneWhoPollsLearnsOfTheLossByPolling) {
    const msgbus_ptr ctx = start_fake();
    EXPECT_EQ(poll_once(ctx), nullptr);
    peer->hang_up();
    EXPECT_NE(msgbus_get_module_loop(ctx.get()), 0);
    EXPECT_EQ(poll_once(ctx), nullptr);
    EXPECT_EQ(msgbus_get_module_loop(ctx.get()), 0);
}

TEST_F(MsgbusReceive, AFrameCutOffByTheLossIsNotHandedOut) {
    const msgbus_ptr ctx = start_fake();
    const std::string frame = data(1, "whole");
    ASSERT_TRUE(peer->write(frame.substr(0, frame.size() - 1)));
    peer->hang_up();
    EXPECT_EQ(poll_once(ctx), nullptr);
    EXPECT_EQ(msgbus_get_module_loop(ctx.get()), 0);
}

TEST_F(MsgbusReceive, AWrongMagicEndsTheConnection) {
    Frame frame = make_frame(MSGBUS_DATA, 1, 28);
    frame.header.magic = 0;
    expect_ends_connection(bytes_of(frame));
}

TEST_F(MsgbusReceive, AWrongVersionEndsTheConnection) {
    Frame frame = make_frame(MSGBUS_DATA, 1, 28);
    frame.header.ver = 0;
    expect_ends_connection(bytes_of(frame));
}

TEST_F(MsgbusReceive, AnExcessiveLengthEndsTheConnection) {
    Frame frame = make_frame(MSGBUS_DATA, 1, 28);
    frame.header.len = MSGBUS_MAX_PAYLOAD + 1;
    expect_ends_connection(bytes_of(frame));
}

TEST_F(MsgbusReceive, AnUnknownTypeEndsTheConnection) {
    expect_ends_connection(bytes_of(make_frame(MSGBUS_LIST + 1, 1, 28)));
}

TEST_F(MsgbusReceive, HandsOutWhatCameBeforeAMalformedFrame) {
    const msgbus_ptr ctx = start_fake();
    ASSERT_TRUE(peer->write(data(1, "good") + std::string(100, 'x')));
    EXPECT_EQ(text_of(poll_frame(ctx)), "good");
    EXPECT_EQ(poll_once(ctx), nullptr);
    EXPECT_EQ(msgbus_get_module_loop(ctx.get()), 0);
}

TEST_F(MsgbusReceive, ADescriptorFromTheBrokerIsNotKept) {
    const msgbus_ptr ctx = start_fake();
    const long before = open_descriptors();
    const int event = eventfd(0, EFD_CLOEXEC);
    ASSERT_TRUE(peer->pass(data(1, "good"), {event, event}));
    close(event);
    EXPECT_EQ(text_of(poll_frame(ctx)), "good");
    EXPECT_EQ(open_descriptors(), before);
}

// ---- the event descriptor

// Module 28 with an event descriptor that the broker may add to.
class MsgbusEvent : public MsgbusOnBroker {
  protected:
    ~MsgbusEvent() override { close(event); }

    [[nodiscard]] msgbus_ptr join_with_event() const {
        return msgbus_ptr{msgbus_init_with_event(28, nullptr, 0, event)};
    }
    // False when nobody has added to the descriptor in time.
    [[nodiscard]] bool wait_event() const {
        pollfd entry{event, POLLIN, 0};
        eventfd_t counter = 0;
        return poll(&entry, 1, kPatienceMs) == 1 && eventfd_read(event, &counter) == 0;
    }
    // The next frame by nothing but the descriptor's word.
    [[nodiscard]] Message frame_by_event(const msgbus_ptr& ctx) const {
        Message frame;
        while (!(frame = poll_once(ctx)) && wait_event())
            continue;
        return frame;
    }

    const int event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
};

TEST_F(MsgbusEvent, TellsOfEachFrame) {
    const msgbus_ptr ctx = join_with_event();
    for (const char* text : {"one", "two", "three"}) {
        send(ctx, 28, text);
        EXPECT_EQ(text_of(frame_by_event(ctx)), text);
    }
}

TEST_F(MsgbusEvent, TellsOfALongFrameUntilItIsWhole) {
    const msgbus_ptr ctx = join_with_event();
    const std::string text(MSGBUS_MAX_PAYLOAD, 'x');
    std::thread other{[&] { send(join(1), 28, text); }};
    EXPECT_EQ(text_of(frame_by_event(ctx)), text);
    other.join();
}

TEST_F(MsgbusEvent, IsHandedToTheNextBrokerToo) {
    const msgbus_ptr ctx = join_with_event();
    broker.reset();
    start_broker();
    msgbus_peer_start(ctx.get());
    send(ctx, 28, "again");
    EXPECT_EQ(text_of(frame_by_event(ctx)), "again");
}

TEST_F(MsgbusEvent, WhoseCounterIsFullHoldsNobodyUp) {
    const int blocking = eventfd(0, EFD_CLOEXEC);
    ASSERT_EQ(eventfd_write(blocking, ~std::uint64_t{1}), 0);
    const msgbus_ptr ctx{msgbus_init_with_event(28, nullptr, 0, blocking)};
    ASSERT_TRUE(ctx);
    msgbus_peer_start(ctx.get());
    send(ctx, 28, "hello");
    EXPECT_EQ(text_of(poll_frame(ctx)), "hello");
    close(blocking);
}

TEST_F(MsgbusEvent, MayBeAbsent) {
    const msgbus_ptr ctx{msgbus_init_with_event(28, nullptr, 0, -1)};
    ASSERT_TRUE(ctx);
    msgbus_peer_start(ctx.get());
    send(ctx, 28, "hello");
    EXPECT_EQ(text_of(poll_frame(ctx)), "hello");
}

TEST_F(MsgbusEvent, IsGivenUpByTheBrokerWithTheConnection) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    msgbus_ptr ctx{msgbus_init_with_event(28, nullptr, 0, ends[1])};
    close(ends[1]);
    pollfd entry{ends[0], POLLIN, 0};
    ctx.reset();
    while (poll(&entry, 1, kPatienceMs) == 1 && (entry.revents & POLLIN) != 0) {
        std::array<char, 64> bumps;
        ASSERT_GT(read(ends[0], bumps.data(), bumps.size()), 0);
    }
    EXPECT_TRUE(entry.revents & POLLHUP) << "the broker keeps its duplicate";
    close(ends[0]);
}

}  // namespace
