#include "msgbus.h"
#include "msgbus_fixture.h"

namespace {

using testing::IsEmpty;

using MsgbusInit = MsgbusOnFake;

TEST_F(Msgbus, InitFailsWithoutABroker) {
    join_once(28);
    EXPECT_EQ(join(28), nullptr);
    EXPECT_THAT(take_syslog(), logged("module 28 cannot join the bus at " + path));
}

TEST_F(Msgbus, InitFailsOnASocketPathThatIsTooLong) {
    join_once(28);
    setenv("MSGBUS_SOCKET", ("/" + std::string(200, 'x')).c_str(), 1);
    EXPECT_EQ(join(28), nullptr);
    EXPECT_THAT(take_syslog(), logged("File name too long"));
}

TEST_F(Msgbus, InitFailsForAModuleThatCannotBe) {
    for (const int module : {-1, 255, 256, 100000})
        EXPECT_EQ(join(module), nullptr) << module;
}

TEST_F(Msgbus, ReleaseAcceptsNull) {
    msgbus_release(nullptr);
    EXPECT_THAT(take_syslog(), IsEmpty());
}

TEST_F(Msgbus, AReasonThatPersistsIsLoggedOnceUntilTheModuleHasJoined) {
    join_once(28);
    EXPECT_EQ(join(28), nullptr);
    EXPECT_THAT(take_syslog(), logged("module 28"));
    EXPECT_EQ(join(28), nullptr);
    EXPECT_THAT(take_syslog(), IsEmpty());
    join_once(28);
    EXPECT_EQ(join(28), nullptr);
    EXPECT_THAT(take_syslog(), logged("module 28"));
}

TEST_F(MsgbusInit, SendsAnAttachFrameAndNoOptions) {
    std::future<std::optional<Frame>> first = std::async(std::launch::async, [&] {
        RawPeer client = fake.accept();
        return client.read();
    });
    EXPECT_EQ(join(31), nullptr);
    const std::optional<Frame> frame = first.get();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->header.magic, MSGBUS_MAGIC);
    EXPECT_EQ(frame->header.ver, MSGBUS_VERSION);
    EXPECT_EQ(frame->header.type, MSGBUS_ATTACH);
    EXPECT_EQ(frame->header.src, 31);
    EXPECT_EQ(frame->header.dst, 0);
    EXPECT_EQ(frame->header.len, 0u);
    EXPECT_NE(frame->header.seq, 0u);
}

TEST_F(MsgbusInit, WorksWithoutOptions) {
    std::thread broker{[&] { peer.emplace(fake.admit()); }};
    EXPECT_TRUE(msgbus_ptr{msgbus_init(28, nullptr, 0)});
    broker.join();
}

TEST_F(MsgbusInit, FailsWhenTheBrokerStaysSilent) {
    join_once(28);
    EXPECT_EQ(join(28), nullptr);
    EXPECT_THAT(take_syslog(), logged("the broker does not answer"));
}

TEST_F(MsgbusInit, FailsWhenTheBrokerCloses) {
    expect_init_fails_after("", "the broker refused it");
}

TEST_F(MsgbusInit, FailsWhenTheBrokerAnswersGarbage) {
    expect_init_fails_after(std::string(17, 'x'), "malformed answer");
}

TEST_F(MsgbusInit, FailsWhenTheBrokerAttachesAnotherModule) {
    expect_init_fails_after(bytes_of(make_frame(MSGBUS_ATTACH, 29, 29)), "malformed answer");
}

TEST_F(MsgbusInit, FailsWhenTheFirstFrameIsNoAttach) {
    expect_init_fails_after(bytes_of(make_frame(MSGBUS_DATA, 28, 28)), "malformed answer");
}

TEST_F(MsgbusOnBroker, RefusesAModuleThatIsHeldAndLeavesTheHolderAlone) {
    const msgbus_ptr holder = join(5);
    ASSERT_TRUE(holder);
    EXPECT_EQ(join(5), nullptr);
    EXPECT_THAT(take_syslog(), logged("msgbus: module 5 cannot join the bus at " + path +
                                      ": the broker refused it"));
    msgbus_peer_start(holder.get());
    send(holder, 5, "still here");
    EXPECT_EQ(text_of(poll_frame(holder)), "still here");
}

TEST_F(MsgbusOnBroker, TakesAModuleThatWasReleased) {
    for (int round = 0; round < 20; round++)
        EXPECT_TRUE(join(5)) << round;
}

TEST_F(MsgbusOnBroker, AttachesAgainAtPeerStartWhenTheBrokerIsBack) {
    const msgbus_ptr ctx = join(28);
    msgbus_peer_start(ctx.get());
    broker.reset();
    EXPECT_EQ(msgbus_get_module_loop(ctx.get()), 0);
    EXPECT_EQ(poll_once(ctx), nullptr);
    send(ctx, 28, "lost");
    msgbus_peer_start(ctx.get());
    EXPECT_EQ(msgbus_get_module_loop(ctx.get()), 0);

    start_broker();
    msgbus_peer_start(ctx.get());
    EXPECT_NE(msgbus_get_module_loop(ctx.get()), 0);
    send(ctx, 28, "again");
    EXPECT_EQ(text_of(poll_frame(ctx)), "again");
}

TEST_F(MsgbusOnBroker, AttachesAgainAtPeerStartWithoutHavingNoticedTheLoss) {
    const msgbus_ptr ctx = join(28);
    broker.reset();
    start_broker();
    msgbus_peer_start(ctx.get());
    EXPECT_NE(msgbus_get_module_loop(ctx.get()), 0);
    send(ctx, 28, "again");
    EXPECT_EQ(text_of(poll_frame(ctx)), "again");
}

TEST_F(MsgbusOnBroker, TheModuleLoopRunsFromPeerStartToPeerStop) {
    const msgbus_ptr ctx = join(1);
    EXPECT_EQ(msgbus_get_module_loop(ctx.get()), 0);
    msgbus_peer_start(ctx.get());
    EXPECT_NE(msgbus_get_module_loop(ctx.get()), 0);
    msgbus_peer_stop(ctx.get());
    EXPECT_EQ(msgbus_get_module_loop(ctx.get()), 0);
}

TEST_F(MsgbusOnBroker, TheModuleLoopCanBeSet) {
    const msgbus_ptr ctx = join(1);
    msgbus_set_module_loop(ctx.get(), 7);
    EXPECT_NE(msgbus_get_module_loop(ctx.get()), 0);
    msgbus_set_module_loop(ctx.get(), 0);
    EXPECT_EQ(msgbus_get_module_loop(ctx.get()), 0);
}

TEST_F(MsgbusOnBroker, PeerStartDiscardsWhatArrivedBefore) {
    const msgbus_ptr ctx = join(1);
    RawPeer sender{path};
    ASSERT_TRUE(sender.attach(2));
    ASSERT_TRUE(sender.send(1, 1, "old"));
    ASSERT_TRUE(sender.send(2, 2, "barrier"));
    ASSERT_TRUE(sender.read());
    msgbus_peer_start(ctx.get());
    ASSERT_TRUE(sender.send(1, 3, "new"));
    EXPECT_EQ(text_of(poll_frame(ctx)), "new");
}

}  // namespace
