#include "broker_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "logsink.h"

namespace msgbus {

namespace {

// What lies in a client's socket is beyond the broker's ordering. The kernel takes it twice
// (socket(7)).
constexpr int kSocketBytes = 32 * 1024;

sockaddr_un address_of(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

UniqueFd make_socket() {
    return UniqueFd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
}

}  // namespace

bool BrokerSocket::fail(const std::string& what) {
    error_ = what;
    return false;
}

bool BrokerSocket::open() {
    if (path_.empty() || path_.size() >= sizeof(sockaddr_un::sun_path))
        return fail("the socket path '" + path_ + "' is empty or too long");
    return make_way() && listen_there();
}

// Removes a socket that nobody listens on; nothing else.
bool BrokerSocket::make_way() {
    struct stat status {};
    if (lstat(path_.c_str(), &status) != 0)
        return errno == ENOENT ? true : fail(path_ + ": " + std::strerror(errno));
    if (!S_ISSOCK(status.st_mode))
        return fail(path_ + " is there and no socket");
    const sockaddr_un address = address_of(path_);
    const UniqueFd probe = make_socket();
    if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
        errno != ECONNREFUSED)
        return fail(path_ + " is in use");
    return unlink(path_.c_str()) == 0 ? true : fail(path_ + ": " + std::strerror(errno));
}

bool BrokerSocket::listen_there() {
    const sockaddr_un address = address_of(path_);
    UniqueFd listener = make_socket();
    const std::string what = "cannot listen on " + path_ + ": ";
    if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return fail(what + std::strerror(errno));
    if (!open_to_its_group(listener.get())) {
        const std::string why = std::strerror(errno);
        unlink(path_.c_str());
        return fail(what + why);
    }
    listener_ = std::move(listener);
    return true;
}

// Nobody can connect before listen(2), so the file has its owner and bits in time.
bool BrokerSocket::open_to_its_group(int listener) {
    struct stat status {};
    if ((group_ && chown(path_.c_str(), static_cast<uid_t>(-1), *group_) != 0) ||
        chmod(path_.c_str(), mode_) != 0 || listen(listener, SOMAXCONN) != 0 ||
        stat(path_.c_str(), &status) != 0)
        return false;
    device_ = status.st_dev;
    inode_ = status.st_ino;
    return true;
}

pollfd BrokerSocket::poll_entry() const {
    return {listener_.get(), static_cast<short>(paused_ ? 0 : POLLIN), 0};
}

UniqueFd BrokerSocket::accept() {
    UniqueFd fd;
    do
        fd.reset(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    while (!fd && (errno == EINTR || errno == ECONNABORTED));
    if (fd) {
        failed_ = false;
        // Best effort: with more a client merely reads more of a flood before what comes next.
        static_cast<void>(
            setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &kSocketBytes, sizeof kSocketBytes));
    } else if (errno != EAGAIN && errno != EWOULDBLOCK) {
        if (!std::exchange(failed_, true))
            logsink_message(SINK_ERROR, "msgbus broker: cannot accept a client: %s",
                            std::strerror(errno));
        paused_ = true;
    }
    return fd;
}

void BrokerSocket::close() {
    struct stat status {};
    if (listener_ && stat(path_.c_str(), &status) == 0 && status.st_dev == device_ &&
        status.st_ino == inode_)
        unlink(path_.c_str());
    listener_.reset();
}

}  // namespace msgbus
