#include "msgbus.h"

#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <syslog.h>

#include <atomic>
#include <csignal>
#include <future>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "bus_test_support.h"
#include "owned.h"
#include "syslog_spy.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// A wait that the behaviour under test ends; longer than any test may take.
constexpr int kForever = 3600;

using Message = std::unique_ptr<message_s, free_deleter>;

msgbus_ptr join(int module) {
    constexpr std::uint8_t options[] = {0xFE, 0x00};
    return msgbus_ptr{msgbus_init(module, options, sizeof options)};
}

Message poll_once(const msgbus_ptr& ctx) {
    return Message{msgbus_poll_no_wait(ctx.get())};
}

// Polls until a frame is there or the connection is gone.
Message poll_frame(const msgbus_ptr& ctx) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds{kPatienceMs};
    Message frame;
    while (!(frame = poll_once(ctx)) && msgbus_get_module_loop(ctx.get()) != 0 &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    return frame;
}

std::string text_of(const Message& frame) {
    return frame ? std::string(reinterpret_cast<const char*>(frame->payload), frame->header.len)
                 : "(no frame)";
}

void send(const msgbus_ptr& ctx, int dst, const std::string& text) {
    msgbus_send(ctx.get(), text.data(), static_cast<std::uint8_t>(dst), text.size());
}

cfgtree_ptr wait_answer(const msgbus_ptr& ctx, int timeout = kForever,
                        const char* command = "done") {
    return cfgtree_ptr{msgbus_wait_answer(ctx.get(), command, "Error: no answer\n", timeout)};
}

std::string value_of(const cfgtree_ptr& answer) {
    const char* value = cfgtree_get_param(answer.get(), "value");
    return value ? value : "(none)";
}

std::string done(const std::string& value) {
    return R"({"command":"done","value":")" + value + "\"}";
}

auto logged(const std::string& text) {
    return Contains(Field(&SyslogLine::text, HasSubstr(text)));
}

class Msgbus : public testing::Test {
  protected:
    Msgbus() { take_syslog(); }

    // A reason not to join that was logged before is logged again after this.
    void join_once(int module) const {
        const std::string elsewhere = folder / "elsewhere";
        const RunningBroker broker{elsewhere};
        setenv("MSGBUS_SOCKET", elsewhere.c_str(), 1);
        EXPECT_TRUE(join(module));
        setenv("MSGBUS_SOCKET", path.c_str(), 1);
    }

    TemporaryFolder folder;
    const std::string path = folder / "bus";
    ScopedEnvironment environment{"MSGBUS_SOCKET", path};
};

// ---- with the real broker

class MsgbusOnBroker : public Msgbus {
  protected:
    MsgbusOnBroker() { start_broker(); }
    void start_broker() { broker = std::make_unique<RunningBroker>(path); }

    std::unique_ptr<RunningBroker> broker;
};

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

TEST_F(MsgbusOnBroker, AnswersGoToTheSenderUnderTheRequestsNumber) {
    const msgbus_ptr client = join(28);
    const msgbus_ptr server = join(1);
    msgbus_peer_start(client.get());
    msgbus_peer_start(server.get());
    send(client, 1, R"({"command":"get"})");
    const Message request = poll_frame(server);
    ASSERT_TRUE(request);
    const std::string text = done("36");
    msgbus_send_answer(server.get(), request.get(), text.data(), text.size());
    EXPECT_EQ(value_of(wait_answer(client)), "36");
}

TEST_F(MsgbusOnBroker, AnUndeliverableRequestEndsTheWaitAtOnce) {
    const msgbus_ptr ctx = join(28);
    msgbus_peer_start(ctx.get());
    send(ctx, 1, "{}");
    EXPECT_EQ(wait_answer(ctx), nullptr);
    const std::vector<SyslogLine> lines = take_syslog();
    EXPECT_THAT(lines, ElementsAre(AllOf(Field(&SyslogLine::text, "Error: no answer"),
                                         Field(&SyslogLine::priority, LOG_ERR))));
}

TEST_F(MsgbusOnBroker, TheBrokersEndEndsAWaitAtOnce) {
    const msgbus_ptr ctx = join(28);
    RawPeer server{path};
    ASSERT_TRUE(server.attach(1));
    msgbus_peer_start(ctx.get());
    std::thread killer{[&] {
        EXPECT_TRUE(server.read());
        broker.reset();
    }};
    send(ctx, 1, "{}");
    EXPECT_EQ(wait_answer(ctx), nullptr);
    killer.join();
    EXPECT_EQ(msgbus_get_module_loop(ctx.get()), 0);
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

TEST_F(MsgbusOnBroker, ARequestOfAnEarlierConnectionIsNotWaitedForOnTheNext) {
    const msgbus_ptr ctx = join(28);
    send(ctx, 28, "{}");
    broker.reset();
    start_broker();
    msgbus_peer_start(ctx.get());
    EXPECT_EQ(wait_answer(ctx), nullptr);
}

TEST_F(MsgbusOnBroker, ServesManyContextsOnThreadsOfTheirOwn) {
    constexpr int kPairs = 6;
    constexpr int kRounds = 100;
    std::atomic<int> clients_left{kPairs};
    std::vector<std::thread> threads;
    for (int pair = 0; pair < kPairs; pair++) {
        msgbus_ptr server = join(100 + pair);
        ASSERT_TRUE(server);
        threads.emplace_back([&clients_left, ctx = std::move(server)] {
            msgbus_peer_start(ctx.get());
            while (clients_left > 0) {
                const Message request = poll_once(ctx);
                if (!request) {
                    std::this_thread::yield();
                    continue;
                }
                const std::string text = done(text_of(request));
                msgbus_send_answer(ctx.get(), request.get(), text.data(), text.size());
            }
        });
    }
    // Requests that reach a server before its peer start are discarded there, so ask again.
    for (int pair = 0; pair < kPairs; pair++)
        threads.emplace_back([&clients_left, pair] {
            const msgbus_ptr ctx = join(pair);
            for (int round = 0; round < kRounds;) {
                msgbus_peer_start(ctx.get());
                send(ctx, 100 + pair, std::to_string(round));
                const cfgtree_ptr answer = wait_answer(ctx, 1);
                msgbus_peer_stop(ctx.get());
                if (!answer)
                    continue;
                EXPECT_EQ(value_of(answer), std::to_string(round));
                round++;
            }
            clients_left--;
        });
    for (std::thread& thread : threads)
        thread.join();
}

// ---- the module loop

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

// ---- with a broker that does what the test wants

class FakeBroker {
  public:
    explicit FakeBroker(const std::string& path)
        : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            listen(fd_, 5) != 0)
            throw std::runtime_error{"fake broker"};
    }
    ~FakeBroker() { close(fd_); }
    FakeBroker(const FakeBroker&) = delete;
    FakeBroker& operator=(const FakeBroker&) = delete;

    RawPeer accept() const { return RawPeer{::accept(fd_, nullptr, nullptr)}; }

    // Takes one client in; `stream` follows its attach answer.
    RawPeer admit(const std::string& stream = {}) const {
        RawPeer peer = accept();
        const std::optional<Frame> attach = peer.read();
        EXPECT_TRUE(attach && attach->header.type == MSGBUS_ATTACH && attach->header.len == 0);
        const int module = attach ? attach->header.src : 0;
        EXPECT_TRUE(peer.write(bytes_of(make_frame(MSGBUS_ATTACH, module, module)) + stream));
        return peer;
    }

  private:
    int fd_;
};

class MsgbusOnFake : public Msgbus {
  protected:
    // Joins the fake bus; `peer` is then the broker's end.
    msgbus_ptr join_fake(const std::string& stream = {}) {
        std::future<RawPeer> admitted =
            std::async(std::launch::async, [&] { return fake.admit(stream); });
        msgbus_ptr ctx = join(28);
        peer.emplace(admitted.get());
        return ctx;
    }
    msgbus_ptr start_fake() {
        msgbus_ptr ctx = join_fake();
        msgbus_peer_start(ctx.get());
        return ctx;
    }
    // The broker's end answers the client's next request with that stream of frames.
    std::thread answer_with(std::function<std::string(std::uint32_t seq)> stream) {
        return std::thread{[this, stream = std::move(stream)] {
            const std::optional<Frame> request = peer->read();
            ASSERT_TRUE(request);
            EXPECT_TRUE(peer->write(stream(request->header.seq)));
        }};
    }
    static std::string data(std::uint32_t seq, const std::string& payload) {
        return bytes_of(make_frame(MSGBUS_DATA, 1, 28, seq, payload));
    }
    static std::string undeliverable(std::uint32_t seq) {
        return bytes_of(make_frame(MSGBUS_UNDELIVERABLE, 1, 28, seq));
    }
    void expect_init_fails_after(const std::string& answer, const std::string& reason) {
        join_once(28);
        std::thread broker{[&] {
            RawPeer client = fake.accept();
            EXPECT_TRUE(client.read());
            EXPECT_TRUE(client.write(answer));
        }};
        EXPECT_EQ(join(28), nullptr);
        broker.join();
        EXPECT_THAT(take_syslog(), logged(reason));
    }
    void expect_ends_connection(const std::string& bytes) {
        const msgbus_ptr ctx = start_fake();
        ASSERT_TRUE(peer->write(bytes));
        EXPECT_EQ(poll_frame(ctx), nullptr);
        EXPECT_EQ(msgbus_get_module_loop(ctx.get()), 0);
        EXPECT_THAT(take_syslog(), logged("malformed frame"));
        EXPECT_TRUE(peer->ended());
    }

    FakeBroker fake{path};
    std::optional<RawPeer> peer;
};

using MsgbusInit = MsgbusOnFake;
using MsgbusReceive = MsgbusOnFake;
using MsgbusSend = MsgbusOnFake;
using MsgbusWait = MsgbusOnFake;

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
    expect_ends_connection(bytes_of(make_frame(4, 1, 28)));
}

TEST_F(MsgbusReceive, HandsOutWhatCameBeforeAMalformedFrame) {
    const msgbus_ptr ctx = start_fake();
    ASSERT_TRUE(peer->write(data(1, "good") + std::string(100, 'x')));
    EXPECT_EQ(text_of(poll_frame(ctx)), "good");
    EXPECT_EQ(poll_once(ctx), nullptr);
    EXPECT_EQ(msgbus_get_module_loop(ctx.get()), 0);
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

TEST_F(MsgbusWait, TakesTheAnswerOfTheLastRequest) {
    const msgbus_ptr ctx = start_fake();
    std::thread broker = answer_with([](std::uint32_t seq) { return data(seq, done("36")); });
    send(ctx, 1, "{}");
    EXPECT_EQ(value_of(wait_answer(ctx)), "36");
    broker.join();
    EXPECT_THAT(take_syslog(), IsEmpty());
}

TEST_F(MsgbusWait, DiscardsWhatIsNotTheAnswer) {
    const msgbus_ptr ctx = start_fake();
    std::thread broker = answer_with([](std::uint32_t seq) {
        return data(seq, R"({"command":"other","value":"command"})") +
               data(seq + 1, done("number")) + data(seq, "no JSON") + data(seq, "") +
               data(seq, R"(["command","done"])") + data(seq, R"({"value":"none"})") +
               undeliverable(seq + 1) + bytes_of(make_frame(MSGBUS_ATTACH, 28, 28, seq)) +
               data(seq, done("right"));
    });
    send(ctx, 1, "{}");
    EXPECT_EQ(value_of(wait_answer(ctx)), "right");
    broker.join();
    EXPECT_EQ(poll_once(ctx), nullptr);
}

TEST_F(MsgbusWait, NeverTakesALateAnswerForTheCurrentOne) {
    const msgbus_ptr ctx = start_fake();
    send(ctx, 1, "{}");
    EXPECT_EQ(wait_answer(ctx, 0), nullptr);
    const std::uint32_t late = peer->read()->header.seq;
    std::thread broker = answer_with([&](std::uint32_t seq) {
        return data(late, done("late")) + undeliverable(late) + data(seq, done("current"));
    });
    send(ctx, 1, "{}");
    EXPECT_EQ(value_of(wait_answer(ctx)), "current");
    broker.join();
}

TEST_F(MsgbusWait, AnAnswerGivenMeanwhileDoesNotChangeWhatIsWaitedFor) {
    const msgbus_ptr ctx = start_fake();
    std::thread broker = answer_with([](std::uint32_t seq) { return data(seq, done("mine")); });
    send(ctx, 1, "{}");
    message_s request{};
    request.header = make_frame(MSGBUS_DATA, 3, 28, 4711).header;
    msgbus_send_answer(ctx.get(), &request, "{}", 2);
    EXPECT_EQ(value_of(wait_answer(ctx)), "mine");
    broker.join();
    const std::optional<Frame> answer = peer->read();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->header.dst, 3);
    EXPECT_EQ(answer->header.seq, 4711u);
}

TEST_F(MsgbusWait, EndsAtOnceWhenTheRequestIsUndeliverable) {
    const msgbus_ptr ctx = start_fake();
    std::thread broker = answer_with(undeliverable);
    send(ctx, 1, "{}");
    EXPECT_EQ(wait_answer(ctx), nullptr);
    broker.join();
    EXPECT_THAT(take_syslog(), logged("Error: no answer"));
}

TEST_F(MsgbusWait, EndsAtTheTimeOutWithTheCallersTextAsAnError) {
    const msgbus_ptr ctx = start_fake();
    send(ctx, 1, "{}");
    EXPECT_EQ(wait_answer(ctx, 1), nullptr);
    EXPECT_THAT(take_syslog(), ElementsAre(AllOf(Field(&SyslogLine::text, "Error: no answer"),
                                                 Field(&SyslogLine::priority, LOG_ERR))));
    EXPECT_NE(msgbus_get_module_loop(ctx.get()), 0);
}

TEST_F(MsgbusWait, ATextWithFormatCharactersIsLoggedAsItIs) {
    const msgbus_ptr ctx = start_fake();
    EXPECT_EQ(msgbus_wait_answer(ctx.get(), "done", "100%s sure%n", 0), nullptr);
    EXPECT_THAT(take_syslog(), logged("100%s sure%n"));
}

TEST_F(MsgbusWait, WithoutTimeTakesWhatIsThere) {
    const msgbus_ptr ctx = start_fake();
    send(ctx, 1, "{}");
    const std::uint32_t seq = peer->read()->header.seq;
    ASSERT_TRUE(peer->write(data(seq, done("there"))));
    EXPECT_EQ(value_of(wait_answer(ctx, 0)), "there");
}

TEST_F(MsgbusWait, EndsAtOnceWhenNothingWasSent) {
    const msgbus_ptr ctx = start_fake();
    EXPECT_EQ(wait_answer(ctx), nullptr);
    EXPECT_EQ(msgbus_wait_answer(ctx.get(), "done", nullptr, kForever), nullptr);
    EXPECT_EQ(msgbus_wait_answer(ctx.get(), nullptr, nullptr, kForever), nullptr);
}

TEST_F(MsgbusWait, EndsAtOnceWhenTheConnectionIsLost) {
    const msgbus_ptr ctx = start_fake();
    std::thread broker{[&] {
        EXPECT_TRUE(peer->read());
        peer->hang_up();
    }};
    send(ctx, 1, "{}");
    EXPECT_EQ(wait_answer(ctx), nullptr);
    broker.join();
    EXPECT_THAT(take_syslog(), logged("Error: no answer"));
}

TEST_F(MsgbusWait, EndsAtOnceAtAMalformedFrame) {
    const msgbus_ptr ctx = start_fake();
    std::thread broker = answer_with([](std::uint32_t) { return std::string(17, 'x'); });
    send(ctx, 1, "{}");
    EXPECT_EQ(wait_answer(ctx), nullptr);
    broker.join();
}

std::atomic<int> signals_seen{0};

TEST_F(MsgbusWait, GoesOnAfterASignal) {
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) { signals_seen++; };
    sigaction(SIGTERM, &action, &before);
    const msgbus_ptr ctx = start_fake();
    const pthread_t waiting = pthread_self();
    std::thread broker = answer_with([waiting](std::uint32_t seq) {
        pthread_kill(waiting, SIGTERM);
        while (signals_seen == 0)
            std::this_thread::yield();
        return data(seq, done("after"));
    });
    send(ctx, 1, "{}");
    EXPECT_EQ(value_of(wait_answer(ctx)), "after");
    broker.join();
    sigaction(SIGTERM, &before, nullptr);
}

}  // namespace
