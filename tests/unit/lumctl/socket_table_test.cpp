#include "socket_table.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>

using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr const char* head =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
    "inode\n";

// An address as the kernel of this machine writes it.
std::string kernel_text(int family, const char* address, std::size_t words) {
    std::array<std::uint32_t, 4> bytes{};
    inet_pton(family, address, bytes.data());
    std::string text;
    for (std::size_t i = 0; i < words; i++) {
        std::array<char, 9> word{};
        std::snprintf(word.data(), word.size(), "%08X", bytes[i]);
        text += word.data();
    }
    return text;
}

std::string table_line(const std::string& address, const std::string& state) {
    return "   0: " + address + ":A2C4 " + address + ":1F90 " + state +
           " 00000000:00000000 00:00000000 00000000  1000        0 4711 1 0000000000000000 20 4 30"
           " 10 -1\n";
}

TEST(SocketTable, AnEmptyTableHasNoSockets) {
    EXPECT_THAT(parse_socket_table(""), IsEmpty());
    EXPECT_THAT(parse_socket_table(head), IsEmpty());
}

TEST(SocketTable, ASocketIsReadWithItsPeerStateAndInode) {
    const auto sockets =
        parse_socket_table(head + table_line(kernel_text(AF_INET, "192.0.2.7", 1), "01"));
    ASSERT_THAT(sockets, SizeIs(1));
    EXPECT_EQ(sockets[0].remote_address, "192.0.2.7");
    EXPECT_EQ(sockets[0].remote_port, 8080);
    EXPECT_EQ(sockets[0].state, TCP_ESTABLISHED);
    EXPECT_EQ(sockets[0].inode, 4711u);
}

TEST(SocketTable, ASocketOfIpVersion6IsRead) {
    const auto sockets =
        parse_socket_table(head + table_line(kernel_text(AF_INET6, "2001:db8::7", 4), "02"));
    ASSERT_THAT(sockets, SizeIs(1));
    EXPECT_EQ(sockets[0].remote_address, "2001:db8::7");
    EXPECT_EQ(sockets[0].state, TCP_SYN_SENT);
}

TEST(SocketTable, LinesThatAreNoSocketsAreLeftOut) {
    const std::string good = table_line(kernel_text(AF_INET, "192.0.2.7", 1), "01");
    EXPECT_THAT(parse_socket_table(good + "garbage\n\n   1: 0100:1F90\n" +
                                   table_line("010000", "01") + good),
                SizeIs(2));
}

TEST(SocketTable, ATableThatEndsWithinALineGivesWhatIsWhole) {
    const std::string good = table_line(kernel_text(AF_INET, "192.0.2.7", 1), "01");
    EXPECT_THAT(parse_socket_table(good + good.substr(0, 40)), SizeIs(1));
}

TEST(SocketTable, StatesAreToldInWords) {
    EXPECT_STREQ(tcp_state_text(TCP_ESTABLISHED), "established");
    EXPECT_STREQ(tcp_state_text(TCP_SYN_SENT), "connecting");
    EXPECT_STREQ(tcp_state_text(TCP_CLOSE_WAIT), "closed by the service");
    EXPECT_STREQ(tcp_state_text(TCP_FIN_WAIT1), "closing");
}

}  // namespace
