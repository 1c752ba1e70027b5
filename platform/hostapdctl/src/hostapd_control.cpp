#include "hostapd_control.h"

#include <poll.h>
#include <sys/socket.h>
#include <wpa_ctrl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace {

// hostapd cuts its answers at 4 KiB; a longer datagram is none of its.
constexpr std::size_t message_size = 16384;
// Between two looks at whether hostapd still runs.
constexpr std::chrono::milliseconds look_pace{200};

// Messages that nobody asked for begin with a level or, on the global socket, with an interface.
bool is_event(std::string_view message) {
    return message.starts_with('<') || message.starts_with("IFNAME=");
}

// Takes the level "<3>" out, wherever the text to print begins.
std::string without_level(std::string event) {
    std::size_t begin = 0;
    if (event.starts_with("IFNAME=")) {
        const std::size_t blank = event.find(' ');
        begin = blank == std::string::npos ? event.size() : blank + 1;
    }
    if (begin < event.size() && event[begin] == '<') {
        const std::size_t end = event.find('>', begin);
        if (end != std::string::npos)
            event.erase(begin, end + 1 - begin);
    }
    return event;
}

}  // namespace

void hostapd_control::closer::operator()(wpa_ctrl* connection) const {
    wpa_ctrl_close(connection);
}

hostapd_control::hostapd_control(const std::string& path, std::chrono::milliseconds wait)
    : path_(path), wait_(wait) {
    errno = 0;
    connection_.reset(wpa_ctrl_open(path.c_str()));
    if (!connection_)
        fail(std::string{"cannot be opened"} +
             (errno == 0 ? "" : std::string{": "} + std::strerror(errno)));
}

void hostapd_control::fail(const std::string& reason) {
    why_ = path_ + ": " + reason;
    connection_.reset();
    attached_ = false;
}

int hostapd_control::fd() const {
    return connection_ ? wpa_ctrl_get_fd(connection_.get()) : -1;
}

bool hostapd_control::wait_for(short events, clock::time_point deadline) {
    using std::chrono::milliseconds;
    pollfd entry{fd(), events, 0};
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - clock::now());
        const int ready =
            poll(&entry, 1, static_cast<int>(std::max(left, milliseconds::zero()).count()));
        if (ready >= 0 || errno != EINTR)
            return ready > 0;
    }
}

bool hostapd_control::send(std::string_view command, clock::time_point deadline) {
    while (::send(fd(), command.data(), command.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
        const bool full = errno == EAGAIN || errno == EWOULDBLOCK;
        if (full && wait_for(POLLOUT, deadline))
            continue;
        if (errno == EINTR)
            continue;
        fail(full ? "takes no command" : std::strerror(errno));
        return false;
    }
    return true;
}

std::optional<std::string> hostapd_control::receive() {
    std::array<char, message_size> buffer;
    const ssize_t length = recv(fd(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (length >= 0)
        return std::string{buffer.data(), static_cast<std::size_t>(length)};
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
        fail(std::strerror(errno));
    return std::nullopt;
}

std::optional<std::string> hostapd_control::receive_answer(std::chrono::milliseconds wait,
                                                           clock::time_point deadline,
                                                           const std::function<bool()>& goes_on) {
    while (is_open()) {
        const clock::time_point look = goes_on ? clock::now() + look_pace : deadline;
        if (wait_for(POLLIN, std::min(look, deadline))) {
            std::optional<std::string> message = receive();
            if (message && attached_ && is_event(*message))
                keep(*std::move(message));
            else if (message)
                return message;
        } else if (!goes_on) {
            break;
        } else if (!goes_on()) {
            fail("has ended");
        }
        // Whoever floods us with events must not hold us either.
        if (clock::now() >= deadline)
            break;
    }
    if (is_open())
        fail("no answer within " + std::to_string(wait.count()) + " ms");
    return std::nullopt;
}

std::optional<std::string> hostapd_control::request(std::string_view command) {
    return request(command, wait_);
}

std::optional<std::string> hostapd_control::request(std::string_view command,
                                                    std::chrono::milliseconds wait,
                                                    const std::function<bool()>& goes_on) {
    const clock::time_point deadline = clock::now() + wait;
    if (!is_open() || !send(command, deadline))
        return std::nullopt;
    return receive_answer(wait, deadline, goes_on);
}

bool hostapd_control::command(std::string_view text) {
    const std::optional<std::string> answer = request(text);
    if (!answer)
        return false;
    if (answer->starts_with("OK"))
        return true;
    constexpr std::string_view line_ends = "\r\n";
    why_ = path_ + ": " + answer->substr(0, answer->find_first_of(line_ends));
    return false;
}

bool hostapd_control::attach() {
    // Events may overtake the answer.
    attached_ = true;
    attached_ = command("ATTACH");
    return attached_;
}

void hostapd_control::keep(std::string event) {
    if (events_.size() == events_kept)
        events_.pop_front();
    events_.push_back(std::move(event));
}

std::optional<std::string> hostapd_control::next_event() {
    for (std::size_t i = 0; events_.empty() && is_open() && i < events_kept; ++i) {
        std::optional<std::string> message = receive();
        if (!message)
            break;
        if (is_event(*message))
            keep(*std::move(message));
    }
    if (events_.empty())
        return std::nullopt;
    std::string event = std::move(events_.front());
    events_.pop_front();
    return without_level(std::move(event));
}
