// RawService: a websocket server (RFC 6455) on a loopback socket, driven by hand.
//
// It speaks the wire format by itself and does nothing on its own: pump() takes what has arrived
// and sends what is due, on the caller's thread. So a test sees every step in a fixed order.
#ifndef TESTS_RAW_SERVICE_H
#define TESTS_RAW_SERVICE_H

#include <arpa/inet.h>
#include <libwebsockets.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

class RawService {
  public:
    enum opcode : unsigned { CONTINUATION = 0, TEXT = 1, CLOSE = 8, PING = 9, PONG = 10 };

    RawService() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = loopback();
        socklen_t size = sizeof address;
        if (bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
            listen(listener_, 4) != 0 ||
            getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0)
            throw std::runtime_error("no loopback socket for the service");
        port_ = ntohs(address.sin_port);
    }
    ~RawService() {
        drop();
        close(listener_);
    }
    RawService(const RawService&) = delete;
    RawService& operator=(const RawService&) = delete;

    [[nodiscard]] int port() const { return port_; }

    void pump() {
        accept_one();
        if (reading)
            receive();
        if (!upgraded_)
            answer_upgrade();
        if (upgraded_)
            take_frames();
        flush();
    }

    void send(opcode kind, const std::string& text, bool final = true) {
        outgoing_ += static_cast<char>((final ? 0x80U : 0U) | kind);
        if (text.size() < 126) {
            outgoing_ += static_cast<char>(text.size());
        } else {
            outgoing_ += '\x7f';
            for (int shift = 56; shift >= 0; shift -= 8)
                outgoing_ += static_cast<char>(static_cast<std::uint64_t>(text.size()) >> shift);
        }
        outgoing_ += text;
    }

    // Ends the connection; the next pump() takes the next one.
    void drop() {
        if (connection_ != -1)
            close(connection_);
        connection_ = -1;
        upgraded_ = false;
        ended = false;
        incoming_.clear();
        outgoing_.clear();
    }

    // Value of a header of the last upgrade request.
    [[nodiscard]] std::string header(const std::string& name) const {
        const std::size_t line = request.find("\r\n" + name + ": ");
        if (line == std::string::npos)
            return {};
        const std::size_t value = line + name.size() + 4;
        return request.substr(value, request.find("\r\n", value) - value);
    }

    [[nodiscard]] bool open() const { return upgraded_; }
    [[nodiscard]] bool sent() const { return outgoing_.empty(); }

    bool reading = true;       // false: lets the peer's data pile up
    bool answer_pings = true;  // with a pong
    std::string refusal;       // an HTTP status that answers an upgrade instead
    std::string subprotocol;   // another one than the client asks for
    int pings = 0;             // that have arrived
    int connections = 0;       // accepted so far
    bool ended = false;        // the peer has ended the connection
    std::string request;       // the last upgrade request
    std::vector<std::string> texts;

  private:
    static sockaddr_in loopback() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    void accept_one() {
        if (connection_ != -1)
            return;
        connection_ = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (connection_ != -1)
            ++connections;
    }

    void receive() {
        std::array<char, 65536> piece{};
        for (int i = 0; connection_ != -1 && i < 4; ++i) {
            const ssize_t n = recv(connection_, piece.data(), piece.size(), 0);
            if (n <= 0) {
                ended = n == 0 || errno != EAGAIN;
                return;
            }
            incoming_.append(piece.data(), static_cast<std::size_t>(n));
        }
    }

    void answer_upgrade() {
        const std::size_t end = incoming_.find("\r\n\r\n");
        if (end == std::string::npos)
            return;
        request = incoming_.substr(0, end + 2);
        incoming_.erase(0, end + 4);
        upgraded_ = refusal.empty();
        if (!upgraded_) {
            outgoing_ += "HTTP/1.1 " + refusal + "\r\nContent-Length: 0\r\n\r\n";
            return;
        }
        outgoing_ +=
            "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
            "Connection: Upgrade\r\nSec-WebSocket-Accept: " +
            accept_key(header("Sec-WebSocket-Key")) + "\r\nSec-WebSocket-Protocol: " +
            (subprotocol.empty() ? header("Sec-WebSocket-Protocol") : subprotocol) + "\r\n\r\n";
    }

    // RFC 6455, section 4.2.2, item 5.4.
    static std::string accept_key(const std::string& key) {
        const std::string joined = key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
        std::array<unsigned char, 20> hash{};
        lws_SHA1(reinterpret_cast<const unsigned char*>(joined.data()), joined.size(), hash.data());
        std::array<char, 32> text{};
        lws_b64_encode_string(reinterpret_cast<const char*>(hash.data()), hash.size(), text.data(),
                              text.size());
        return text.data();
    }

    [[nodiscard]] std::uint64_t number(std::size_t at, std::size_t bytes) const {
        std::uint64_t value = 0;
        for (std::size_t i = at; i < at + bytes; ++i)
            value = value << 8U | static_cast<unsigned char>(incoming_[i]);
        return value;
    }

    void take_frames() {
        while (take_frame()) {
        }
    }

    // A client's frames are masked (RFC 6455, section 5.3).
    bool take_frame() {
        if (incoming_.size() < 2)
            return false;
        const std::uint64_t short_size = number(1, 1) & 0x7FU;
        const std::size_t size_bytes = short_size == 127 ? 8 : short_size == 126 ? 2 : 0;
        const std::size_t head = 2 + size_bytes + 4;
        if (incoming_.size() < head)
            return false;
        const std::uint64_t announced = size_bytes == 0 ? short_size : number(2, size_bytes);
        if (incoming_.size() - head < announced)
            return false;
        const auto size = static_cast<std::size_t>(announced);
        if ((number(1, 1) & 0x80U) == 0)
            throw std::runtime_error("a client's frame without a mask");
        const auto kind = static_cast<opcode>(number(0, 1) & 0x0FU);
        std::string payload = incoming_.substr(head, size);
        for (std::size_t i = 0; i < payload.size(); ++i)
            payload[i] = static_cast<char>(payload[i] ^ incoming_[head - 4 + i % 4]);
        incoming_.erase(0, head + size);
        take(kind, payload);
        return true;
    }

    void take(opcode kind, const std::string& payload) {
        if (kind == TEXT)
            texts.push_back(payload);
        else if (kind == PING) {
            ++pings;
            if (answer_pings)
                send(PONG, payload);
        } else if (kind != CLOSE && kind != PONG) {
            throw std::runtime_error("a frame the client never sends: " + std::to_string(kind));
        }
    }

    void flush() {
        while (connection_ != -1 && !outgoing_.empty()) {
            const ssize_t n = ::send(connection_, outgoing_.data(), outgoing_.size(), MSG_NOSIGNAL);
            if (n <= 0)
                return;
            outgoing_.erase(0, static_cast<std::size_t>(n));
        }
    }

    int listener_;
    int connection_ = -1;
    int port_ = 0;
    bool upgraded_ = false;
    std::string incoming_;
    std::string outgoing_;
};

#endif
