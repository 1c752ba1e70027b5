// The way to a service: its name's addresses, and a TCP connection to one of them. Every step ends
// within its time.
#ifndef LUMCTL_NETWORK_H
#define LUMCTL_NETWORK_H

#include <sys/socket.h>

#include <chrono>
#include <string>
#include <vector>

struct network_address {
    sockaddr_storage address{};
    socklen_t length = 0;

    // Numeric, without the port.
    [[nodiscard]] std::string text() const;
};

struct look_up_result {
    std::vector<network_address> addresses;
    std::string error;  // why there are none
};

// getaddrinfo(3) as the agent's library calls it. That waits as long as the name servers are
// silent, so a child process makes the call and is ended with the time.
[[nodiscard]] look_up_result look_up(const std::string& host, int port, std::chrono::seconds limit);

// The address that took the connection, which is closed again, or an error in words.
struct connect_result {
    std::string address;
    std::string error;
};

// Tries the addresses in their order; each gets its share of the time.
[[nodiscard]] connect_result try_connect(const std::vector<network_address>& addresses,
                                         std::chrono::seconds limit);

#endif
