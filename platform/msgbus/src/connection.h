// Connection is one client's end of the stream to the broker, on a non-blocking socket.
//
// What arrives is queued whole frame by whole frame. One thread at a time.
#ifndef PLATFORM_MSGBUS_CONNECTION_H
#define PLATFORM_MSGBUS_CONNECTION_H

#include <sys/uio.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <vector>

#include "frame.h"

namespace msgbus {

// What Connection::attach() means by its result.
[[nodiscard]] std::string describe_attach_error(int error);

class Connection {
  public:
    using Clock = std::chrono::steady_clock;  // CLOCK_MONOTONIC

    // Connects and sends the attach frame; 0 once the broker has answered it, else an errno value:
    // EADDRINUSE when the broker refuses, EPERM when its policy does, ETIMEDOUT when it stays
    // silent, EPROTO when it answers anything else, or what connect(2) gave. Frames received on an
    // earlier connection are lost. The attach frame carries `event_fd`, unless -1, for the broker
    // to add to.
    [[nodiscard]] int attach(const std::string& socket_path, std::uint8_t module, std::uint8_t dst,
                             int event_fd = -1);

    // Connects and sends nothing: for who only asks (MSGBUS_LIST). 0 or an errno value.
    [[nodiscard]] int connect(const std::string& socket_path);

    // For poll(2); the connection's.
    [[nodiscard]] int descriptor() const { return fd_.get(); }

    [[nodiscard]] bool connected() const { return static_cast<bool>(fd_); }
    [[nodiscard]] bool has_frames() const { return !frames_.empty(); }

    // The oldest frame received, or null.
    [[nodiscard]] Message take();

    // Forgets all that has arrived so far.
    void discard();

    // Queues what has arrived, without waiting, until about MSGBUS_MAX_WAITING bytes are queued:
    // then the socket holds the rest and the broker learns that this client is slow.
    void fill();

    // Whether the last fill() received not one byte.
    [[nodiscard]] bool found_nothing() const { return found_nothing_; }

    // Waits until a frame is queued. False at the deadline and when the connection is lost.
    [[nodiscard]] bool wait(Clock::time_point deadline);

    // Sends a whole frame, its length set here. While the broker does not take it, goes on
    // receiving, so that the two never wait for each other. Its first byte carries the descriptor
    // `passed` unless -1. False: the connection is lost.
    bool send(message_header_s header, std::span<const std::uint8_t> payload, int passed = -1);

    // The same, but a short frame may stay here until the next send() or flush(): one system call
    // then carries them all.
    bool send_later(message_header_s header, std::span<const std::uint8_t> payload);
    bool flush();

  private:
    [[nodiscard]] int connect_to(const std::string& socket_path, Clock::time_point deadline);
    void fill(std::size_t limit);
    bool send_parts(std::span<iovec> parts, int passed);
    [[nodiscard]] bool await_room(Clock::time_point deadline);
    void lose(const std::string& why);

    UniqueFd fd_;
    FrameParser parser_;
    std::deque<Message> frames_;
    std::size_t queued_bytes_ = 0;
    std::vector<std::uint8_t> unsent_;  // whole frames of send_later()
    std::uint8_t module_ = 0;
    bool attached_ = false;
    bool found_nothing_ = false;
};

}  // namespace msgbus

#endif
