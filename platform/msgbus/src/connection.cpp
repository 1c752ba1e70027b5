#include "connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <new>

#include "logsink.h"

namespace msgbus {

namespace {

using std::chrono::ceil;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kAttachLimit{1};
constexpr milliseconds kBacklogRetry{10};
// Of frames that wait for one system call. Copying a longer one costs more than a call of its own.
constexpr std::size_t kMaxGathered = std::size_t{32} * 1024;
constexpr std::size_t kLongestGathered = std::size_t{4} * 1024;
// A broker that takes not one byte of a frame for so long is as good as dead.
constexpr seconds kSendStallLimit{10};
// What may arrive while one frame waits to be sent: far more than a broker has for us by then.
constexpr std::size_t kMaxQueuedWhileSending = std::size_t{64} * 1024 * 1024;

// poll(2) for one descriptor until the deadline, signals ignored; the events, or 0, also when the
// kernel cannot wait.
short await(int fd, short events, Connection::Clock::time_point deadline) {
    for (;;) {
        const auto left = ceil<milliseconds>(deadline - Connection::Clock::now()).count();
        pollfd entry{fd, events, 0};
        const int timeout = static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
        const int count = poll(&entry, 1, timeout);
        if (count > 0)
            return entry.revents;
        if (count < 0 ? errno != EINTR : timeout < INT_MAX)
            return 0;
    }
}

// Drops what was sent from the front of `parts`; true while anything is left.
bool drop_sent(std::span<iovec> parts, std::size_t sent) {
    bool left = false;
    for (iovec& part : parts) {
        const std::size_t count = std::min(sent, part.iov_len);
        part.iov_base = static_cast<std::uint8_t*>(part.iov_base) + count;
        part.iov_len -= count;
        sent -= count;
        left = left || part.iov_len > 0;
    }
    return left;
}

}  // namespace

std::string describe_attach_error(int error) {
    switch (error) {
        case EADDRINUSE:
            return "the broker refused it: another process may have that place";
        case EPERM:
            return "the policy of the bus forbids it";
        case ETIMEDOUT:
            return "the broker does not answer";
        case EPROTO:
            return "the broker sent a malformed answer";
        default:
            return std::strerror(error);
    }
}

int Connection::attach(const std::string& socket_path, std::uint8_t module, std::uint8_t dst,
                       int event_fd) {
    const Clock::time_point deadline = Clock::now() + kAttachLimit;
    *this = Connection{};
    module_ = module;
    if (const int error = connect_to(socket_path, deadline))
        return error;
    if (!send(make_header(MSGBUS_ATTACH, module, dst), {}, event_fd))
        return EADDRINUSE;
    if (!wait(deadline)) {
        const int error = connected() ? ETIMEDOUT : parser_.error().empty() ? EADDRINUSE : EPROTO;
        fd_.reset();
        return error;
    }
    const Message answer = take();
    if (answer->header.type == MSGBUS_UNDELIVERABLE) {
        fd_.reset();
        return EPERM;
    }
    const std::uint8_t expected = dst == MSGBUS_MONITOR ? dst : module;
    if (answer->header.type != MSGBUS_ATTACH || answer->header.dst != expected) {
        fd_.reset();
        return EPROTO;
    }
    attached_ = true;
    return 0;
}

int Connection::connect(const std::string& socket_path) {
    *this = Connection{};
    return connect_to(socket_path, Clock::now() + kAttachLimit);
}

int Connection::connect_to(const std::string& socket_path, Clock::time_point deadline) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof address.sun_path)
        return ENAMETOOLONG;
    socket_path.copy(address.sun_path, socket_path.size());
    UniqueFd fd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    if (!fd)
        return errno;
    while (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        // EAGAIN: the broker has not yet accepted those who came before.
        if (errno != EINTR && errno != EAGAIN)
            return errno;
        if (Clock::now() >= deadline)
            return ETIMEDOUT;
        poll(nullptr, 0, static_cast<int>(kBacklogRetry.count()));
    }
    fd_ = std::move(fd);
    return 0;
}

Message Connection::take() {
    if (frames_.empty())
        return nullptr;
    Message frame = std::move(frames_.front());
    frames_.pop_front();
    queued_bytes_ -= frame_size(*frame);
    return frame;
}

void Connection::discard() {
    // Twice: a full queue may have kept more in the socket. Not until the socket is empty, which
    // may never be.
    for (int round = 0; round < 2; round++) {
        fill();
        frames_.clear();
        queued_bytes_ = 0;
    }
}

void Connection::fill() {
    fill(MSGBUS_MAX_WAITING);
}

void Connection::fill(std::size_t limit) {
    Received received = Received::SOMETHING;
    found_nothing_ = true;
    while (fd_ && received == Received::SOMETHING && queued_bytes_ < limit) {
        received = receive_frames(fd_.get(), parser_, [this](Message frame) {
            queued_bytes_ += frame_size(*frame);
            frames_.push_back(std::move(frame));
        });
        found_nothing_ = found_nothing_ && received == Received::NOTHING_YET;
    }
    if (received == Received::END)
        lose("closed by the broker");
    else if (received == Received::MALFORMED)
        lose("malformed frame, " + parser_.error());
}

bool Connection::wait(Clock::time_point deadline) {
    fill();
    while (frames_.empty() && fd_) {
        if (await(fd_.get(), POLLIN, deadline) == 0)
            return false;
        fill();
    }
    return !frames_.empty();
}

bool Connection::send(message_header_s header, std::span<const std::uint8_t> payload, int passed) {
    header.len = static_cast<std::uint32_t>(payload.size());
    const std::vector<std::uint8_t> before = std::move(unsent_);
    unsent_.clear();
    // sendmsg(2) takes its parts writable and does not write them.
    std::array<iovec, 3> parts{{{const_cast<std::uint8_t*>(before.data()), before.size()},
                                {&header, sizeof header},
                                {const_cast<std::uint8_t*>(payload.data()), payload.size()}}};
    return send_parts(parts, passed);
}

bool Connection::send_later(message_header_s header, std::span<const std::uint8_t> payload) {
    if (payload.size() > kLongestGathered)
        return send(header, payload);
    try {
        unsent_.reserve(kMaxGathered);
    } catch (const std::bad_alloc&) {  // no call of this library throws
        return send(header, payload);
    }
    header.len = static_cast<std::uint32_t>(payload.size());
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&header);
    unsent_.insert(unsent_.end(), bytes, bytes + sizeof header);
    unsent_.insert(unsent_.end(), payload.begin(), payload.end());
    return unsent_.size() + sizeof header + kLongestGathered < kMaxGathered ? connected() : flush();
}

bool Connection::flush() {
    if (unsent_.empty())
        return connected();
    std::vector<std::uint8_t> bytes = std::move(unsent_);
    unsent_.clear();
    std::array<iovec, 1> parts{{{bytes.data(), bytes.size()}}};
    return send_parts(parts, -1);
}

bool Connection::send_parts(std::span<iovec> parts, int passed) {
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = static_cast<decltype(message.msg_iovlen)>(parts.size());
    PassedFd control;
    if (passed >= 0)
        control.put_into(message, passed);
    Clock::time_point deadline = Clock::now() + kSendStallLimit;
    while (fd_) {
        const ssize_t sent = sendmsg(fd_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            message.msg_controllen = 0;  // passed
            if (!drop_sent(parts, static_cast<std::size_t>(sent)))
                return true;
            deadline = Clock::now() + kSendStallLimit;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (!await_room(deadline))
                return false;
        } else if (errno != EINTR) {
            const std::string why = std::strerror(errno);
            fill(kMaxQueuedWhileSending);
            lose(why);
        }
    }
    return false;
}

bool Connection::await_room(Clock::time_point deadline) {
    const short events = await(fd_.get(), POLLIN | POLLOUT, deadline);
    if (events == 0)
        lose("the broker takes nothing");
    else if (events & ~POLLOUT)
        fill(kMaxQueuedWhileSending);
    if (queued_bytes_ >= kMaxQueuedWhileSending)
        lose("flooded by the broker");
    return connected();
}

void Connection::lose(const std::string& why) {
    if (fd_ && attached_)
        logsink_message(SINK_WARNING, "msgbus: module %d lost its connection: %s", module_,
                        why.c_str());
    fd_.reset();
}

}  // namespace msgbus
