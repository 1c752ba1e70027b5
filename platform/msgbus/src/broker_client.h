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
#include <memory>
#include <optional>
#include <string>

#include "frame.h"
#include "msgbus_policy.h"

namespace msgbus {

// One frame may wait for several clients.
using SharedFrame = std::shared_ptr<const message_s>;

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

    // A frame on its way to this client, and the client it came from (0: the broker itself).
    struct Waiting {
        SharedFrame frame;
        std::uint64_t sender = 0;
    };

    // A newcomer on that non-blocking socket. `id` is never used twice.
    BrokerClient(UniqueFd fd, Peer peer, std::uint64_t id);

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
    // Whether this is the first time that the client is refused to send to that module.
    bool is_first_refusal(std::uint8_t module);

    // Whether a newcomer has let the time to attach pass.
    [[nodiscard]] bool is_late(Clock::time_point now) const;

    // What poll(2) is to wait for.
    [[nodiscard]] pollfd poll_entry() const;

    // Whether the other side has closed: nothing more will be written to this socket.
    [[nodiscard]] bool hung_up() const;

    // Receives one piece and hands each frame that it completes to `sink`. A newcomer that is
    // trusted may pass its eventfd(2) along.
    [[nodiscard]] Received receive(const FrameParser::Sink& sink);
    // What was wrong with a malformed frame.
    [[nodiscard]] const std::string& frame_error() const { return parser_.error(); }

    // Lets the frame wait for the next flush(). True when none waited before.
    bool enqueue(SharedFrame frame, std::uint64_t sender);
    // Whether more waits than the broker keeps for one client.
    [[nodiscard]] bool is_behind() const { return waiting_bytes_ > MSGBUS_MAX_WAITING; }

    // Sends what the socket takes of what waits, and wakes the other side when that was anything.
    // False when the connection is broken.
    [[nodiscard]] bool flush();

    // Closes the connection; what it has not taken. The second call does nothing.
    std::deque<Waiting> end();
    [[nodiscard]] bool ended() const { return !fd_; }

  private:
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
    FrameParser parser_;
    std::deque<Waiting> waiting_;
    std::size_t waiting_bytes_ = 0;
    std::size_t front_sent_ = 0;  // bytes of waiting_.front() that are out already
    std::size_t returned_ = 0;    // undeliverable frames among waiting_
};

}  // namespace msgbus

#endif
