#include "ready.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <string_view>

void tell_ready() {
    const char* const asked = std::getenv("NOTIFY_SOCKET");
    const std::string_view name = asked != nullptr ? asked : "";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (name.empty() || name.size() >= sizeof address.sun_path)
        return;
    name.copy(address.sun_path, name.size());
    if (address.sun_path[0] == '@')
        address.sun_path[0] = '\0';  // unix(7): an abstract address
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return;
    constexpr std::string_view text = "READY=1";
    const std::size_t size = offsetof(sockaddr_un, sun_path) + name.size();
    static_cast<void>(sendto(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                             reinterpret_cast<const sockaddr*>(&address),
                             static_cast<socklen_t>(size)));
    close(fd);
}
