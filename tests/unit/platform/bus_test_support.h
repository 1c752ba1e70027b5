// A peer on the bus that speaks bare bytes, and the broker on a thread of its own.
#ifndef TESTS_BUS_TEST_SUPPORT_H
#define TESTS_BUS_TEST_SUPPORT_H

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "msgbus.h"
#include "msgbus_broker.h"
#include "temporary_folder.h"

constexpr int kPatienceMs = 20000;  // bound of every wait; only a failing test uses it up

// After so long without room the other side does not read; a busy machine does not fail a test.
constexpr int kNoRoomMs = 300;

struct Frame {
    message_header_s header{};
    std::string payload;
};

inline Frame make_frame(int type, int src, int dst, std::uint32_t seq = 1,
                        std::string payload = {}) {
    Frame frame;
    frame.header.magic = MSGBUS_MAGIC;
    frame.header.ver = MSGBUS_VERSION;
    frame.header.src = static_cast<std::uint8_t>(src);
    frame.header.dst = static_cast<std::uint8_t>(dst);
    frame.header.len = static_cast<std::uint32_t>(payload.size());
    frame.header.seq = seq;
    frame.header.type = static_cast<std::uint8_t>(type);
    frame.payload = std::move(payload);
    return frame;
}

inline std::string bytes_of(const Frame& frame) {
    return std::string(reinterpret_cast<const char*>(&frame.header), sizeof frame.header) +
           frame.payload;
}

// One end of a stream; blocking, every read bounded.
class RawPeer {
  public:
    explicit RawPeer(int fd) : fd_(fd) {}
    explicit RawPeer(const std::string& path)
        : RawPeer(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error{"connect " + path};
    }
    ~RawPeer() { hang_up(); }
    RawPeer(RawPeer&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    RawPeer& operator=(RawPeer&&) = delete;

    void hang_up() {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }

    bool write(const std::string& bytes) {
        for (std::size_t done = 0; done < bytes.size();) {
            const ssize_t count =
                ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (count <= 0)
                return false;
            done += static_cast<std::size_t>(count);
        }
        return true;
    }
    bool send(const Frame& frame) { return write(bytes_of(frame)); }
    bool send(int dst, std::uint32_t seq, const std::string& payload) {
        return send(make_frame(MSGBUS_DATA, 0, dst, seq, payload));
    }

    // Sends the frame unless there is no room for it for a while.
    bool send_if_room(const Frame& frame) {
        const std::string bytes = bytes_of(frame);
        pollfd entry{fd_, POLLOUT, 0};
        return poll(&entry, 1, kNoRoomMs) == 1 && write(bytes);
    }

    // Whether the broker has made this peer that module.
    bool attach(int module, int dst = 0) {
        if (!send(make_frame(MSGBUS_ATTACH, module, dst)))
            return false;
        const std::optional<Frame> answer = read();
        return answer && answer->header.type == MSGBUS_ATTACH &&
               answer->header.dst == (dst == MSGBUS_MONITOR ? dst : module);
    }

    // Sends bytes with those descriptors.
    bool pass(const std::string& bytes, const std::vector<int>& descriptors) const {
        iovec part{const_cast<char*>(bytes.data()), bytes.size()};
        const std::size_t length = descriptors.size() * sizeof(int);
        std::vector<char> space(CMSG_SPACE(length));
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = space.data();
        message.msg_controllen = static_cast<decltype(message.msg_controllen)>(space.size());
        cmsghdr* const control = CMSG_FIRSTHDR(&message);
        control->cmsg_level = SOL_SOCKET;
        control->cmsg_type = SCM_RIGHTS;
        control->cmsg_len = static_cast<decltype(control->cmsg_len)>(CMSG_LEN(length));
        std::memcpy(CMSG_DATA(control), descriptors.data(), length);
        return sendmsg(fd_, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    // The same as attach(), with descriptors for the broker.
    bool attach_with(int module, const std::vector<int>& descriptors) {
        if (!pass(bytes_of(make_frame(MSGBUS_ATTACH, module, 0)), descriptors))
            return false;
        const std::optional<Frame> answer = read();
        return answer && answer->header.type == MSGBUS_ATTACH && answer->header.dst == module;
    }

    // The next frame; empty at the end of the stream and when nothing comes.
    std::optional<Frame> read() {
        Frame frame;
        if (!read_all(&frame.header, sizeof frame.header))
            return std::nullopt;
        frame.payload.resize(frame.header.len);
        if (!read_all(frame.payload.data(), frame.payload.size()))
            return std::nullopt;
        return frame;
    }

    // Whether the stream ends, after frames that may still come.
    bool ended() {
        char byte = 0;
        ssize_t count = 1;
        while (count > 0 && readable(kPatienceMs))
            count = recv(fd_, &byte, 1, 0);
        return count <= 0;
    }

    [[nodiscard]] bool readable(int timeout_ms) const {
        pollfd entry{fd_, POLLIN, 0};
        return poll(&entry, 1, timeout_ms) == 1;
    }

  private:
    bool read_all(void* out, std::size_t len) {
        auto* at = static_cast<char*>(out);
        while (len > 0) {
            if (!readable(kPatienceMs))
                return false;
            const ssize_t count = recv(fd_, at, len, 0);
            if (count <= 0)
                return false;
            at += count;
            len -= static_cast<std::size_t>(count);
        }
        return true;
    }

    int fd_;
};

// How many this process has open.
inline long open_descriptors() {
    const std::filesystem::directory_iterator all{"/proc/self/fd"};
    return std::distance(begin(all), end(all));
}

// Sets an environment variable as long as it lives.
class ScopedEnvironment {
  public:
    ScopedEnvironment(const char* name, const std::string& value) : name_(name) {
        setenv(name, value.c_str(), 1);
    }
    ~ScopedEnvironment() { unsetenv(name_); }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

  private:
    const char* name_;
};

// A running broker; ended and its socket gone when it is destroyed.
class RunningBroker {
  public:
    explicit RunningBroker(const std::string& path,
                           MsgbusSettings settings = MsgbusSettings::for_everybody())
        : broker_(path, std::move(settings)) {
        if (!broker_.open())
            throw std::runtime_error{broker_.error()};
        thread_ = std::thread{[this] { broker_.run(); }};
    }
    ~RunningBroker() {
        broker_.stop();
        thread_.join();
    }
    RunningBroker(const RunningBroker&) = delete;
    RunningBroker& operator=(const RunningBroker&) = delete;

  private:
    MsgbusBroker broker_;
    std::thread thread_;
};

#endif
