#include "network.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <utility>

#include "owned_fd.h"

namespace {

using std::chrono::ceil;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int most_addresses = 8;  // more are not tried

struct addrinfo_releaser {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

int left_ms(steady_clock::time_point deadline) {
    const auto left = ceil<milliseconds>(deadline - steady_clock::now()).count();
    return static_cast<int>(std::max<long long>(left, 0));
}

// poll(2) until the deadline, signals ignored; whether an event came.
bool await(int fd, short events, steady_clock::time_point deadline) {
    pollfd entry{fd, events, 0};
    int count = 0;
    do
        count = poll(&entry, 1, left_ms(deadline));
    while (count < 0 && errno == EINTR);
    return count > 0;
}

// What the child writes: a status of getaddrinfo(3), then addresses.
[[noreturn]] void look_up_in_child(int out, const std::string& host, int port) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    const int status = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
    bool written = write(out, &status, sizeof status) == sizeof status;
    int count = 0;
    for (const addrinfo* entry = list; written && entry != nullptr && count < most_addresses;
         entry = entry->ai_next, ++count) {
        network_address found;
        found.length = std::min<socklen_t>(entry->ai_addrlen, sizeof found.address);
        std::memcpy(&found.address, entry->ai_addr, found.length);
        written = write(out, &found, sizeof found) == sizeof found;
    }
    _exit(0);
}

// Reads a whole record of the child; false at the end of the pipe and at the deadline.
template <typename Record>
bool read_record(int fd, Record& record, steady_clock::time_point deadline) {
    std::size_t done = 0;
    while (done < sizeof record && await(fd, POLLIN, deadline)) {
        const ssize_t count =
            read(fd, reinterpret_cast<char*>(&record) + done, sizeof record - done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        done += static_cast<std::size_t>(count);
    }
    return done == sizeof record;
}

look_up_result read_addresses(int fd, std::chrono::seconds limit) {
    const auto deadline = steady_clock::now() + limit;
    look_up_result result;
    int status = 0;
    if (!read_record(fd, status, deadline)) {
        result.error = "no name server answers within " + std::to_string(limit.count()) + " s";
        return result;
    }
    if (status != 0)
        result.error = gai_strerror(status);
    for (network_address found; read_record(fd, found, deadline);)
        result.addresses.push_back(found);
    return result;
}

std::string connect_error_text(int error, std::chrono::seconds limit) {
    switch (error) {
        case 0:
            return {};
        case ECONNREFUSED:
            return "the connection is refused: nobody listens on that port";
        case EHOSTUNREACH:
        case ENETUNREACH:
            return "there is no route to that address";
        case ETIMEDOUT:
            return "no answer within " + std::to_string(limit.count()) + " s";
        default:
            return std::strerror(error);
    }
}

// 0 once connected, or an errno value.
int connect_once(const network_address& to, steady_clock::time_point deadline) {
    const owned_fd peer(
        socket(to.address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (peer.fd < 0)
        return errno;
    if (connect(peer.fd, reinterpret_cast<const sockaddr*>(&to.address), to.length) == 0)
        return 0;
    if (errno != EINPROGRESS)
        return errno;
    if (!await(peer.fd, POLLOUT, deadline))
        return ETIMEDOUT;
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(peer.fd, SOL_SOCKET, SO_ERROR, &error, &size);
    return error;
}

}  // namespace

std::string network_address::text() const {
    char text[NI_MAXHOST] = "";
    getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, text, sizeof text, nullptr, 0,
                NI_NUMERICHOST);
    return text;
}

look_up_result look_up(const std::string& host, int port, std::chrono::seconds limit) {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0)
        return {{}, std::strerror(errno)};
    const owned_fd reader(ends[0]);
    auto writer = std::make_unique<owned_fd>(ends[1]);
    const pid_t child = fork();
    if (child == 0)
        look_up_in_child(writer->fd, host, port);
    if (child < 0)
        return {{}, std::strerror(errno)};
    writer.reset();  // so that the pipe ends with the child
    look_up_result result = read_addresses(reader.fd, limit);
    kill(child, SIGKILL);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR)
        continue;
    return result;
}

connect_result try_connect(const std::vector<network_address>& addresses,
                           std::chrono::seconds limit) {
    const auto begin = steady_clock::now();
    int error = EHOSTUNREACH;
    for (std::size_t i = 0; i < addresses.size(); i++) {
        const auto share = milliseconds(limit) * (i + 1) / addresses.size();
        error = connect_once(addresses[i], begin + share);
        if (error == 0)
            return {addresses[i].text(), {}};
    }
    return {{}, connect_error_text(error, limit)};
}
