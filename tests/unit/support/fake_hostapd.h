// FakeHostapd: a control socket as hostapd has it, which answers as the test says.
#ifndef TESTS_FAKE_HOSTAPD_H
#define TESTS_FAKE_HOSTAPD_H

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

// How long a test waits for an answer.
inline constexpr std::chrono::milliseconds kShort{20};        // that never comes
inline constexpr std::chrono::milliseconds kPatience{60000};  // that comes

class FakeHostapd {
  public:
    // The answer to a command; empty for none at all.
    using Answer = std::function<std::optional<std::string>(const std::string& command)>;

    explicit FakeHostapd(const std::string& path, Answer answer = nullptr)
        : path_(path), answer_(std::move(answer)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("no socket at " + path + ": " + std::strerror(errno));
        thread_ = std::thread{[this] { serve(); }};
    }
    ~FakeHostapd() {
        over_ = true;
        thread_.join();
        close(fd_);
        unlink(path_.c_str());
    }
    FakeHostapd(const FakeHostapd&) = delete;
    FakeHostapd& operator=(const FakeHostapd&) = delete;

    // What was asked for, in its order, but for ATTACH.
    [[nodiscard]] std::vector<std::string> commands() const {
        const std::lock_guard lock{mutex_};
        return commands_;
    }
    // To everyone who attached, before the command that follows is answered.
    void tell(const std::string& message) const {
        const std::lock_guard lock{mutex_};
        for (const Peer& peer : attached_)
            send(peer, message);
    }

  private:
    struct Peer {
        sockaddr_un address{};
        socklen_t length = sizeof(sockaddr_un);
    };

    void send(const Peer& peer, const std::string& text) const {
        sendto(fd_, text.data(), text.size(), MSG_DONTWAIT,
               reinterpret_cast<const sockaddr*>(&peer.address), peer.length);
    }

    std::optional<std::string> answer(const std::string& command, const Peer& peer) {
        const std::lock_guard lock{mutex_};
        if (command == "ATTACH") {
            attached_.push_back(peer);
            return "OK\n";
        }
        commands_.push_back(command);
        return answer_ ? answer_(command) : "OK\n";
    }

    void serve() {
        constexpr int look_at_the_end_ms = 10;
        while (!over_) {
            pollfd entry{fd_, POLLIN, 0};
            if (poll(&entry, 1, look_at_the_end_ms) <= 0)
                continue;
            std::array<char, 4096> buffer;
            Peer peer;
            const ssize_t length =
                recvfrom(fd_, buffer.data(), buffer.size(), 0,
                         reinterpret_cast<sockaddr*>(&peer.address), &peer.length);
            if (length < 0)
                continue;
            const std::string command{buffer.data(), static_cast<std::size_t>(length)};
            if (const std::optional<std::string> text = answer(command, peer))
                send(peer, *text);
        }
    }

    std::string path_;
    Answer answer_;
    int fd_ = -1;
    std::atomic<bool> over_ = false;
    mutable std::mutex mutex_;
    std::vector<std::string> commands_;
    std::vector<Peer> attached_;
    std::thread thread_;
};

#endif
