// The kernel's table of TCP sockets, /proc/PID/net/tcp and tcp6 (proc(5)).
#ifndef LUMCTL_SOCKET_TABLE_H
#define LUMCTL_SOCKET_TABLE_H

#include <string>
#include <vector>

struct tcp_socket {
    std::string remote_address;  // as inet_ntop(3) writes it
    int remote_port = 0;
    int state = 0;  // TCP_ESTABLISHED and so on of netinet/tcp.h
    unsigned long inode = 0;
};

// Sockets of either table; lines that are none are left out.
[[nodiscard]] std::vector<tcp_socket> parse_socket_table(const std::string& table);

// "established", "connecting" and so on.
[[nodiscard]] const char* tcp_state_text(int state);

#endif
