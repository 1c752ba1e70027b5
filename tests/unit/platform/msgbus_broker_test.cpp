#include "msgbus_broker.h"

#include <gmock/gmock.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "bus_test_support.h"
#include "emulator.h"
#include "syslog_spy.h"

namespace {

using testing::Contains;
using testing::Field;
using testing::HasSubstr;

class Broker : public testing::Test {
  protected:
    [[nodiscard]] RawPeer connect() const { return RawPeer{path}; }
    [[nodiscard]] RawPeer module(int id) const {
        RawPeer peer{path};
        EXPECT_TRUE(peer.attach(id));
        return peer;
    }
    [[nodiscard]] RawPeer monitor() const {
        RawPeer peer{path};
        EXPECT_TRUE(peer.attach(0, MSGBUS_MONITOR));
        return peer;
    }
    // Whether the broker still serves others.
    void expect_alive() const {
        RawPeer one = module(200);
        EXPECT_TRUE(one.send(200, 7, "echo"));
        const std::optional<Frame> echo = one.read();
        ASSERT_TRUE(echo);
        EXPECT_EQ(echo->payload, "echo");
    }
    // What a first frame, or one after the attach, brings its sender.
    void expect_ends_connection(const std::string& bytes, bool attached) const {
        RawPeer peer = attached ? module(9) : connect();
        EXPECT_TRUE(peer.write(bytes));
        EXPECT_TRUE(peer.ended());
        expect_alive();
    }

    TemporaryFolder folder;
    const std::string path = folder / "bus";
};

class RunningBrokerTest : public Broker {
  protected:
    RunningBroker broker{path};
};

using BrokerSocket = Broker;
using BrokerAttach = RunningBrokerTest;
using BrokerData = RunningBrokerTest;
using BrokerMonitor = RunningBrokerTest;

TEST_F(BrokerSocket, IsRemovedAtTheEnd) {
    {
        const RunningBroker broker{path};
        EXPECT_TRUE(std::filesystem::is_socket(path));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(BrokerSocket, IsOpenToEveryUser) {
    const RunningBroker broker{path};
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777u, 0666u);
}

TEST_F(BrokerSocket, ReplacesOneThatNobodyListensOn) {
    const int dead = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(dead, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(dead);
    ASSERT_TRUE(std::filesystem::exists(path));
    const RunningBroker broker{path};
    expect_alive();
}

TEST_F(BrokerSocket, OfALivingBrokerIsLeftAlone) {
    const RunningBroker first{path};
    MsgbusBroker second{path};
    EXPECT_FALSE(second.open());
    EXPECT_EQ(second.error(), path + " is in use");
    second.run();
    expect_alive();
}

TEST_F(BrokerSocket, NeverReplacesAnOrdinaryFile) {
    folder.write("bus", "precious");
    take_syslog();
    MsgbusBroker broker{path};
    EXPECT_FALSE(broker.open());
    EXPECT_EQ(broker.error(), path + " is there and no socket");
    EXPECT_THAT(take_syslog(), Contains(Field(&SyslogLine::text, HasSubstr(broker.error()))));
    EXPECT_EQ(folder.read("bus"), "precious");
}

TEST_F(BrokerSocket, ThatAnotherBrokerPutThereMeanwhileStays) {
    {
        const RunningBroker broker{path};
        std::filesystem::remove(path);
        folder.write("bus", "of another");
    }
    EXPECT_EQ(folder.read("bus"), "of another");
}

TEST_F(BrokerSocket, CannotBeMadeInAMissingDirectoryOrUnderALongPath) {
    MsgbusBroker missing{folder / "missing/bus"};
    EXPECT_FALSE(missing.open());
    EXPECT_THAT(missing.error(), HasSubstr("No such file or directory"));
    MsgbusBroker too_long{folder / std::string(108, 'x')};
    EXPECT_FALSE(too_long.open());
    EXPECT_THAT(too_long.error(), HasSubstr("too long"));
    MsgbusBroker empty{""};
    EXPECT_FALSE(empty.open());
}

TEST_F(BrokerSocket, StoppedBeforeItRunsReturnsAtOnce) {
    MsgbusBroker broker{path};
    ASSERT_TRUE(broker.open());
    broker.stop();
    broker.run();
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(BrokerSocket, ClosesItsClientsAtTheEnd) {
    auto broker = std::make_unique<RunningBroker>(path);
    RawPeer peer = module(1);
    broker.reset();
    EXPECT_TRUE(peer.ended());
}

TEST_F(BrokerAttach, AnswersWithTheModuleId) {
    RawPeer peer = connect();
    ASSERT_TRUE(peer.send(make_frame(MSGBUS_ATTACH, 31, 0)));
    const std::optional<Frame> answer = peer.read();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->header.magic, MSGBUS_MAGIC);
    EXPECT_EQ(answer->header.ver, MSGBUS_VERSION);
    EXPECT_EQ(answer->header.type, MSGBUS_ATTACH);
    EXPECT_EQ(answer->header.dst, 31);
    EXPECT_EQ(answer->header.len, 0u);
}

TEST_F(BrokerAttach, AcceptsTheFirstAndTheLastModuleId) {
    const RawPeer first = module(0);
    const RawPeer last = module(254);
}

TEST_F(BrokerAttach, OfAHeldModuleClosesTheNewConnectionOnly) {
    RawPeer holder = module(5);
    RawPeer second = connect();
    EXPECT_FALSE(second.attach(5));
    EXPECT_TRUE(second.ended());
    ASSERT_TRUE(holder.send(5, 3, "still here"));
    EXPECT_EQ(holder.read()->payload, "still here");
}

TEST_F(BrokerAttach, OfAModuleWhoseHolderDiedIsAcceptedAtOnce) {
    for (int round = 0; round < 100; round++) {
        RawPeer holder = module(5);
        holder.hang_up();
        RawPeer next = connect();
        ASSERT_TRUE(next.attach(5)) << round;
    }
}

TEST_F(BrokerAttach, ForwardsWhatTheDeadHolderSentLast) {
    RawPeer receiver = module(1);
    RawPeer holder = module(5);
    const std::string large(100000, 'x');
    ASSERT_TRUE(holder.send(1, 1, large));
    holder.hang_up();
    const RawPeer next = module(5);
    EXPECT_EQ(receiver.read()->payload, large);
}

TEST_F(BrokerAttach, MustComeFirst) {
    expect_ends_connection(bytes_of(make_frame(MSGBUS_DATA, 9, 1, 1, "x")), false);
}

TEST_F(BrokerAttach, MustComeOnce) {
    expect_ends_connection(bytes_of(make_frame(MSGBUS_ATTACH, 9, 0)), true);
}

TEST_F(BrokerAttach, MustCarryNoPayload) {
    expect_ends_connection(bytes_of(make_frame(MSGBUS_ATTACH, 9, 0, 1, "x")), false);
}

TEST_F(BrokerAttach, OfTheReservedModuleIdIsRefused) {
    expect_ends_connection(bytes_of(make_frame(MSGBUS_ATTACH, 255, 0)), false);
}

TEST_F(BrokerAttach, MustComeWithinABoundedTime) {
    RawPeer silent = connect();
    RawPeer joined = module(1);
    EXPECT_TRUE(silent.ended());
    ASSERT_TRUE(joined.send(1, 1, "still here"));
    EXPECT_EQ(joined.read()->payload, "still here");
}

// The kernel closes what goes beyond the room for one, recvmsg(2) with MSG_CTRUNC.
TEST_F(BrokerAttach, WithMoreDescriptorsThanOneKeepsNoneAfterTheEnd) {
    if (emulated())
        GTEST_SKIP() << "an emulator takes more descriptors than it hands on, and keeps them";
    const int event = eventfd(0, EFD_CLOEXEC);
    const long before = open_descriptors();
    for (const std::size_t count : {std::size_t{1}, std::size_t{2}, std::size_t{100}}) {
        {
            RawPeer peer = connect();
            ASSERT_TRUE(peer.attach_with(5, std::vector<int>(count, event)));
            ASSERT_TRUE(peer.send(5, 1, "echo"));
            EXPECT_EQ(peer.read()->payload, "echo");
        }
        const RawPeer next = module(5);  // whose two ends are open now
        EXPECT_EQ(open_descriptors(), before + 2) << count;
    }
    close(event);
}

TEST_F(BrokerData, WithADescriptorArrivesWithoutIt) {
    RawPeer sender = module(1);
    RawPeer receiver = module(2);
    const long before = open_descriptors();
    const int event = eventfd(0, EFD_CLOEXEC);
    ASSERT_TRUE(sender.pass(bytes_of(make_frame(MSGBUS_DATA, 1, 2, 7, "x")), {event, event}));
    close(event);
    EXPECT_EQ(receiver.read()->header.seq, 7u);
    EXPECT_EQ(open_descriptors(), before);
    ASSERT_TRUE(sender.send(2, 8, "on"));
    EXPECT_EQ(receiver.read()->header.seq, 8u);
}

TEST_F(BrokerAttach, ServesManyModulesAtOnce) {
    std::vector<RawPeer> peers;
    for (int id = 0; id < 255; id++)
        peers.push_back(module(id));
    ASSERT_TRUE(peers[254].send(0, 1, "across"));
    EXPECT_EQ(peers[0].read()->payload, "across");
}

TEST_F(BrokerData, GoesToItsModuleWithTheSenderStamped) {
    RawPeer sender = module(28);
    RawPeer receiver = module(1);
    Frame frame = make_frame(MSGBUS_DATA, 77, 1, 12345, R"({"command":"get"})");
    frame.header.src_uid = 4242;
    ASSERT_TRUE(sender.send(frame));
    const std::optional<Frame> got = receiver.read();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->header.src, 28);
    EXPECT_EQ(got->header.dst, 1);
    EXPECT_EQ(got->header.seq, 12345u);
    EXPECT_EQ(got->header.src_uid, getuid());
    EXPECT_EQ(got->header.type, MSGBUS_DATA);
    EXPECT_EQ(got->payload, R"({"command":"get"})");
}

TEST_F(BrokerData, CarriesTheUidOfTheSendingProcess) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    chmod(folder.path().c_str(), 0755);
    RawPeer receiver = module(1);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (setuid(1234) != 0)
            _exit(1);
        RawPeer sender{path};
        _exit(sender.attach(2) && sender.send(1, 1, "x") ? 0 : 1);
    }
    int status = 1;
    waitpid(child, &status, 0);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(receiver.read()->header.src_uid, 1234u);
}

TEST_F(BrokerData, MayBeEmpty) {
    RawPeer sender = module(1);
    ASSERT_TRUE(sender.send(1, 1, ""));
    EXPECT_EQ(sender.read()->header.len, 0u);
}

TEST_F(BrokerData, ArrivesInOrderWhateverTheSplit) {
    RawPeer sender = module(1);
    RawPeer receiver = module(2);
    std::string stream;
    for (std::uint32_t seq = 1; seq <= 20; seq++)
        stream += bytes_of(make_frame(MSGBUS_DATA, 1, 2, seq, std::string(seq, 'x')));
    for (const char byte : stream)
        ASSERT_TRUE(sender.write({byte}));
    for (std::uint32_t seq = 1; seq <= 20; seq++) {
        const std::optional<Frame> got = receiver.read();
        ASSERT_TRUE(got);
        EXPECT_EQ(got->header.seq, seq);
        EXPECT_EQ(got->payload.size(), seq);
    }
}

TEST_F(BrokerData, OfTheLargestSizeArrivesWhole) {
    RawPeer sender = module(1);
    RawPeer receiver = module(2);
    std::string payload(MSGBUS_MAX_PAYLOAD, '\0');
    std::iota(payload.begin(), payload.end(), '\0');
    std::thread writer{[&] { EXPECT_TRUE(sender.send(2, 1, payload)); }};
    const std::optional<Frame> got = receiver.read();
    writer.join();
    ASSERT_TRUE(got);
    EXPECT_TRUE(got->payload == payload);
}

TEST_F(BrokerData, ForNobodyComesBackAsUndeliverable) {
    RawPeer sender = module(28);
    for (const int missing : {6, 254, 255}) {
        ASSERT_TRUE(sender.send(missing, 99, "lost"));
        const std::optional<Frame> notice = sender.read();
        ASSERT_TRUE(notice);
        EXPECT_EQ(notice->header.type, MSGBUS_UNDELIVERABLE);
        EXPECT_EQ(notice->header.src, missing);
        EXPECT_EQ(notice->header.dst, 28);
        EXPECT_EQ(notice->header.seq, 99u);
        EXPECT_EQ(notice->header.len, 0u);
    }
}

TEST_F(BrokerData, ForAModuleThatLeftIsUndeliverable) {
    RawPeer watcher = monitor();
    RawPeer sender = module(1);
    RawPeer receiver = module(2);
    receiver.hang_up();
    while (watcher.read()->header.type != MSGBUS_DETACH)
        continue;
    ASSERT_TRUE(sender.send(2, 5, "x"));
    EXPECT_EQ(sender.read()->header.type, MSGBUS_UNDELIVERABLE);
}

TEST_F(BrokerData, IsGivenBackBeyond8MiBForASlowReceiverAndNothingElseIsLost) {
    RawPeer sender = module(1);
    RawPeer slow = module(2);
    const std::string megabyte(1024 * 1024, 'x');
    std::uint32_t sent = 0;
    while (!sender.readable(0)) {
        ASSERT_LT(sent, 20u);
        ASSERT_TRUE(sender.send(2, ++sent, megabyte));
        ASSERT_TRUE(sender.send(1, 1000, "barrier"));
        const std::optional<Frame> next = sender.read();
        ASSERT_TRUE(next);
        if (next->header.type == MSGBUS_DATA)
            continue;
        EXPECT_EQ(next->header.type, MSGBUS_UNDELIVERABLE);
        EXPECT_EQ(next->header.src, 2);
        EXPECT_EQ(next->header.seq, sent);
        EXPECT_EQ(sender.read()->payload, "barrier");
        break;
    }
    EXPECT_GT(sent, 8u);
    for (std::uint32_t seq = 1; seq < sent; seq++)
        EXPECT_EQ(slow.read()->header.seq, seq);
    ASSERT_TRUE(sender.send(2, 77, "again"));
    EXPECT_EQ(slow.read()->header.seq, 77u);
}

TEST_F(BrokerData, DoesNotWaitForASlowReceiver) {
    RawPeer sender = module(1);
    const RawPeer slow = module(2);
    RawPeer quick = module(3);
    ASSERT_TRUE(sender.send(2, 1, std::string(4 * 1024 * 1024, 'x')));
    ASSERT_TRUE(sender.send(3, 2, "quick"));
    EXPECT_EQ(quick.read()->payload, "quick");
}

TEST_F(BrokerData, ThatItsReceiverNeverTookComesBack) {
    RawPeer sender = module(1);
    RawPeer receiver = module(2);
    constexpr std::uint32_t kFrames = 6;
    for (std::uint32_t seq = 1; seq <= kFrames; seq++)
        ASSERT_TRUE(sender.send(2, seq, std::string(1024 * 1024, 'x')));
    ASSERT_TRUE(sender.send(1, 1000, "barrier"));
    EXPECT_EQ(sender.read()->payload, "barrier");
    receiver.hang_up();
    for (std::uint32_t seq = 1; seq <= kFrames; seq++) {
        const std::optional<Frame> notice = sender.read();
        ASSERT_TRUE(notice);
        EXPECT_EQ(notice->header.type, MSGBUS_UNDELIVERABLE);
        EXPECT_EQ(notice->header.seq, seq);
    }
}

TEST_F(BrokerData, OfAnEarlierConnectionIsNotGivenBackToTheNext) {
    RawPeer first = module(1);
    RawPeer receiver = module(2);
    ASSERT_TRUE(first.send(2, 1, std::string(4 * 1024 * 1024, 'x')));
    ASSERT_TRUE(first.send(1, 2, "barrier"));
    EXPECT_EQ(first.read()->payload, "barrier");
    first.hang_up();
    RawPeer second = module(1);
    RawPeer watcher = monitor();
    receiver.hang_up();
    while (watcher.read()->header.type != MSGBUS_DETACH)
        continue;
    ASSERT_TRUE(second.send(1, 3, "only this"));
    EXPECT_EQ(second.read()->payload, "only this");
}

TEST_F(BrokerData, FromASenderThatIgnoresItsReturnsIsNotTakenWithoutEnd) {
    RawPeer sender = module(1);
    constexpr std::uint32_t kEnough = 100000;
    std::uint32_t sent = 0;
    while (sent < kEnough && sender.send_if_room(make_frame(MSGBUS_DATA, 1, 99, sent + 1)))
        sent++;
    EXPECT_LT(sent, kEnough);
    expect_alive();
    for (std::uint32_t seq = 1; seq <= sent; seq++)
        ASSERT_EQ(sender.read()->header.seq, seq);
    ASSERT_TRUE(sender.send(1, 7, "taken again"));
    EXPECT_EQ(sender.read()->payload, "taken again");
}

TEST_F(BrokerData, WithAWrongMagicEndsItsConnectionOnly) {
    Frame frame = make_frame(MSGBUS_DATA, 9, 1);
    frame.header.magic = 0xB4;
    take_syslog();
    expect_ends_connection(bytes_of(frame), true);
    EXPECT_THAT(take_syslog(),
                Contains(Field(&SyslogLine::text, HasSubstr("malformed frame from process"))));
    frame.header.type = MSGBUS_ATTACH;
    expect_ends_connection(bytes_of(frame), false);
}

TEST_F(BrokerData, WithAWrongVersionEndsItsConnectionOnly) {
    Frame frame = make_frame(MSGBUS_DATA, 9, 1);
    frame.header.ver = 2;
    expect_ends_connection(bytes_of(frame), true);
}

TEST_F(BrokerData, BeyondTheLargestSizeEndsItsConnectionOnly) {
    for (const std::uint32_t length : {std::uint32_t{MSGBUS_MAX_PAYLOAD + 1}, 0xFFFFFFFFu}) {
        Frame frame = make_frame(MSGBUS_DATA, 9, 1);
        frame.header.len = length;
        expect_ends_connection(bytes_of(frame), true);
    }
}

TEST_F(BrokerData, OfATypeThatClientsDoNotSendEndsItsConnectionOnly) {
    for (const int type : {2, 3, 4, 255})
        expect_ends_connection(bytes_of(make_frame(type, 9, 1)), true);
}

TEST_F(BrokerData, OfGarbageEndsItsConnectionOnly) {
    expect_ends_connection(std::string(5000, 'x'), false);
    expect_ends_connection(std::string(5000, '\0'), true);
}

TEST_F(BrokerData, CutOffByTheSendersEndIsNotForwarded) {
    RawPeer receiver = module(2);
    RawPeer sender = module(1);
    const std::string whole = bytes_of(make_frame(MSGBUS_DATA, 1, 2, 1, "never whole"));
    ASSERT_TRUE(sender.write(whole.substr(0, whole.size() - 1)));
    sender.hang_up();
    RawPeer next = module(1);
    ASSERT_TRUE(next.send(2, 2, "next"));
    EXPECT_EQ(receiver.read()->payload, "next");
}

TEST_F(BrokerData, PassesBetweenManyClientsAtOnce) {
    constexpr int kPairs = 8;
    constexpr std::uint32_t kRounds = 200;
    std::vector<std::thread> threads;
    for (int pair = 0; pair < kPairs; pair++) {
        threads.emplace_back([this, pair] {
            RawPeer server = module(100 + pair);
            for (std::uint32_t i = 0; i < kRounds; i++) {
                const std::optional<Frame> request = server.read();
                ASSERT_TRUE(request);
                ASSERT_TRUE(
                    server.send(request->header.src, request->header.seq, request->payload + "!"));
            }
        });
        threads.emplace_back([this, pair] {
            RawPeer client = module(pair);
            for (std::uint32_t seq = 1; seq <= kRounds;) {
                ASSERT_TRUE(client.send(100 + pair, seq, std::to_string(seq)));
                const std::optional<Frame> answer = client.read();
                ASSERT_TRUE(answer);
                if (answer->header.type == MSGBUS_UNDELIVERABLE)
                    continue;  // the server is not on the bus yet
                EXPECT_EQ(answer->payload, std::to_string(seq) + "!");
                seq++;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

TEST_F(BrokerMonitor, SeesEveryEvent) {
    RawPeer watcher = monitor();
    RawPeer one = module(1);
    RawPeer two = module(2);
    ASSERT_TRUE(one.send(2, 10, "hello"));
    EXPECT_EQ(two.read()->payload, "hello");
    ASSERT_TRUE(one.send(3, 11, "nobody"));
    EXPECT_EQ(one.read()->header.type, MSGBUS_UNDELIVERABLE);
    two.hang_up();

    struct Event {
        int type, src, dst;
        std::string payload;
    };
    for (const Event& expected :
         {Event{MSGBUS_ATTACH, 1, 1, ""}, Event{MSGBUS_ATTACH, 2, 2, ""},
          Event{MSGBUS_DATA, 1, 2, "hello"}, Event{MSGBUS_DATA, 1, 3, "nobody"},
          Event{MSGBUS_UNDELIVERABLE, 3, 1, ""}, Event{MSGBUS_DETACH, 2, 2, ""}}) {
        const std::optional<Frame> seen = watcher.read();
        ASSERT_TRUE(seen);
        EXPECT_EQ(seen->header.type, expected.type);
        EXPECT_EQ(seen->header.src, expected.src);
        EXPECT_EQ(seen->header.dst, expected.dst);
        EXPECT_EQ(seen->payload, expected.payload);
    }
}

TEST_F(BrokerMonitor, HoldsNoModuleAndMayBeOneOfSeveral) {
    RawPeer first = monitor();
    RawPeer second = monitor();
    RawPeer zero = module(0);
    ASSERT_TRUE(zero.send(0, 1, "x"));
    for (RawPeer* watcher : {&first, &second}) {
        EXPECT_EQ(watcher->read()->header.type, MSGBUS_ATTACH);
        EXPECT_EQ(watcher->read()->payload, "x");
    }
}

TEST_F(BrokerMonitor, LearnsFirstWhoIsThere) {
    const RawPeer one = module(1);
    const RawPeer two = module(2);
    RawPeer watcher = monitor();
    for (const int id : {1, 2}) {
        const std::optional<Frame> seen = watcher.read();
        ASSERT_TRUE(seen);
        EXPECT_EQ(seen->header.type, MSGBUS_ATTACH);
        EXPECT_EQ(seen->header.src, id);
    }
}

TEST_F(BrokerMonitor, MustNotSend) {
    RawPeer watcher = monitor();
    ASSERT_TRUE(watcher.send(1, 1, "x"));
    EXPECT_TRUE(watcher.ended());
}

TEST_F(BrokerMonitor, MustNotSendEitherOnceItWasShownAnUndeliverableFrame) {
    RawPeer watcher = monitor();
    RawPeer one = module(1);
    ASSERT_TRUE(one.send(3, 11, "nobody"));
    while (watcher.read()->header.type != MSGBUS_UNDELIVERABLE)
        continue;
    ASSERT_TRUE(watcher.send(1, 1, "x"));
    EXPECT_TRUE(watcher.ended());
}

TEST_F(BrokerMonitor, OfAnotherUserIsRefused) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    chmod(folder.path().c_str(), 0755);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (setuid(1234) != 0)
            _exit(1);
        RawPeer stranger{path};
        _exit(!stranger.attach(0, MSGBUS_MONITOR) && stranger.ended() ? 0 : 1);
    }
    int status = 1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    expect_alive();
}

TEST_F(BrokerMonitor, ThatFallsBehindIsEndedAndDisturbsNobody) {
    RawPeer watcher = monitor();
    RawPeer peer = module(1);
    take_syslog();
    for (std::uint32_t seq = 1; seq <= 20; seq++) {
        ASSERT_TRUE(peer.send(2, seq, std::string(1024 * 1024, 'x')));
        EXPECT_EQ(peer.read()->header.seq, seq);
    }
    EXPECT_THAT(take_syslog(), Contains(Field(&SyslogLine::text, HasSubstr("is too slow"))));
    EXPECT_TRUE(watcher.ended());
}

}  // namespace
