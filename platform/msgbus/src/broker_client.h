// BrokerClient is the broker's end of one connection: who is there, what has arrived in part, what
// waits to be sent, and the eventfd(2) that wakes the other side.
//
// It knows nothing of the other clients. Nothing here blocks. One thread at a time.
#ifndef PLATFORM_MSGBUS_BROKER_CLIENT_H
#define PLATFORM_MSGBUS_BROKER_CLIENT_H

#include <poll.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "broker_queue.h"
#include "broker_rate.h"
#include "frame.h"
#include "msgbus_policy.h"
#include "msgbus_settings.h"

namespace msgbus {

// The process at the other end of a connection.
struct Peer {
    pid_t pid = 0;
    MsgbusUser user;
};

// Whom the kernel names for the socket `fd`; none when it names nobody.
[[nodiscard]] std::optional<Peer> peer_of(int fd);

class BrokerClient {
  public:
    using Clock = std::chrono::steady_clock;

    // A module sends and receives, a monitor is shown what goes over the bus.
    enum class Role { NEWCOMER, MODULE, MONITOR };

    using Waiting = BrokerQueue::Waiting;

    // A newcomer on that non-blocking socket. `id` is never used twice.
    BrokerClient(UniqueFd fd, Peer peer, std::uint64_t id, const MsgbusLimits& limits);

    [[nodiscard]] std::uint64_t id() const { return id_; }
    [[nodiscard]] pid_t pid() const { return peer_.pid; }
    [[nodiscard]] uid_t uid() const { return peer_.user.uid; }
    [[nodiscard]] const MsgbusUser& user() const { return peer_.user; }
    // Root and the broker's own user: they could end the broker anyway.
    [[nodiscard]] bool is_trusted() const;

    // A module that may send to the modules `receivers`.
    void become_module(std::uint8_t module, const MsgbusPolicy::Modules& receivers);
    void become_monitor() { role_ = Role::MONITOR; }
    [[nodiscard]] Role role() const { return role_; }
    [[nodiscard]] std::uint8_t module() const { return module_; }  // of a module

    // A module id beyond the last is nobody's and may be sent to.
    [[nodiscard]] bool may_send_to(std::uint8_t module) const;
    // Data frames that this client has sent, whatever became of them, and that went out to it.
    void count_sent() { sent_frames_++; }
    [[nodiscard]] std::uint64_t sent_frames() const { return sent_frames_; }
    [[nodiscard]] std::uint64_t received_frames() const { return received_frames_; }

    // Whether this is the first time that the client is refused to send to that module.
    bool is_first_refusal(std::uint8_t module);

    // Whether a newcomer has let the time to attach pass.
    [[nodiscard]] bool is_late(Clock::time_point now) const;

    // What poll(2) is to wait for.
    [[nodiscard]] pollfd poll_entry(Clock::time_point now);
    // When there will be something to receive() although nothing happens to the socket.
    [[nodiscard]] Clock::time_point due_at(Clock::time_point now);

    // Whether the other side has closed: nothing more will be written to this socket.
    [[nodiscard]] bool hung_up() const;

    // Receives one piece and hands each frame that it completes to `sink`, so many at most that
    // the others need not wait long; the rest of the piece is for the next time. A newcomer that is
    // trusted may pass its eventfd(2) along.
    [[nodiscard]] Received receive(const FrameParser::Sink& sink);
    // Whether it has just begun to send more frames a second than the limit.
    [[nodiscard]] bool begins_to_be_held_back();
    // What was wrong with a malformed frame.
    [[nodiscard]] const std::string& frame_error() const { return parser_.error(); }

    // Lets the frame wait for the next flush(). True when none waited before.
    bool enqueue(SharedFrame frame, std::uint64_t sender);
    [[nodiscard]] std::size_t waiting_bytes() const { return queue_.bytes(); }
    [[nodiscard]] std::size_t waiting_frames() const { return queue_.frames(); }
    // Whether more waits than the broker keeps for one client.
    [[nodiscard]] bool is_behind() const { return queue_.bytes() > limits_.waiting; }
    // Whether more of that sender does than its share of it.
    [[nodiscard]] bool is_behind_for(std::uint64_t sender) const {
        return queue_.is_full_for(sender, limits_.waiting);
    }

    // Sends what the socket takes of what waits, and wakes the other side when that was anything.
    // False when the connection is broken.
    [[nodiscard]] bool flush();

    // Closes the connection; what it has not taken. The second call does nothing.
    std::deque<Waiting> end();
    [[nodiscard]] bool ended() const { return !fd_; }

  private:
    [[nodiscard]] bool takes_returns() const;
    [[nodiscard]] Received receive_piece(const FrameParser::Sink& sink, std::size_t& most);
    [[nodiscard]] ssize_t send_front() const;
    void drop_sent(std::size_t sent);
    void wake() const;

    UniqueFd fd_;
    UniqueFd event_;  // bumped with what is sent; none: the other side polls
    const Peer peer_;
    const std::uint64_t id_;
    const Clock::time_point attach_until_;
    Role role_ = Role::NEWCOMER;
    std::uint8_t module_ = 0;
    MsgbusPolicy::Modules receivers_;
    MsgbusPolicy::Modules refused_;  // to send to, so far
    const MsgbusLimits limits_;
    BrokerRate rate_;
    FrameParser parser_;
    std::vector<std::uint8_t> unread_;  // of the last piece: not yet given to the parser
    BrokerQueue queue_;
    std::size_t front_sent_ = 0;  // bytes of the queue's first frame that are out already
    std::size_t returned_ = 0;    // undeliverable frames in the queue
    std::uint64_t sent_frames_ = 0;
    std::uint64_t received_frames_ = 0;
};

}  // namespace msgbus

#endif
