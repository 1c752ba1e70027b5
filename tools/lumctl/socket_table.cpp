#include "socket_table.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>

namespace {

constexpr std::size_t word_digits = 8;
constexpr std::size_t most_words = 4;  // of an IPv6 address

// Each 32-bit word stands as the host's number that has the address's bytes in memory.
std::optional<std::string> address_text(const char* digits) {
    const std::size_t length = std::strlen(digits);
    if (length != word_digits && length != most_words * word_digits)
        return std::nullopt;
    std::array<std::uint32_t, most_words> words{};
    for (std::size_t i = 0; i < length / word_digits; i++) {
        unsigned word = 0;
        if (std::sscanf(digits + i * word_digits, "%8x", &word) != 1)
            return std::nullopt;
        words[i] = word;
    }
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(length == word_digits ? AF_INET : AF_INET6, words.data(), text, sizeof text);
    return text;
}

std::optional<tcp_socket> parse_line(const char* line) {
    constexpr const char* form =
        "%*d: %*32[0-9A-Fa-f]:%*x %32[0-9A-Fa-f]:%x %x %*x:%*x %*x:%*x %*x %*u %*d %lu";
    char address[most_words * word_digits + 1] = "";
    unsigned port = 0;
    unsigned state = 0;
    tcp_socket found;
    if (std::sscanf(line, form, address, &port, &state, &found.inode) != 4)
        return std::nullopt;
    const std::optional<std::string> text = address_text(address);
    if (!text)
        return std::nullopt;
    found.remote_address = *text;
    found.remote_port = static_cast<int>(port);
    found.state = static_cast<int>(state);
    return found;
}

}  // namespace

std::vector<tcp_socket> parse_socket_table(const std::string& table) {
    std::vector<tcp_socket> sockets;
    for (std::size_t begin = 0; begin < table.size();) {
        const std::size_t end = std::min(table.find('\n', begin), table.size());
        if (const auto found = parse_line(table.substr(begin, end - begin).c_str()))
            sockets.push_back(*found);
        begin = end + 1;
    }
    return sockets;
}

const char* tcp_state_text(int state) {
    switch (state) {
        case TCP_ESTABLISHED:
            return "established";
        case TCP_SYN_SENT:
            return "connecting";
        case TCP_CLOSE_WAIT:
            return "closed by the service";
        default:
            return "closing";
    }
}
