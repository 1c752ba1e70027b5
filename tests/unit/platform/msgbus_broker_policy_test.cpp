#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "msgbus_broker.h"
#include "msgbus_fixture.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* forbidden = "the policy of the bus forbids it";

MsgbusSettings settings_of(const std::string& text) {
    MsgbusSettings settings;
    EXPECT_EQ(settings.take(text), "");
    return settings;
}

// This process may be module 5 and 6, and as 5 send to 6 alone, as 6 to 5 alone.
class BrokerPolicy : public Msgbus {
  protected:
    [[nodiscard]] RawPeer module(int id) const {
        RawPeer peer{path};
        EXPECT_TRUE(peer.attach(id));
        return peer;
    }

    const std::string me = std::to_string(getuid());
    RunningBroker broker{path,
                         settings_of("allow=" + me + " as 5 to 6\nallow=" + me + " as 6 to 5\n")};
};

TEST_F(BrokerPolicy, LetsANamedModuleSendToANamedOne) {
    RawPeer five = module(5);
    RawPeer six = module(6);
    ASSERT_TRUE(five.send(6, 1, "question"));
    EXPECT_EQ(six.read()->payload, "question");
    ASSERT_TRUE(six.send(5, 1, "answer"));
    EXPECT_EQ(five.read()->payload, "answer");
    EXPECT_THAT(take_syslog(), IsEmpty());
}

TEST_F(BrokerPolicy, RefusesAModuleWithATextAndOneLogLine) {
    RawPeer stranger{path};
    ASSERT_TRUE(stranger.send(make_frame(MSGBUS_ATTACH, 7, 0)));
    const std::optional<Frame> refusal = stranger.read();
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->header.type, MSGBUS_UNDELIVERABLE);
    EXPECT_EQ(refusal->header.src, 7);
    EXPECT_EQ(refusal->payload, forbidden);
    EXPECT_TRUE(stranger.ended());
    EXPECT_THAT(take_syslog(),
                ElementsAre(Field(&SyslogLine::text,
                                  testing::MatchesRegex("msgbus broker: uid [0-9]+ of process "
                                                        "[0-9]+ must not be module 7"))));
}

TEST_F(BrokerPolicy, GivesBackAForbiddenMessageWithATextAndOneLogLineForAll) {
    RawPeer five = module(5);
    RawPeer six = module(6);
    for (const std::uint32_t seq : {11u, 12u}) {
        ASSERT_TRUE(five.send(5, seq, "to itself"));
        const std::optional<Frame> refusal = five.read();
        ASSERT_TRUE(refusal);
        EXPECT_EQ(refusal->header.type, MSGBUS_UNDELIVERABLE);
        EXPECT_EQ(refusal->header.src, 5);
        EXPECT_EQ(refusal->header.seq, seq);
        EXPECT_EQ(refusal->payload, forbidden);
    }
    ASSERT_TRUE(five.send(6, 13, "still allowed"));
    EXPECT_EQ(six.read()->payload, "still allowed");
    EXPECT_THAT(take_syslog(),
                ElementsAre(Field(&SyslogLine::text,
                                  AllOf(testing::StartsWith("msgbus broker: module 5, uid " + me),
                                        testing::HasSubstr("must not send to module 5")))));
}

TEST_F(BrokerPolicy, RefusesAMessageWhetherOrNotItsReceiverIsThere) {
    RawPeer five = module(5);
    ASSERT_TRUE(five.send(200, 1, "x"));
    EXPECT_EQ(five.read()->payload, forbidden);
    ASSERT_TRUE(five.send(6, 2, "x"));
    EXPECT_EQ(five.read()->payload, "") << "allowed, and nobody there";
}

TEST_F(BrokerPolicy, IsToldByTheClientThatMayNotJoin) {
    EXPECT_EQ(join(7), nullptr);
    EXPECT_THAT(take_syslog(),
                logged("msgbus: module 7 cannot join the bus at " + path + ": " + forbidden));
}

TEST_F(BrokerPolicy, EndsAWaitForAnAnswerAtOnce) {
    const msgbus_ptr ctx = join(5);
    const RawPeer receiver{path};
    msgbus_peer_start(ctx.get());
    send(ctx, 9, "{}");
    EXPECT_EQ(wait_answer(ctx), nullptr);
    const std::vector<SyslogLine> lines = take_syslog();
    EXPECT_THAT(lines,
                logged(std::string{"msgbus: module 5 cannot send to module 9: "} + forbidden));
    EXPECT_THAT(lines, logged("Error: no answer"));
}

TEST_F(BrokerPolicy, IsToldOnceByAClientThatOnlyPolls) {
    const msgbus_ptr five = join(5);
    const msgbus_ptr six = join(6);
    msgbus_peer_start(five.get());
    msgbus_peer_start(six.get());
    for (int i = 0; i < 3; i++)
        send(five, 9, "{}");
    send(five, 6, "barrier");
    EXPECT_EQ(text_of(poll_frame(six)), "barrier");
    EXPECT_EQ(poll_once(five), nullptr);
    long told = 0;
    for (const SyslogLine& line : take_syslog())
        told += line.text.find("cannot send to module 9") != std::string::npos ? 1 : 0;
    EXPECT_EQ(told, 1);
}

// Runs `body` in a process of user and group 65534, with the supplementary group 4711; what it
// returned.
template <typename Body>
bool as_another_user(Body body) {
    const pid_t child = fork();
    if (child == 0) {
        constexpr gid_t supplementary = 4711;
        constexpr uid_t nobody = 65534;
        const bool became =
            setgroups(1, &supplementary) == 0 && setgid(nobody) == 0 && setuid(nobody) == 0;
        _exit(became && body() ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status == 0;
}

// Whether the kernel tells of a peer's supplementary groups: Linux does since 4.13, an emulator of
// its system calls may not (unix(7), SO_PEERGROUPS).
bool tells_groups_of_peers() {
    std::array<int, 2> pair{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()), 0);
    socklen_t bytes = 0;
    const bool told =
        getsockopt(pair[0], SOL_SOCKET, SO_PEERGROUPS, nullptr, &bytes) == 0 || errno == ERANGE;
    close(pair[0]);
    close(pair[1]);
    return told;
}

class BrokerPolicyForOthers : public Msgbus {
  protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can become another user";
        chmod(folder.path().c_str(), 0755);
    }
    [[nodiscard]] bool other_may_be(int module) const {
        return as_another_user([&] {
            RawPeer peer{path};
            return peer.attach(module);
        });
    }
    [[nodiscard]] bool other_may_connect() const {
        return as_another_user([&] {
            try {
                const RawPeer peer{path};
                return true;
            } catch (const std::runtime_error&) {
                return false;
            }
        });
    }
};

TEST_F(BrokerPolicyForOthers, WithoutAFileNobodyElseMayConnect) {
    const RunningBroker broker{path, MsgbusSettings{}};
    EXPECT_FALSE(other_may_connect());
}

TEST_F(BrokerPolicyForOthers, WithoutRulesNobodyElseIsAModule) {
    MsgbusSettings settings;
    settings.mode = 0666;
    const RunningBroker broker{path, settings};
    EXPECT_TRUE(other_may_connect());
    EXPECT_FALSE(other_may_be(31));
}

TEST_F(BrokerPolicyForOthers, TheSocketsGroupMayConnect) {
    for (const char* group : {"65534", "4711"}) {
        const RunningBroker broker{path, settings_of(std::string{"group="} + group)};
        struct stat status {};
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, 0u);
        EXPECT_EQ(std::to_string(status.st_gid), group);
        EXPECT_EQ(status.st_mode & 07777u, 0660u);
        EXPECT_TRUE(other_may_connect());
    }
}

TEST_F(BrokerPolicyForOthers, ABrokerThatMayNotGiveItsSocketAwayLeavesNone) {
    chmod(folder.path().c_str(), 0777);
    EXPECT_TRUE(as_another_user([&] {
        MsgbusBroker broker{path, settings_of("group=0")};
        return !broker.open() && broker.error().find("cannot listen on") == 0;
    }));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(BrokerPolicyForOthers, ARuleNamesItsUserAndEachOfItsGroups) {
    for (const char* who : {"65534", "@65534", "@4711", "any"}) {
        if (std::strcmp(who, "@4711") == 0 && !tells_groups_of_peers())
            continue;
        const RunningBroker broker{
            path, settings_of(std::string{"mode=0666\nallow="} + who + " as 31 to any")};
        EXPECT_TRUE(other_may_be(31)) << who;
        EXPECT_FALSE(other_may_be(30)) << who;
    }
    const RunningBroker broker{path, settings_of("mode=0666\nallow=root as any to any\n"
                                                 "allow=@0 as any to any\n")};
    EXPECT_FALSE(other_may_be(31));
}

}  // namespace
