#include "agent_process.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "temporary_folder.h"

namespace {

std::string arguments(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words)
        text += word + '\0';
    return text;
}

agent_process agent(pid_t pid, const std::string& config) {
    agent_process made;
    made.pid = pid;
    made.config_path = config;
    return made;
}

TEST(ConfigArgument, IsTheWordBehindTheOption) {
    EXPECT_EQ(config_argument(arguments({"lumd", "-f", "/etc/x"})), "/etc/x");
}

TEST(ConfigArgument, MayStandInTheSameWord) {
    EXPECT_EQ(config_argument(arguments({"lumd", "-f/etc/x"})), "/etc/x");
}

TEST(ConfigArgument, TheLastOneCounts) {
    EXPECT_EQ(config_argument(arguments({"lumd", "-f", "/1", "-f", "/2"})), "/2");
}

TEST(ConfigArgument, IsEmptyWithoutTheOption) {
    EXPECT_EQ(config_argument(arguments({"lumd", "-d", "host"})), "");
    EXPECT_EQ(config_argument(""), "");
    EXPECT_EQ(config_argument(arguments({"lumd", "-f"})), "");
}

TEST(ChooseAgent, TheOnlyOneIsMeantWithoutAFile) {
    EXPECT_EQ(choose_agent({agent(7, "/1")}, "")->pid, 7);
    EXPECT_FALSE(choose_agent({agent(7, "/1"), agent(8, "/2")}, ""));
    EXPECT_FALSE(choose_agent({}, ""));
}

TEST(ChooseAgent, TheFileDecidesWhichIsMeant) {
    EXPECT_EQ(choose_agent({agent(7, "/1"), agent(8, "/2")}, "/2")->pid, 8);
    EXPECT_FALSE(choose_agent({agent(7, "/1"), agent(8, "")}, "/3"));
}

TEST(ChooseAgent, OneFileMayHaveSeveralNames) {
    const TemporaryFolder folder;
    folder.write("file", "");
    ASSERT_EQ(symlink((folder / "file").c_str(), (folder / "link").c_str()), 0);
    EXPECT_TRUE(choose_agent({agent(7, folder / "file")}, folder / "link"));
}

TEST(SocketsOf, AProcessesOwnConnectionIsFound) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    ASSERT_EQ(bind(listener, any, size), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    ASSERT_EQ(getsockname(listener, any, &size), 0);
    ASSERT_EQ(connect(client, any, size), 0);

    const auto sockets = sockets_of(getpid());
    ASSERT_TRUE(sockets);
    const auto found = std::find_if(sockets->begin(), sockets->end(), [&](const tcp_socket& one) {
        return one.remote_port == ntohs(address.sin_port);
    });
    ASSERT_NE(found, sockets->end());
    EXPECT_EQ(found->state, TCP_ESTABLISHED);
    close(client);
    close(listener);
}

TEST(SocketsOf, AProcessThatIsGoneHasNone) {
    EXPECT_FALSE(sockets_of(1 << 30));
}

TEST(IsAlive, OnlyAProcessIs) {
    EXPECT_TRUE(is_alive(getpid()));
    EXPECT_FALSE(is_alive(0));
    EXPECT_FALSE(is_alive(-1));
    EXPECT_FALSE(is_alive(1 << 30));
}

}  // namespace
