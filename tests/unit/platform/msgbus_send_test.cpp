#include <numeric>
#include <string>
#include <thread>

#include "msgbus.h"
#include "msgbus_fixture.h"

namespace {

using MsgbusSend = MsgbusOnFake;

TEST_F(MsgbusOnBroker, KeepsShortMessagesForLaterUntilTheFlush) {
    const msgbus_ptr sender = join(28);
    const msgbus_ptr receiver = join(1);
    msgbus_peer_start(receiver.get());
    msgbus_send_later(sender.get(), "one", 1, 3);
    msgbus_send_later(sender.get(), "two", 1, 3);
    // The broker keeps the order: nothing is before this one.
    send(join(29), 1, "of another");
    EXPECT_EQ(text_of(poll_frame(receiver)), "of another");
    msgbus_flush(sender.get());
    EXPECT_EQ(text_of(poll_frame(receiver)), "one");
    EXPECT_EQ(text_of(poll_frame(receiver)), "two");
}

TEST_F(MsgbusOnBroker, SendsWhatWasKeptBeforeTheNextMessage) {
    const msgbus_ptr sender = join(28);
    const msgbus_ptr receiver = join(1);
    msgbus_peer_start(receiver.get());
    const std::string large(100000, 'x');
    msgbus_send_later(sender.get(), "one", 1, 3);
    send(sender, 1, "two");
    msgbus_send_later(sender.get(), "three", 1, 5);
    msgbus_send_later(sender.get(), large.data(), 1, large.size());
    for (const std::string& text : {std::string("one"), std::string("two"), std::string("three")})
        EXPECT_EQ(text_of(poll_frame(receiver)), text);
    EXPECT_EQ(text_of(poll_frame(receiver)), large);
}

TEST_F(MsgbusOnBroker, SendsWhatWasKeptAtTheEndOfTheContext) {
    msgbus_ptr sender = join(28);
    const msgbus_ptr receiver = join(1);
    msgbus_peer_start(receiver.get());
    msgbus_send_later(sender.get(), "last words", 1, 10);
    sender.reset();
    EXPECT_EQ(text_of(poll_frame(receiver)), "last words");
}

// More than are kept, and than one system call of the broker takes.
TEST_F(MsgbusOnBroker, KeepsTheOrderOfManyMessagesSentLater) {
    constexpr int count = 500;
    const msgbus_ptr sender = join(28);
    const msgbus_ptr receiver = join(1);
    msgbus_peer_start(receiver.get());
    const std::string pad(300, ' ');
    for (int i = 0; i < count; ++i) {
        const std::string text = std::to_string(i) + pad;
        msgbus_send_later(sender.get(), text.data(), 1, text.size());
    }
    msgbus_flush(sender.get());
    for (int i = 0; i < count; ++i)
        ASSERT_EQ(text_of(poll_frame(receiver)), std::to_string(i) + pad);
}

TEST_F(MsgbusOnBroker, CarriesAMessageWithItsHeader) {
    const msgbus_ptr sender = join(28);
    const msgbus_ptr receiver = join(1);
    msgbus_peer_start(receiver.get());
    send(sender, 1, "hello");
    const Message frame = poll_frame(receiver);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->header.magic, MSGBUS_MAGIC);
    EXPECT_EQ(frame->header.ver, MSGBUS_VERSION);
    EXPECT_EQ(frame->header.src, 28);
    EXPECT_EQ(frame->header.dst, 1);
    EXPECT_NE(frame->header.seq, 0u);
    EXPECT_EQ(frame->header.src_uid, getuid());
    EXPECT_EQ(frame->header.type, MSGBUS_DATA);
    EXPECT_EQ(text_of(frame), "hello");
    EXPECT_EQ(frame->payload[5], 0);
}

TEST_F(MsgbusOnBroker, AnEmptyMessageBeginsWithNul) {
    const msgbus_ptr ctx = join(1);
    msgbus_peer_start(ctx.get());
    send(ctx, 1, "");
    const Message frame = poll_frame(ctx);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->header.len, 0u);
    EXPECT_EQ(frame->payload[0], 0);
}

TEST_F(MsgbusOnBroker, CarriesAMessageOfTheLargestSizeWhole) {
    const msgbus_ptr sender = join(1);
    const msgbus_ptr receiver = join(2);
    msgbus_peer_start(receiver.get());
    std::string payload(MSGBUS_MAX_PAYLOAD, '\0');
    std::iota(payload.begin(), payload.end(), '\0');
    std::thread writer{[&] { send(sender, 2, payload); }};
    const Message frame = poll_frame(receiver);
    writer.join();
    EXPECT_TRUE(text_of(frame) == payload);
}

TEST_F(MsgbusOnBroker, GivesEachMessageANumberOfItsOwn) {
    const msgbus_ptr ctx = join(1);
    msgbus_peer_start(ctx.get());
    send(ctx, 1, "a");
    send(ctx, 1, "b");
    const Message first = poll_frame(ctx);
    const Message second = poll_frame(ctx);
    ASSERT_TRUE(first && second);
    EXPECT_NE(first->header.seq, second->header.seq);
}

TEST_F(MsgbusOnBroker, RefusesAMessageThatIsTooLongAndStaysOnTheBus) {
    const msgbus_ptr ctx = join(1);
    msgbus_peer_start(ctx.get());
    const std::string payload(MSGBUS_MAX_PAYLOAD + 1, 'x');
    send(ctx, 1, payload);
    EXPECT_EQ(wait_answer(ctx), nullptr);
    EXPECT_THAT(take_syslog(), logged("is too long"));
    send(ctx, 1, "short");
    EXPECT_EQ(text_of(poll_frame(ctx)), "short");
}

TEST_F(MsgbusSend, ReceivesWhileTheBrokerDoesNotRead) {
    const msgbus_ptr ctx = start_fake();
    const std::string large(4 * 1024 * 1024, 'x');
    std::thread broker{[&] {
        // Writes all it has before it reads a byte, as this client does.
        EXPECT_TRUE(peer->write(data(1, large) + data(2, "small")));
        const std::optional<Frame> sent = peer->read();
        ASSERT_TRUE(sent);
        EXPECT_TRUE(sent->payload == large);
    }};
    send(ctx, 1, large);
    broker.join();
    EXPECT_TRUE(text_of(poll_frame(ctx)) == large);
    EXPECT_EQ(text_of(poll_frame(ctx)), "small");
}

TEST_F(MsgbusSend, OnALostConnectionLosesTheMessageAndRaisesNoSignal) {
    const msgbus_ptr ctx = start_fake();
    peer->hang_up();
    send(ctx, 1, "lost");
    send(ctx, 1, "lost");
    EXPECT_EQ(wait_answer(ctx), nullptr);
    EXPECT_EQ(msgbus_get_module_loop(ctx.get()), 0);
}

TEST_F(MsgbusSend, KeepsWhatArrivedWhenItFindsTheConnectionLost) {
    const msgbus_ptr ctx = start_fake();
    ASSERT_TRUE(peer->write(data(1, "before")));
    peer->hang_up();
    send(ctx, 1, "lost");
    EXPECT_EQ(text_of(poll_once(ctx)), "before");
}

TEST_F(MsgbusSend, GivesUpABrokerThatTakesNothing) {
    const msgbus_ptr ctx = start_fake();
    send(ctx, 1, std::string(MSGBUS_MAX_PAYLOAD, 'x'));
    EXPECT_THAT(take_syslog(), logged("the broker takes nothing"));
    EXPECT_EQ(msgbus_get_module_loop(ctx.get()), 0);
    EXPECT_TRUE(peer->ended());
}

TEST_F(MsgbusSend, EndsWhenTheBrokerDiesInTheMiddle) {
    const msgbus_ptr ctx = start_fake();
    std::thread broker{[&] {
        EXPECT_TRUE(peer->readable(kPatienceMs));
        peer->hang_up();
    }};
    send(ctx, 1, std::string(MSGBUS_MAX_PAYLOAD, 'x'));
    broker.join();
    EXPECT_EQ(wait_answer(ctx), nullptr);
}

}  // namespace
