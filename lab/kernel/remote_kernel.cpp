// liblabkernel.so: the interposer with a kernel that lives in the lab program.
//
// Every wireless ioctl and every finished write to a virtual /proc file becomes one request on the
// UNIX stream socket $LAB_ROOT/kernel.sock, and the caller waits for its reply, as it would in a
// system call. The connection opens with the first call, so programs that lumd starts (they inherit
// the preload) never make one. Without a lab program every ioctl fails with ENODEV.
//
// Wire format, all numbers 32-bit in the byte order named by the greeting:
//   greeting  "LABK", 'l' or 'b' for the byte order, the pointer size, two zero bytes
//   request   kind, request number, iw_point length, name size, data size, then name and data
//   reply     result, iw_point length, data size, then data
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kernel.h"

namespace {

// What a caller's buffer really holds where iw_point.length cannot say it (16 bits).
constexpr std::size_t kVendorRecordSize = 131070;
constexpr std::size_t kMibBufferSize = 2048;
constexpr unsigned long kVendorCommandRtl8192cd = 0x8BBF;
constexpr unsigned long kVendorCommandG6 = 0x89F4;
constexpr unsigned long kMibGet = 0x89F2;

enum class Kind : std::uint32_t { kIoctl = 1, kWritten = 2 };

std::size_t capacity_of(unsigned long request, std::uint16_t length) {
    switch (request) {
        case kVendorCommandRtl8192cd:
        case kVendorCommandG6:
            return kVendorRecordSize;
        case kMibGet:
            return kMibBufferSize;
        default:
            return length;
    }
}

class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    [[nodiscard]] int get() const { return fd_; }

  private:
    int fd_ = -1;
};

bool send_all(int fd, const void* data, std::size_t size) {
    const char* next = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t sent = send(fd, next, size, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return false;
        }
        next += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

bool receive_all(int fd, void* data, std::size_t size) {
    char* next = static_cast<char*>(data);
    while (size > 0) {
        const ssize_t got = recv(fd, next, size, 0);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        next += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

Descriptor connect_to_lab() {
    const std::string path = lab::root() + "/kernel.sock";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return {};
    }
    std::copy(path.begin(), path.end(), address.sun_path);
    Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0 ||
        connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return {};
    }
    constexpr char order = std::endian::native == std::endian::little ? 'l' : 'b';
    const std::array<char, 8> greeting{'L', 'A', 'B', 'K', order, sizeof(void*), 0, 0};
    return send_all(fd.get(), greeting.data(), greeting.size()) ? std::move(fd) : Descriptor();
}

struct Reply {
    std::int32_t result = -ENODEV;
    std::uint32_t length = 0;
    std::vector<char> data;
};

bool receive_reply(int fd, Reply& reply) {
    std::array<std::uint32_t, 3> head{};
    if (!receive_all(fd, head.data(), sizeof head) || head[2] > kVendorRecordSize) {
        return false;
    }
    reply.result = static_cast<std::int32_t>(head[0]);
    reply.length = head[1];
    reply.data.resize(head[2]);
    return receive_all(fd, reply.data.data(), reply.data.size());
}

class RemoteKernel final : public lab::Kernel {
  public:
    int ioctl(unsigned long request, const std::string& ifname, void* data,
              std::uint16_t& length) override {
        const std::size_t given = data != nullptr ? length : 0;
        const Reply reply = call(Kind::kIoctl, request, length, ifname, data, given);
        if (reply.result < 0 || data == nullptr) {
            return reply.result;
        }
        const std::size_t fits = std::min(reply.data.size(), capacity_of(request, length));
        std::memcpy(data, reply.data.data(), fits);
        length = static_cast<std::uint16_t>(reply.length);
        return reply.result;
    }

    void written(const std::string& path, const std::string& content) override {
        call(Kind::kWritten, 0, 0, path, content.data(), content.size());
    }

  private:
    // A reply with result -ENODEV when the lab program is not there or goes away.
    Reply call(Kind kind, unsigned long request, std::uint32_t length, const std::string& name,
               const void* data, std::size_t size) {
        const std::lock_guard<std::mutex> lock(mutex_);
        Reply reply;
        if (fd_.get() < 0 || owner_ != getpid()) {
            fd_ = connect_to_lab();
            owner_ = getpid();
        }
        const std::array<std::uint32_t, 5> head{
            static_cast<std::uint32_t>(kind), static_cast<std::uint32_t>(request), length,
            static_cast<std::uint32_t>(name.size()), static_cast<std::uint32_t>(size)};
        if (fd_.get() < 0 || !send_all(fd_.get(), head.data(), sizeof head) ||
            !send_all(fd_.get(), name.data(), name.size()) || !send_all(fd_.get(), data, size) ||
            !receive_reply(fd_.get(), reply)) {
            fd_ = Descriptor();
            return {};
        }
        return reply;
    }

    std::mutex mutex_;
    Descriptor fd_;     // guarded by mutex_
    pid_t owner_ = -1;  // guarded by mutex_; a forked child must not share its parent's socket
};

// Threads of the program may still call in while it exits, so the object is never destroyed.
RemoteKernel& the_kernel() {
    union Undestroyed {
        Undestroyed() : kernel() {}
        ~Undestroyed() {}
        RemoteKernel kernel;
    };
    static Undestroyed undestroyed;
    return undestroyed.kernel;
}

__attribute__((constructor)) void install_remote_kernel() {
    if (std::getenv("LAB_ROOT") != nullptr) {
        lab::install(&the_kernel());
    }
}

}  // namespace
