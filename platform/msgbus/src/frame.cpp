#include "frame.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace msgbus {

message_header_s make_header(msgbus_frame_type type, std::uint8_t src, std::uint8_t dst,
                             std::uint32_t seq) {
    message_header_s header{};
    header.magic = MSGBUS_MAGIC;
    header.ver = MSGBUS_VERSION;
    header.src = src;
    header.dst = dst;
    header.seq = seq;
    header.type = static_cast<std::uint8_t>(type);
    return header;
}

Message make_message(const message_header_s& header) {
    const std::size_t payload = header.len;
    Message message{static_cast<message_s*>(std::malloc(sizeof header + payload + 1))};
    if (message) {
        message->header = header;
        message->payload[payload] = 0;
    }
    return message;
}

bool FrameParser::feed(std::span<const std::uint8_t> bytes, const Sink& sink) {
    std::size_t most = bytes.size();  // no frame is without bytes
    static_cast<void>(feed_some(bytes, sink, most));
    return error_.empty();
}

std::span<const std::uint8_t> FrameParser::feed_some(std::span<const std::uint8_t> bytes,
                                                     const Sink& sink, std::size_t& most) {
    while (!bytes.empty() && error_.empty() && most > 0) {
        bytes = bytes.subspan(frame_ ? take_payload(bytes) : take_header(bytes));
        if (hand_over_when_whole(sink))
            most--;
    }
    return error_.empty() ? bytes : std::span<const std::uint8_t>{};
}

std::span<std::uint8_t> FrameParser::missing() {
    if (!frame_)
        return {};
    return {frame_->payload + payload_received_, frame_->header.len - payload_received_};
}

void FrameParser::filled(std::size_t count, const Sink& sink) {
    payload_received_ += count;
    hand_over_when_whole(sink);
}

bool FrameParser::hand_over_when_whole(const Sink& sink) {
    if (!frame_ || payload_received_ < frame_->header.len)
        return false;
    header_received_ = payload_received_ = 0;
    sink(std::move(frame_));
    return true;
}

std::size_t FrameParser::take_header(std::span<const std::uint8_t> bytes) {
    const std::size_t count = std::min(bytes.size(), sizeof header_ - header_received_);
    std::memcpy(reinterpret_cast<std::uint8_t*>(&header_) + header_received_, bytes.data(), count);
    header_received_ += count;
    if (header_received_ == sizeof header_) {
        check_header();
        if (error_.empty() && !(frame_ = make_message(header_)))
            error_ = "no memory for its payload";
    }
    return count;
}

std::size_t FrameParser::take_payload(std::span<const std::uint8_t> bytes) {
    const std::size_t count = std::min(bytes.size(), frame_->header.len - payload_received_);
    std::memcpy(frame_->payload + payload_received_, bytes.data(), count);
    payload_received_ += count;
    return count;
}

void FrameParser::check_header() {
    if (header_.magic != MSGBUS_MAGIC)
        error_ = "its magic is " + std::to_string(header_.magic);
    else if (header_.ver != MSGBUS_VERSION)
        error_ = "its version is " + std::to_string(header_.ver);
    else if (header_.len > MSGBUS_MAX_PAYLOAD)
        error_ = "its length is " + std::to_string(header_.len);
    else if (header_.type > MSGBUS_LIST)
        error_ = "its type is " + std::to_string(header_.type);
}

void PassedFd::put_into(msghdr& message, int fd) {
    message.msg_control = space_.data();
    message.msg_controllen = static_cast<decltype(message.msg_controllen)>(space_.size());
    if (fd < 0)
        return;
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof fd);
    std::memcpy(CMSG_DATA(header), &fd, sizeof fd);
}

UniqueFd PassedFd::take_from(msghdr& message) {
    const cmsghdr* const header = CMSG_FIRSTHDR(&message);
    if (header == nullptr || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS ||
        header->cmsg_len != CMSG_LEN(sizeof(int)))
        return UniqueFd{};
    int fd = -1;
    std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
    return UniqueFd{fd};
}

Received receive_chunk(int fd, FrameParser& parser, const FrameParser::Sink& sink, UniqueFd* passed,
                       std::span<std::uint8_t> chunk, std::size_t& count) {
    const std::span<std::uint8_t> missing = parser.missing();
    std::array<iovec, 2> parts{{{missing.data(), missing.size()}, {chunk.data(), chunk.size()}}};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = static_cast<decltype(message.msg_iovlen)>(parts.size());
    PassedFd control;
    if (passed != nullptr)
        control.put_into(message);
    count = 0;
    ssize_t result = 0;
    do
        result = recvmsg(fd, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    while (result < 0 && errno == EINTR);
    if (result > 0 && passed != nullptr && message.msg_controllen > 0)
        *passed = PassedFd::take_from(message);
    if (result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return Received::NOTHING_YET;
    if (result <= 0)
        return Received::END;
    const auto received = static_cast<std::size_t>(result);
    const std::size_t direct = std::min(received, missing.size());
    const bool all = received < missing.size() + chunk.size();
    count = received - direct;
    if (direct > 0)
        parser.filled(direct, sink);
    return all ? Received::ALL : Received::SOMETHING;
}

Received receive_frames(int fd, FrameParser& parser, const FrameParser::Sink& sink,
                        UniqueFd* passed) {
    std::array<std::uint8_t, kChunkBytes> chunk;
    std::size_t count = 0;
    const Received received = receive_chunk(fd, parser, sink, passed, chunk, count);
    return parser.feed(std::span{chunk}.first(count), sink) ? received : Received::MALFORMED;
}

std::string default_socket_path() {
    const char* path = std::getenv("MSGBUS_SOCKET");
    return path && *path ? path : MSGBUS_DEFAULT_SOCKET;
}

}  // namespace msgbus
