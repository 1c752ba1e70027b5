#include "broker_client.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <span>
#include <utility>
#include <vector>

namespace msgbus {

namespace {

constexpr std::chrono::seconds kAttachLimit{5};
// A client that does not take back its undeliverable frames is not read until it does.
constexpr std::size_t kMaxReturned = 4096;
// Of one client in one round of the broker: the others wait no longer than it takes to forward
// these.
constexpr std::size_t kFramesPerRound = 32;

bool is_returned(const BrokerClient::Waiting& entry) {
    return entry.frame->header.type == MSGBUS_UNDELIVERABLE;
}

// The supplementary groups; none from a kernel before 4.13.
std::vector<gid_t> groups_of([[maybe_unused]] int fd) {
    std::vector<gid_t> groups;
#ifdef SO_PEERGROUPS
    socklen_t bytes = 0;
    while (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &bytes) != 0) {
        if (errno != ERANGE)
            return {};
        groups.resize(bytes / sizeof(gid_t));
    }
    groups.resize(bytes / sizeof(gid_t));
#endif
    return groups;
}

}  // namespace

std::optional<Peer> peer_of(int fd) {
    ucred process{};
    socklen_t length = sizeof process;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &process, &length) != 0)
        return std::nullopt;
    Peer peer{process.pid, {process.uid, groups_of(fd)}};
    peer.user.groups.push_back(process.gid);
    return peer;
}

BrokerClient::BrokerClient(UniqueFd fd, Peer peer, std::uint64_t id, const MsgbusLimits& limits)
    : fd_(std::move(fd)),
      peer_(std::move(peer)),
      id_(id),
      attach_until_(Clock::now() + kAttachLimit),
      limits_(limits),
      rate_(limits.rate, Clock::now()) {}

bool BrokerClient::is_trusted() const {
    return uid() == 0 || uid() == geteuid();
}

void BrokerClient::become_module(std::uint8_t module, const MsgbusPolicy::Modules& receivers) {
    role_ = Role::MODULE;
    module_ = module;
    receivers_ = receivers;
}

bool BrokerClient::may_send_to(std::uint8_t module) const {
    return module >= receivers_.size() || receivers_[module];
}

bool BrokerClient::is_first_refusal(std::uint8_t module) {
    const bool first = !refused_[module];
    refused_[module] = true;
    return first;
}

bool BrokerClient::is_late(Clock::time_point now) const {
    return role_ == Role::NEWCOMER && now >= attach_until_;
}

bool BrokerClient::takes_returns() const {
    return returned_ < kMaxReturned;
}

pollfd BrokerClient::poll_entry(Clock::time_point now) {
    const bool may_send = takes_returns() && unread_.empty() && rate_.left(now) > 0;
    const int wanted = (may_send ? POLLIN : 0) | (queue_.empty() ? 0 : POLLOUT);
    return {fd_.get(), static_cast<short>(wanted), 0};
}

BrokerClient::Clock::time_point BrokerClient::due_at(Clock::time_point now) {
    const bool held_back = rate_.left(now) == 0;
    if (!takes_returns() || (unread_.empty() && !held_back))
        return Clock::time_point::max();
    return rate_.next(now);
}

bool BrokerClient::hung_up() const {
    pollfd entry{fd_.get(), 0, 0};
    return poll(&entry, 1, 0) == 1 && (entry.revents & (POLLHUP | POLLERR)) != 0;
}

// One frame at least: the end of a client is seen behind its last one.
Received BrokerClient::receive(const FrameParser::Sink& sink) {
    const std::size_t allowed =
        std::clamp<std::size_t>(rate_.left(Clock::now()), 1, kFramesPerRound);
    std::size_t most = allowed;
    Received received = Received::SOMETHING;
    if (unread_.empty()) {
        received = receive_piece(sink, most);
    } else {
        const std::span<const std::uint8_t> rest = parser_.feed_some(unread_, sink, most);
        unread_.erase(unread_.begin(), unread_.end() - static_cast<std::ptrdiff_t>(rest.size()));
    }
    rate_.take(allowed - most);
    return parser_.error().empty() ? received : Received::MALFORMED;
}

Received BrokerClient::receive_piece(const FrameParser::Sink& sink, std::size_t& most) {
    const bool may_pass = role_ == Role::NEWCOMER && is_trusted();
    std::array<std::uint8_t, kChunkBytes> chunk;
    std::size_t count = 0;
    const Received received =
        receive_chunk(fd_.get(), parser_, sink, may_pass ? &event_ : nullptr, chunk, count);
    const std::span<const std::uint8_t> rest =
        parser_.feed_some(std::span{chunk}.first(count), sink, most);
    unread_.assign(rest.begin(), rest.end());
    return received;
}

bool BrokerClient::begins_to_be_held_back() {
    return rate_.is_used_up_anew(Clock::now());
}

bool BrokerClient::enqueue(SharedFrame frame, std::uint64_t sender) {
    const bool first = queue_.empty();
    const Waiting entry{std::move(frame), sender};
    returned_ += is_returned(entry) ? 1 : 0;
    queue_.push(entry);
    return first;
}

// Wakes for any bytes at all: of a long frame the other side must take the first before there is
// room for the last.
bool BrokerClient::flush() {
    bool moved = false;
    while (!queue_.empty()) {
        const ssize_t sent = send_front();
        if (sent >= 0) {
            moved = true;
            drop_sent(static_cast<std::size_t>(sent));
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            break;
        } else if (errno != EINTR) {
            return false;
        }
    }
    if (moved)
        wake();
    return true;
}

// One sendmsg(2) of as many of the frames that wait as it takes here.
ssize_t BrokerClient::send_front() const {
    std::array<iovec, BrokerQueue::kFramesPerSend> parts{};
    const std::deque<Waiting>& next = queue_.next();
    const std::size_t count = std::min(parts.size(), next.size());
    for (std::size_t i = 0; i < count; i++) {
        // sendmsg(2) takes its parts writable and does not write them.
        auto* const frame = const_cast<message_s*>(next[i].frame.get());
        parts[i] = {frame, frame_size(*frame)};
    }
    parts[0].iov_base = static_cast<std::uint8_t*>(parts[0].iov_base) + front_sent_;
    parts[0].iov_len -= front_sent_;
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = static_cast<decltype(message.msg_iovlen)>(count);
    return sendmsg(fd_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
}

void BrokerClient::drop_sent(std::size_t sent) {
    front_sent_ += sent;
    while (!queue_.empty()) {
        const Waiting& front = queue_.next().front();
        const std::size_t size = frame_size(*front.frame);
        if (front_sent_ < size)
            return;
        returned_ -= is_returned(front) ? 1 : 0;
        received_frames_ += front.frame->header.type == MSGBUS_DATA ? 1 : 0;
        front_sent_ -= size;
        queue_.pop();
    }
}

// Never blocks: a counter that is full wakes its reader already.
void BrokerClient::wake() const {
    if (!event_)
        return;
    pollfd entry{event_.get(), POLLOUT, 0};
    const std::uint64_t one = 1;
    if (poll(&entry, 1, 0) != 1 || (entry.revents & POLLOUT) == 0)
        return;
    [[maybe_unused]] const ssize_t written = write(event_.get(), &one, sizeof one);
}

std::deque<BrokerClient::Waiting> BrokerClient::end() {
    fd_.reset();
    event_.reset();
    return queue_.take_all();
}

}  // namespace msgbus
