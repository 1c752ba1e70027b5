#include <gmock/gmock.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "bus_test_support.h"
#include "program.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

class Msgbusctl : public testing::Test {
  protected:
    std::vector<std::string> command(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {MSGBUSCTL, "-s", path});
        return arguments;
    }

    TemporaryFolder folder;
    const std::string path = folder / "bus";
    std::unique_ptr<RunningBroker> broker = std::make_unique<RunningBroker>(path);
};

TEST_F(Msgbusctl, SendsOneMessage) {
    RawPeer receiver{path};
    ASSERT_TRUE(receiver.attach(6));
    Program program{command({"-m", "40", "send", "6", R"({"command":"x"})"})};
    EXPECT_EQ(program.rest(), "");
    EXPECT_EQ(program.exit_status(), 0);
    const std::optional<Frame> frame = receiver.read();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->header.src, 40);
    EXPECT_EQ(frame->payload, R"({"command":"x"})");
}

TEST_F(Msgbusctl, SendsStandardInput) {
    RawPeer receiver{path};
    ASSERT_TRUE(receiver.attach(6));
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"send", "6", "-"}, {"send", "hubd"}}) {
        Program program{command(words), "from a pipe"};
        EXPECT_EQ(program.exit_status(), 0);
        EXPECT_EQ(receiver.read()->payload, "from a pipe");
    }
}

TEST_F(Msgbusctl, ReportsAMessageThatCannotBeDelivered) {
    for (const char* wait : {"-t1", "-m41"}) {
        Program program{command({wait, "send", "6", "x"})};
        EXPECT_THAT(program.rest(), HasSubstr("module 6 is not on the bus"));
        EXPECT_EQ(program.exit_status(), 1);
    }
}

// Each way to send, from a module that may send to 6 alone.
TEST_F(Msgbusctl, TellsWhatThePolicyForbids) {
    broker.reset();
    MsgbusSettings settings;
    ASSERT_EQ(settings.take("allow=" + std::to_string(getuid()) + " as 40,6 to 6"), "");
    broker = std::make_unique<RunningBroker>(path, settings);
    RawPeer receiver{path};
    ASSERT_TRUE(receiver.attach(6));
    Program allowed{command({"-m40", "send", "6", "x"})};
    EXPECT_EQ(allowed.rest(), "");
    EXPECT_EQ(allowed.exit_status(), 0);
    for (const std::vector<std::string>& options :
         {std::vector<std::string>{"-m40"}, std::vector<std::string>{"-m40", "-t1"}}) {
        std::vector<std::string> arguments = options;
        arguments.insert(arguments.end(), {"send", "1", "x"});
        Program forbidden{command(arguments)};
        EXPECT_THAT(forbidden.rest(), HasSubstr("module 1 must not be sent to: the policy of the "
                                                "bus forbids it"));
        EXPECT_EQ(forbidden.exit_status(), 1);
    }
    Program stranger{command({"-m41", "send", "6", "x"})};
    EXPECT_THAT(stranger.rest(), HasSubstr("the policy of the bus forbids it"));
    EXPECT_EQ(stranger.exit_status(), 1);
}

TEST_F(Msgbusctl, WaitsForTheAnswerAndPrintsIt) {
    RawPeer server{path};
    ASSERT_TRUE(server.attach(1));
    Program program{command({"-w", "send", "1", "question"})};
    const std::optional<Frame> request = server.read();
    ASSERT_TRUE(request);
    ASSERT_TRUE(server.send(request->header.src, request->header.seq + 7, "something else"));
    ASSERT_TRUE(server.send(request->header.src, request->header.seq, "the answer"));
    EXPECT_EQ(program.rest(), "the answer\n");
    EXPECT_EQ(program.exit_status(), 0);
}

TEST_F(Msgbusctl, FailsWhenNoAnswerComesInTime) {
    RawPeer server{path};
    ASSERT_TRUE(server.attach(1));
    Program program{command({"-t", "0", "send", "1", "question"})};
    EXPECT_EQ(program.rest(), "msgbusctl: no answer within 0 seconds\n");
    EXPECT_EQ(program.exit_status(), 1);
}

TEST_F(Msgbusctl, FailsWhenTheBrokerEndsMeanwhile) {
    RawPeer server{path};
    ASSERT_TRUE(server.attach(1));
    Program program{command({"-w", "send", "1", "question"})};
    EXPECT_TRUE(server.read());
    broker.reset();
    EXPECT_THAT(program.rest(), HasSubstr("lost the connection"));
    EXPECT_EQ(program.exit_status(), 1);
}

TEST_F(Msgbusctl, FailsWithoutABrokerOrWithAHeldModule) {
    RawPeer holder{path};
    ASSERT_TRUE(holder.attach(41));
    Program held{command({"-m", "41", "send", "41", "x"})};
    EXPECT_THAT(held.rest(), HasSubstr("the broker refused it"));
    EXPECT_EQ(held.exit_status(), 1);
    broker.reset();
    for (const std::vector<std::string>& verb :
         {std::vector<std::string>{"monitor"}, {"send", "1", "x"}}) {
        Program program{command(verb)};
        EXPECT_THAT(program.rest(), StartsWith("msgbusctl: cannot join the bus at " + path));
        EXPECT_EQ(program.exit_status(), 1);
    }
}

TEST_F(Msgbusctl, ExplainsItsUse) {
    Program help{{MSGBUSCTL, "-h"}};
    EXPECT_THAT(help.rest(), StartsWith("usage: msgbusctl"));
    EXPECT_EQ(help.exit_status(), 0);
    for (const std::vector<std::string>& wrong : {std::vector<std::string>{},
                                                  {"dance"},
                                                  {"send"},
                                                  {"send", "1", "a", "b"},
                                                  {"monitor", "1"},
                                                  {"send", "255", "x"},
                                                  {"send", "hubx", "x"},
                                                  {"send", "-1", "x"},
                                                  {"-m", "1x", "send", "1", "x"},
                                                  {"-t", "soon", "send", "1", "x"},
                                                  {"-z"}}) {
        Program program{command(wrong)};
        EXPECT_THAT(program.rest(), HasSubstr("msgbusctl"));
        EXPECT_EQ(program.exit_status(), 2);
    }
}

TEST_F(Msgbusctl, MonitorShowsOneLineAnEventWithTimeAndDirection) {
    RawPeer one{path};
    ASSERT_TRUE(one.attach(1));
    Program monitor{command({"monitor"})};
    EXPECT_EQ(monitor.line(), "msgbusctl: monitoring " + path);
    RawPeer two{path};
    ASSERT_TRUE(two.attach(2));
    ASSERT_TRUE(one.send(2, 77, "{\"a\":\n\"b\"}\x7f"));
    ASSERT_TRUE(two.read());
    ASSERT_TRUE(one.send(3, 78, ""));
    ASSERT_TRUE(one.read());
    two.hang_up();
    const std::string time = R"([0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3} )";
    const std::string uid = std::to_string(getuid());
    for (const std::string& event :
         {std::string{R"(1 \(vaultd\) joins)"}, std::string{R"(2 \(lumd\) joins)"},
          R"(1 \(vaultd\) -> 2 \(lumd\) #77 uid )" + uid + R"( [{]"a":\\x0a"b"[}]\\x7f)",
          R"(1 \(vaultd\) -> 3 \(portal\) #78 uid )" + uid + " ",
          std::string{R"(3 \(portal\) -> 1 \(vaultd\) #78 undeliverable)"},
          std::string{R"(2 \(lumd\) leaves)"}})
        EXPECT_THAT(monitor.line(), MatchesRegex(time + event));
    broker.reset();
    EXPECT_EQ(monitor.line(), "msgbusctl: the broker has ended this monitor");
    EXPECT_EQ(monitor.exit_status(), 1);
}

}  // namespace
