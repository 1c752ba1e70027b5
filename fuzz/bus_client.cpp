// What a broker sends to the bus client. The input holds steps: what the client does next, and,
// whenever it looks at its socket, what the broker has done meanwhile.
#include <fcntl.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "input.h"
#include "msgbus.h"
#include "owned.h"

namespace {

constexpr std::uint8_t module_id = 7;
constexpr int timeout = 5;  // seconds; the clock stands still

using Frame = std::unique_ptr<message_s, free_deleter>;

// The broker's end of the client's connection.
class Broker {
  public:
    explicit Broker(fuzz::Reader& input) : input_(input) {}
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;
    ~Broker() { hang_up(); }

    void accept(int fd) {
        hang_up();
        fd_ = fd;
    }

    // One step of the input; false when there is none any more.
    bool step() {
        if (input_.empty() || fd_ < 0)
            return false;
        take();
        switch (input_.byte() % 6) {
            case 0:
                send(input_.take(input_.byte()));
                break;
            case 1:
                send_frame(MSGBUS_ATTACH, module_id, 1, {});
                break;
            case 2:
                send_frame(MSGBUS_DATA, module_id, last_.seq, input_.take(input_.byte()));
                break;
            case 3:
                send_frame(MSGBUS_UNDELIVERABLE, module_id, last_.seq, {});
                break;
            case 4:
                send_any_frame();
                break;
            default:
                shutdown(fd_, SHUT_WR);
                break;
        }
        return true;
    }

  private:
    void hang_up() {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }

    // What the client has sent; the last header among it counts.
    void take() {
        std::array<char, 4096> bytes;
        for (ssize_t n = 0; (n = read(fd_, bytes.data(), bytes.size())) > 0;)
            if (static_cast<std::size_t>(n) >= sizeof last_)
                std::memcpy(&last_, bytes.data(), sizeof last_);
    }

    void send(std::string_view bytes) const {
        ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }

    void send_frame(std::uint8_t type, std::uint8_t dst, std::uint32_t seq,
                    std::string_view payload) const {
        const message_header_s header{MSGBUS_MAGIC,
                                      MSGBUS_VERSION,
                                      3,
                                      dst,
                                      static_cast<std::uint32_t>(payload.size()),
                                      seq,
                                      0,
                                      type};
        send({reinterpret_cast<const char*>(&header), sizeof header});
        send(payload);
    }

    // Good but for what the input says.
    void send_any_frame() {
        message_header_s header{};
        const std::string_view fields = input_.take(sizeof header);
        std::memcpy(&header, fields.data(), fields.size());
        header.magic = MSGBUS_MAGIC;
        header.ver = MSGBUS_VERSION;
        send({reinterpret_cast<const char*>(&header), sizeof header});
    }

    fuzz::Reader& input_;
    int fd_ = -1;
    message_header_s last_{};
};

Broker* broker = nullptr;  // of the input

void act(msgbus_context* ctx, std::uint8_t action) {
    constexpr std::string_view request = R"({"command":"get"})";
    constexpr std::uint8_t flush_from = 128;
    switch (action % 7) {
        case 0:
            static_cast<void>(Frame{msgbus_poll_no_wait(ctx)});
            break;
        case 1: {
            msgbus_send(ctx, request.data(), 9, request.size());
            const cfgtree_ptr answer{msgbus_wait_answer(ctx, "get-response", "no answer", timeout)};
            break;
        }
        case 2:
            msgbus_peer_start(ctx);
            break;
        case 3:
            msgbus_get_module_loop(ctx);
            break;
        case 4:
            if (const Frame frame{msgbus_poll_no_wait(ctx)})
                msgbus_send_answer(ctx, frame.get(), frame->payload, frame->header.len);
            break;
        case 5:
            msgbus_send_later(ctx, request.data(), 9, action % request.size());
            if (action >= flush_from)
                msgbus_flush(ctx);
            break;
        default:
            broker->step();
            break;
    }
}

}  // namespace

// --- the kernel's side of the client ---

// Whoever connects has the input's broker at the other end.
extern "C" int connect(int fd, const sockaddr*, socklen_t) {
    std::array<int, 2> ends{};
    fuzz::require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) ==
                  0);
    fuzz::require(dup3(ends[0], fd, O_CLOEXEC) == fd);
    close(ends[0]);
    broker->accept(ends[1]);
    return 0;
}

// A wait ends by what the broker does, or else at once by its time.
extern "C" int poll(pollfd* descriptors, nfds_t count, int) {
    broker->step();
    timespec none{};
    return static_cast<int>(syscall(SYS_ppoll, descriptors, count, &none, nullptr, 0));
}

// Message numbers are the same in each run.
extern "C" ssize_t getrandom(void* bytes, std::size_t size, unsigned) {
    std::memset(bytes, 1, size);
    return static_cast<ssize_t>(size);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Reader input{fuzz::as_text(data, size)};
    Broker other_end{input};
    broker = &other_end;
    const msgbus_ptr ctx{msgbus_init(module_id, nullptr, 0)};
    while (ctx && !input.empty())
        act(ctx.get(), input.byte());
    return 0;
}
