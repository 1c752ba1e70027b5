#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "cfgtree.h"
#include "msgbus_broker.h"
#include "msgbus_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kSocketBuffers = 2 * 1024 * 1024;  // more than those of both ends hold

class BrokerList : public Msgbus {
  protected:
    [[nodiscard]] RawPeer module(int id) const {
        RawPeer peer{path};
        EXPECT_TRUE(peer.attach(id));
        return peer;
    }
    // The answer to a request of that peer.
    static std::optional<Frame> ask(RawPeer& peer, std::uint32_t seq = 1) {
        EXPECT_TRUE(peer.send(make_frame(MSGBUS_LIST, 0, 0, seq)));
        return peer.read();
    }
    // What a newcomer is told.
    [[nodiscard]] cfgtree_ptr list() const {
        RawPeer peer{path};
        const std::optional<Frame> answer = ask(peer);
        return cfgtree_ptr{cfgtree_parse(answer ? answer->payload.c_str() : nullptr)};
    }
    // That member of each module.
    static std::vector<std::string> members(const cfgtree_ptr& list, const char* name) {
        const cfgtree_node* modules = cfgtree_get_child(list.get(), "modules");
        std::vector<std::string> values;
        for (std::size_t i = 0; i < cfgtree_array_length(modules); i++) {
            const char* value = cfgtree_get_param(cfgtree_array_at(modules, i), name);
            values.emplace_back(value ? value : "(none)");
        }
        return values;
    }

    RunningBroker broker{path};
};

TEST_F(BrokerList, NamesEachModuleWithItsProcessByNumber) {
    const RawPeer hubd = module(6);
    const RawPeer vaultd = module(1);
    const cfgtree_ptr answer = list();
    const std::string pid = std::to_string(getpid());
    const std::string uid = std::to_string(getuid());
    EXPECT_THAT(members(answer, "module"), ElementsAre("1", "6"));
    EXPECT_THAT(members(answer, "pid"), ElementsAre(pid, pid));
    EXPECT_THAT(members(answer, "uid"), ElementsAre(uid, uid));
}

TEST_F(BrokerList, IsEmptyOnAnEmptyBus) {
    const cfgtree_ptr answer = list();
    EXPECT_EQ(cfgtree_get_type(cfgtree_get_child(answer.get(), "modules")), CFGTREE_ARRAY);
    EXPECT_THAT(members(answer, "module"), IsEmpty());
}

TEST_F(BrokerList, LeavesOutWhoHasLeft) {
    RawPeer hubd = module(6);
    RawPeer watcher{path};
    ASSERT_TRUE(watcher.attach(0, MSGBUS_MONITOR));
    hubd.hang_up();
    while (watcher.read()->header.type != MSGBUS_DETACH)
        continue;
    EXPECT_THAT(members(list(), "module"), IsEmpty());
}

TEST_F(BrokerList, CountsDataFramesThatWereSentAndReceived) {
    RawPeer one = module(1);
    RawPeer two = module(2);
    for (const std::uint32_t seq : {1u, 2u, 3u}) {
        ASSERT_TRUE(one.send(2, seq, "x"));
        ASSERT_TRUE(two.read());
    }
    ASSERT_TRUE(one.send(9, 4, "to nobody"));
    ASSERT_TRUE(one.read());
    const cfgtree_ptr answer = list();
    EXPECT_THAT(members(answer, "sent"), ElementsAre("4", "0"));
    EXPECT_THAT(members(answer, "received"), ElementsAre("0", "3"));
}

TEST_F(BrokerList, TellsWhatAModuleHasNotTaken) {
    RawPeer one = module(1);
    RawPeer two = module(2);
    ASSERT_TRUE(one.send(2, 1, std::string(kSocketBuffers, 'x')));
    ASSERT_TRUE(one.send(2, 2, "y"));
    ASSERT_TRUE(one.send(1, 3, "the broker has read what was sent before"));
    ASSERT_TRUE(one.read());
    const cfgtree_ptr waiting = list();
    const int both = kSocketBuffers + 1 + 2 * static_cast<int>(sizeof(message_header_s));
    EXPECT_THAT(members(waiting, "waiting-frames"), ElementsAre("0", "2"));
    EXPECT_THAT(members(waiting, "waiting-bytes"), ElementsAre("0", std::to_string(both)));
    ASSERT_TRUE(two.read());
    ASSERT_TRUE(two.read());
    const cfgtree_ptr taken = list();
    EXPECT_THAT(members(taken, "waiting-frames"), ElementsAre("0", "0"));
    EXPECT_THAT(members(taken, "waiting-bytes"), ElementsAre("0", "0"));
}

TEST_F(BrokerList, AnswersUnderTheNumberOfTheRequest) {
    RawPeer peer{path};
    for (const std::uint32_t seq : {7u, 8u}) {
        const std::optional<Frame> answer = ask(peer, seq);
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->header.type, MSGBUS_LIST);
        EXPECT_EQ(answer->header.seq, seq);
    }
}

TEST_F(BrokerList, IsForMonitorsTooAndForThoseWhoJoinLater) {
    RawPeer watcher{path};
    ASSERT_TRUE(watcher.attach(0, MSGBUS_MONITOR));
    EXPECT_EQ(ask(watcher)->header.type, MSGBUS_LIST);
    RawPeer newcomer{path};
    EXPECT_EQ(ask(newcomer)->header.type, MSGBUS_LIST);
    EXPECT_TRUE(newcomer.attach(3));
}

TEST_F(BrokerList, IsNotForModulesAndTakesNoPayload) {
    RawPeer one = module(1);
    EXPECT_FALSE(ask(one));
    EXPECT_THAT(take_syslog(), logged("its type 4 with 0 bytes is out of place"));
    RawPeer newcomer{path};
    ASSERT_TRUE(newcomer.send(make_frame(MSGBUS_LIST, 0, 0, 1, "x")));
    EXPECT_TRUE(newcomer.ended());
}

TEST_F(BrokerList, EndsWhoAsksWithoutEndAndTakesNoAnswer) {
    std::vector<RawPeer> modules;  // for a long answer
    for (int id = 0; id < 100; id++)
        modules.push_back(module(id));
    RawPeer watcher{path};
    ASSERT_TRUE(watcher.attach(0, MSGBUS_MONITOR));
    std::string requests;
    for (int i = 0; i < 1000; i++)
        requests += bytes_of(make_frame(MSGBUS_LIST, 0, 0));
    while (watcher.write(requests))
        continue;
    EXPECT_TRUE(watcher.ended());
    EXPECT_EQ(members(list(), "module").size(), modules.size());
}

TEST_F(BrokerList, IsRefusedToAnotherUserWithATextAndALogLine) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    chmod(folder.path().c_str(), 0755);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (setuid(1234) != 0)
            _exit(1);
        RawPeer stranger{path};
        const std::optional<Frame> answer = ask(stranger, 9);
        _exit(answer && answer->header.type == MSGBUS_UNDELIVERABLE && answer->header.seq == 9 &&
                      answer->payload ==
                          "only root and the user of the broker may list its modules" &&
                      stranger.ended()
                  ? 0
                  : 1);
    }
    int status = 1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_THAT(take_syslog(), logged("msgbus broker: uid 1234 of process " +
                                      std::to_string(child) + " must not list the modules"));
}

}  // namespace
