#include "hostapd_link.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "logsink.h"

namespace apd {

namespace {

// Whether it is a command of hostapd's that gives an access point its keys.
bool sets_up(const std::string& command) {
    return command.starts_with("ADD ") || command.ends_with(" RELOAD");
}

class Socket {
  public:
    Socket() : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
    ~Socket() {
        if (fd_ >= 0)
            close(fd_);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    [[nodiscard]] int get() const { return fd_; }

  private:
    int fd_;
};

// Who has sent the datagram that waits (SCM_CREDENTIALS, unix(7)).
std::optional<int> sender_of(int fd) {
    std::array<char, 64> text;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> room{};
    iovec piece{text.data(), text.size()};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = room.data();
    message.msg_controllen = room.size();
    if (recvmsg(fd, &message, MSG_DONTWAIT) < 0)
        return std::nullopt;
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
         part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_CREDENTIALS)
            continue;
        ucred sender{};
        std::memcpy(&sender, CMSG_DATA(part), sizeof sender);
        return sender.pid;
    }
    return std::nullopt;
}

}  // namespace

bool HostapdLink::connect() {
    if (control_)
        return true;
    auto control = std::make_unique<hostapd_control>(socket_, patience_.usual);
    if (!control->is_open() || !control->attach())
        return false;
    control_ = std::move(control);
    pid_.reset();
    return true;
}

bool HostapdLink::check() {
    return ask(std::string{"PING"}).has_value();
}

// Nobody reads from the socket that a hostapd which has ended has left: connect(2) is refused
// there.
bool HostapdLink::is_silent() const {
    return !control_ && !has_ended() && hostapd_control{socket_}.is_open();
}

bool HostapdLink::has_ended() const {
    return pid_ && kill(*pid_, 0) != 0 && errno == ESRCH;
}

std::optional<std::string> HostapdLink::ask(const std::string& command) {
    if (!control_)
        return std::nullopt;
    std::optional<std::string> answer =
        control_->request(command, sets_up(command) ? patience_.set_up : patience_.usual,
                          [this] { return !has_ended(); });
    if (!answer) {
        logsink_message(SINK_WARNING, "hostapd: %s", control_->why().c_str());
        control_.reset();
    } else if (answer->ends_with('\n')) {
        answer->pop_back();
    }
    return answer;
}

std::optional<HostapdLink::Event> HostapdLink::next_event() {
    if (!control_)
        return std::nullopt;
    const std::optional<std::string> text = control_->next_event();
    if (!control_->is_open())
        control_.reset();
    if (!text)
        return std::nullopt;
    constexpr std::string_view begin = "IFNAME=";
    if (!text->starts_with(begin))
        return Event{"", *text};
    const std::size_t blank = std::min(text->find(' '), text->size());
    Event event{text->substr(begin.size(), blank - begin.size()), ""};
    if (blank < text->size())
        event.text = text->substr(blank + 1);
    return event;
}

std::optional<int> HostapdLink::pid() {
    if (!pid_)
        pid_ = ask_pid();
    return pid_;
}

std::optional<int> HostapdLink::ask_pid() const {
    const Socket probe;
    const int on = 1;
    sockaddr_un own{};
    own.sun_family = AF_UNIX;
    sockaddr_un other = own;
    if (socket_.size() >= sizeof other.sun_path)
        return std::nullopt;
    socket_.copy(other.sun_path, sizeof other.sun_path - 1);
    constexpr std::string_view ping = "PING";
    // Without a name the kernel gives one, to which hostapd can answer.
    if (bind(probe.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own.sun_family) != 0 ||
        setsockopt(probe.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0 ||
        sendto(probe.get(), ping.data(), ping.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
               reinterpret_cast<const sockaddr*>(&other), sizeof other) < 0)
        return std::nullopt;
    pollfd entry{probe.get(), POLLIN, 0};
    return poll(&entry, 1, static_cast<int>(patience_.usual.count())) == 1 ? sender_of(probe.get())
                                                                           : std::nullopt;
}

}  // namespace apd
