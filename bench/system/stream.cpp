#include "stream.h"

#include <arpa/inet.h>
#include <libwebsockets.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t chunk_bytes = std::size_t{256} * 1024;
constexpr std::uint8_t final_bit = 0x80;
constexpr std::uint8_t mask_bit = 0x80;
constexpr std::size_t length_16 = 126;  // a 16-bit length follows (RFC 6455, 5.2)
constexpr std::size_t length_64 = 127;
constexpr const char* key_salt = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
// A fixed mask costs the same as a random one.
constexpr std::array<char, 4> mask = {0x12, 0x34, 0x56, 0x78};

std::string accept_key(const std::string& key) {
    const std::string salted = key + key_salt;
    std::array<unsigned char, 20> digest;
    lws_SHA1(reinterpret_cast<const unsigned char*>(salted.data()), salted.size(), digest.data());
    std::array<char, 64> text{};
    lws_b64_encode_string(reinterpret_cast<const char*>(digest.data()), digest.size(), text.data(),
                          text.size());
    return text.data();
}

// The value of a header of that lower-case name, in the line; empty for another line.
std::string header_value(const std::string& line, const std::string& name) {
    std::string head = line.substr(0, name.size());
    std::transform(head.begin(), head.end(), head.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const std::size_t from = line.find_first_not_of(" :", name.size());
    return head == name && from != std::string::npos ? line.substr(from) : "";
}

void put_big_endian(std::string& out, std::uint64_t value, int bytes) {
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
        out.push_back(static_cast<char>(value >> shift));
}

std::uint64_t get_big_endian(std::string_view bytes) {
    std::uint64_t value = 0;
    for (const char byte : bytes)
        value = value << 8 | static_cast<std::uint8_t>(byte);
    return value;
}

void apply_mask(char* data, std::size_t size, std::string_view key) {
    for (std::size_t i = 0; i < size; i++)
        data[i] = static_cast<char>(data[i] ^ key[i % key.size()]);
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

sockaddr_un local_address(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

void send_at_once(int fd) {
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

}  // namespace

void fail(const std::string& why) {
    std::fprintf(stderr, "bench: %s\n", why.c_str());
    std::_Exit(EXIT_FAILURE);
}

Stream::~Stream() {
    close(fd_);
}

int Stream::connect_tcp(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fail("cannot connect to port " + std::to_string(port));
    send_at_once(fd);
    return fd;
}

int Stream::connect_unix(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = local_address(path);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fail("cannot connect to " + path);
    return fd;
}

int Stream::listen_unix(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = local_address(path);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd, 1) != 0)
        fail("cannot listen at " + path);
    return fd;
}

int Stream::listen_tcp(int& port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd, 1) != 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        fail("cannot listen");
    port = ntohs(address.sin_port);
    return fd;
}

int Stream::accept_unix(int listener) {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
        fail("nobody connects");
    return fd;
}

int Stream::accept_tcp(int listener) {
    const int fd = accept_unix(listener);
    send_at_once(fd);
    return fd;
}

void Stream::fill(std::size_t count) {
    if (buffer_.size() - begin_ >= count)
        return;
    buffer_.erase(0, begin_);
    begin_ = 0;
    while (buffer_.size() < count) {
        const std::size_t old = buffer_.size();
        buffer_.resize(old + chunk_bytes);
        const ssize_t received = recv(fd_, buffer_.data() + old, chunk_bytes, 0);
        if (received <= 0)
            fail("a connection has ended");
        buffer_.resize(old + static_cast<std::size_t>(received));
    }
}

int Stream::read_with_descriptor(std::size_t count) {
    buffer_.resize(count);
    iovec part{buffer_.data(), count};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t received = recvmsg(fd_, &message, MSG_WAITALL | MSG_CMSG_CLOEXEC);
    const cmsghdr* const passed = CMSG_FIRSTHDR(&message);
    if (received != static_cast<ssize_t>(count) || passed == nullptr)
        fail("no descriptor comes");
    buffer_.clear();
    int fd = -1;
    std::memcpy(&fd, CMSG_DATA(passed), sizeof fd);
    return fd;
}

std::string_view Stream::read(std::size_t count) {
    fill(count);
    const std::string_view bytes(buffer_.data() + begin_, count);
    begin_ += count;
    return bytes;
}

std::string Stream::read_line() {
    std::string line;
    while (line.size() < 2 || line.compare(line.size() - 2, 2, "\r\n") != 0)
        line += read(1);
    line.resize(line.size() - 2);
    return line;
}

void Stream::write(std::string_view head, std::string_view body) {
    const std::lock_guard lock(writing_);
    while (!head.empty() || !body.empty()) {
        std::array<iovec, 2> parts{{{const_cast<char*>(head.data()), head.size()},
                                    {const_cast<char*>(body.data()), body.size()}}};
        msghdr message{};
        message.msg_iov = parts.data();
        message.msg_iovlen = parts.size();
        const ssize_t result = sendmsg(fd_, &message, MSG_NOSIGNAL);
        if (result < 0)
            fail(std::string("cannot send: ") + std::strerror(errno));
        const auto sent = static_cast<std::size_t>(result);
        const std::size_t of_head = std::min(sent, head.size());
        head.remove_prefix(of_head);
        body.remove_prefix(sent - of_head);
    }
}

void Websocket::accept_handshake(Stream& stream) {
    std::string key;
    std::string protocol;
    for (std::string line = stream.read_line(); !line.empty(); line = stream.read_line()) {
        key += header_value(line, "sec-websocket-key");
        protocol += header_value(line, "sec-websocket-protocol");
    }
    stream.write(
        "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
        "Connection: Upgrade\r\nSec-WebSocket-Accept: " +
            accept_key(key) + "\r\nSec-WebSocket-Protocol: " + protocol + "\r\n\r\n",
        {});
}

void Websocket::ask_handshake(Stream& stream, const std::string& protocol) {
    stream.write(
        "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\n"
        "Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
        "Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n"
        "Sec-WebSocket-Protocol: " +
            protocol + "\r\n\r\n",
        {});
    if (stream.read_line().find(" 101 ") == std::string::npos)
        fail("the websocket handshake is refused");
    while (!stream.read_line().empty())
        continue;
}

void Websocket::write(Opcode opcode, std::string_view payload) {
    const auto mask_flag = static_cast<std::size_t>(masks_ ? mask_bit : 0);
    std::string head(1, static_cast<char>(final_bit | opcode));
    const bool small = payload.size() < length_16;
    const bool medium = payload.size() <= UINT16_MAX;
    head.push_back(static_cast<char>(mask_flag | (small    ? payload.size()
                                                  : medium ? length_16
                                                           : length_64)));
    if (!small)
        put_big_endian(head, payload.size(), medium ? 2 : 8);
    if (!masks_) {
        stream_.write(head, payload);
        return;
    }
    head.append(mask.data(), mask.size());
    masked_.assign(payload);
    apply_mask(masked_.data(), masked_.size(), {mask.data(), mask.size()});
    stream_.write(head, masked_);
}

// Appends the frame's payload to message_.
Websocket::Opcode Websocket::read_frame(bool& final) {
    const std::string_view head = stream_.read(2);
    const auto first = static_cast<std::uint8_t>(head[0]);
    const auto second = static_cast<std::uint8_t>(head[1]);
    final = (first & final_bit) != 0;
    std::uint64_t size = second & ~mask_bit;
    if (size >= length_16)
        size = get_big_endian(stream_.read(size == length_16 ? 2 : 8));
    const std::string key((second & mask_bit) != 0 ? stream_.read(mask.size())
                                                   : std::string_view{});
    const std::size_t old = message_.size();
    message_.append(stream_.read(size));
    if (!key.empty())
        apply_mask(message_.data() + old, size, key);
    return static_cast<Opcode>(first & 0x0F);
}

std::string_view Websocket::read() {
    message_.clear();
    for (bool final = false; !final;) {
        const std::size_t old = message_.size();
        const Opcode opcode = read_frame(final);
        if (opcode == CLOSE)
            fail("the websocket is closed");
        if (opcode == PING) {
            write(PONG, std::string(message_, old));
            message_.resize(old);
            final = false;
        }
    }
    return message_;
}
