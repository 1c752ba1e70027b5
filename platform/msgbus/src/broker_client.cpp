#include "broker_client.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>
#include <vector>

namespace msgbus {

namespace {

constexpr std::chrono::seconds kAttachLimit{5};
// A client that does not take back its undeliverable frames is not read until it does.
constexpr std::size_t kMaxReturned = 4096;
constexpr std::size_t kFramesPerSend = 64;

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

BrokerClient::BrokerClient(UniqueFd fd, Peer peer, std::uint64_t id)
    : fd_(std::move(fd)),
      peer_(std::move(peer)),
      id_(id),
      attach_until_(Clock::now() + kAttachLimit) {}

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

pollfd BrokerClient::poll_entry() const {
    const int wanted = (returned_ < kMaxReturned ? POLLIN : 0) | (waiting_.empty() ? 0 : POLLOUT);
    return {fd_.get(), static_cast<short>(wanted), 0};
}

bool BrokerClient::hung_up() const {
    pollfd entry{fd_.get(), 0, 0};
    return poll(&entry, 1, 0) == 1 && (entry.revents & (POLLHUP | POLLERR)) != 0;
}

Received BrokerClient::receive(const FrameParser::Sink& sink) {
    const bool may_pass = role_ == Role::NEWCOMER && is_trusted();
    return receive_frames(fd_.get(), parser_, sink, may_pass ? &event_ : nullptr);
}

bool BrokerClient::enqueue(SharedFrame frame, std::uint64_t sender) {
    waiting_bytes_ += frame_size(*frame);
    waiting_.push_back({std::move(frame), sender});
    returned_ += is_returned(waiting_.back()) ? 1 : 0;
    return waiting_.size() == 1;
}

// Wakes for any bytes at all: of a long frame the other side must take the first before there is
// room for the last.
bool BrokerClient::flush() {
    bool moved = false;
    while (!waiting_.empty()) {
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
    std::array<iovec, kFramesPerSend> parts{};
    const std::size_t count = std::min(parts.size(), waiting_.size());
    for (std::size_t i = 0; i < count; i++) {
        // sendmsg(2) takes its parts writable and does not write them.
        auto* const frame = const_cast<message_s*>(waiting_[i].frame.get());
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
    while (!waiting_.empty()) {
        const std::size_t size = frame_size(*waiting_.front().frame);
        if (front_sent_ < size)
            return;
        returned_ -= is_returned(waiting_.front()) ? 1 : 0;
        waiting_bytes_ -= size;
        front_sent_ -= size;
        waiting_.pop_front();
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
    return std::exchange(waiting_, {});
}

}  // namespace msgbus
