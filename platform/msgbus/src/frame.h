// What the bus client, the broker and msgbusctl share: frames, and how they come out of a stream.
#ifndef PLATFORM_MSGBUS_FRAME_H
#define PLATFORM_MSGBUS_FRAME_H

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <utility>

#include "msgbus.h"

static_assert(sizeof(message_header_s) == 17);
static_assert(offsetof(message_header_s, len) == 4);
static_assert(offsetof(message_header_s, seq) == 8);
static_assert(offsetof(message_header_s, src_uid) == 12);
static_assert(offsetof(message_header_s, type) == 16);
static_assert(offsetof(message_s, payload) == sizeof(message_header_s));

namespace msgbus {

// Owns a descriptor; -1 is none.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(std::exchange(other.fd_, -1));
        return *this;
    }
    ~UniqueFd() { reset(); }

    void reset(int fd = -1) {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }
    [[nodiscard]] int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

  private:
    int fd_ = -1;
};

// One descriptor on its way over a socket (SCM_RIGHTS, unix(7)).
class PassedFd {
  public:
    // Lets `message` carry `fd`, or make room for one to receive.
    void put_into(msghdr& message, int fd = -1);

    // What `message` has brought, none when there was nothing; the caller's. What was sent beyond
    // one the kernel closes.
    [[nodiscard]] static UniqueFd take_from(msghdr& message);

  private:
    alignas(cmsghdr) std::array<char, CMSG_LEN(sizeof(int))> space_{};  // room for one, not two
};

struct FreeMessage {
    void operator()(message_s* message) const { std::free(message); }
};
// malloc(3)ed, as msgbus_poll_no_wait() hands it out.
using Message = std::unique_ptr<message_s, FreeMessage>;

[[nodiscard]] message_header_s make_header(msgbus_frame_type type, std::uint8_t src,
                                           std::uint8_t dst, std::uint32_t seq = 1);

// A frame with that header and room for its payload, a NUL behind it; null without memory.
[[nodiscard]] Message make_message(const message_header_s& header);

// Bytes of the whole frame on the wire.
[[nodiscard]] inline std::size_t frame_size(const message_s& message) {
    return sizeof message.header + message.header.len;
}

// FrameParser cuts a byte stream into frames, wherever its pieces begin and end.
class FrameParser {
  public:
    using Sink = std::function<void(Message)>;

    // Hands each frame that `bytes` completes to `sink`. False at a malformed frame: nothing
    // behind it can be understood, and error() tells what was wrong.
    [[nodiscard]] bool feed(std::span<const std::uint8_t> bytes, const Sink& sink);

    // The same until `most` frames are complete, which are then counted off. What is left of
    // `bytes`; nothing at a malformed frame.
    [[nodiscard]] std::span<const std::uint8_t> feed_some(std::span<const std::uint8_t> bytes,
                                                          const Sink& sink, std::size_t& most);

    // Where the bytes belong that the frame under way still lacks; empty between frames and within
    // a header. What is put there straight away is told by filled().
    [[nodiscard]] std::span<std::uint8_t> missing();
    void filled(std::size_t count, const Sink& sink);

    [[nodiscard]] const std::string& error() const { return error_; }

  private:
    std::size_t take_header(std::span<const std::uint8_t> bytes);
    std::size_t take_payload(std::span<const std::uint8_t> bytes);
    void check_header();
    bool hand_over_when_whole(const Sink& sink);

    message_header_s header_{};
    std::size_t header_received_ = 0;
    Message frame_;  // null while the header is incomplete
    std::size_t payload_received_ = 0;
    std::string error_;
};

// Of one call; small enough for the stack of a thread on an embedded C library.
constexpr std::size_t kChunkBytes = std::size_t{16} * 1024;

// ALL: as much as there was for now.
enum class Received { SOMETHING, ALL, NOTHING_YET, END, MALFORMED };

// Receives once from the non-blocking socket into the parser. A descriptor that comes with the
// bytes is in `passed` before their first frame is handed over; without `passed` it is refused.
[[nodiscard]] Received receive_frames(int fd, FrameParser& parser, const FrameParser::Sink& sink,
                                      UniqueFd* passed = nullptr);

// One call of recvmsg(2): a payload that the parser lacks goes there straight away, and `count`
// bytes behind it into `chunk`.
[[nodiscard]] Received receive_chunk(int fd, FrameParser& parser, const FrameParser::Sink& sink,
                                     UniqueFd* passed, std::span<std::uint8_t> chunk,
                                     std::size_t& count);

// $MSGBUS_SOCKET or the default.
[[nodiscard]] std::string default_socket_path();

}  // namespace msgbus

#endif
