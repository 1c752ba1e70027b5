// Stream: a connected socket with a read buffer, and RFC 6455 frames on it, blocking. One thread
// may read while another writes. What cannot go on ends the program: a benchmark has no use for it.
#ifndef BENCH_STREAM_H
#define BENCH_STREAM_H

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

[[noreturn]] void fail(const std::string& why);

class Stream {
  public:
    explicit Stream(int fd) : fd_(fd) {}
    ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    static int connect_tcp(int port);
    static int connect_unix(const std::string& path);
    static int listen_unix(const std::string& path);
    static int accept_unix(int listener);
    static int accept_tcp(int listener);
    static int listen_tcp(int& port);

    // Valid until the next read.
    [[nodiscard]] std::string_view read(std::size_t count);
    [[nodiscard]] std::string read_line();
    // Takes the first bytes of a connection; the descriptor that came with them (SCM_RIGHTS,
    // unix(7)), the caller's.
    [[nodiscard]] int read_with_descriptor(std::size_t count);
    void write(std::string_view head, std::string_view body);

  private:
    void fill(std::size_t count);

    const int fd_;
    std::string buffer_;
    std::size_t begin_ = 0;
    std::mutex writing_;
};

// One end of a websocket link.
class Websocket {
  public:
    enum Opcode : std::uint8_t { TEXT = 1, BINARY = 2, CLOSE = 8, PING = 9, PONG = 10 };

    // The server's end: answers the handshake of the client that comes.
    static void accept_handshake(Stream& stream);
    // The client's end; `protocol` is the subprotocol it asks for.
    static void ask_handshake(Stream& stream, const std::string& protocol);

    Websocket(Stream& stream, bool masks) : stream_(stream), masks_(masks) {}

    void write(Opcode opcode, std::string_view payload);
    // The next whole data message, or a pong's payload; answers pings. Valid until the next.
    [[nodiscard]] std::string_view read();

  private:
    Opcode read_frame(bool& final);

    Stream& stream_;
    const bool masks_;  // a client's frames are masked (5.3), a server's are not
    std::string message_;
    std::string masked_;
};

#endif
