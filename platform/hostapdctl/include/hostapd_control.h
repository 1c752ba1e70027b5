/*
 * hostapd_control: a connection to a control socket of hostapd, its global one or a BSS's, which
 * takes commands as texts, answers each with a text and tells events to who attached.
 *
 * Nothing here waits longer than it was told to, whatever hostapd does: the library's own request
 * waits ten seconds, and its select(2) ends a process that has more than FD_SETSIZE descriptors. So
 * the socket is the library's, and commands go through it by send(2), recv(2) and poll(2). Over
 * UNIX sockets a command is the bare text.
 *
 * An object belongs to one thread. Objects are opened by one thread at a time: the library counts
 * the names of its own ends, /tmp/wpa_ctrl_PID-COUNT, without a lock.
 */
#ifndef PLATFORM_HOSTAPD_CONTROL_H
#define PLATFORM_HOSTAPD_CONTROL_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct wpa_ctrl;

class hostapd_control {
  public:
    // hostapd answers a command at once unless it is busy with the kernel.
    static constexpr std::chrono::milliseconds default_wait{1000};
    // Events kept while an answer is awaited; of more, the oldest are lost.
    static constexpr std::size_t events_kept = 256;

    // Connects to the socket at `path`. Nobody there, or a path that is none: not open. `wait`
    // bounds each request. Does not wait itself.
    explicit hostapd_control(const std::string& path,
                             std::chrono::milliseconds wait = default_wait);

    [[nodiscard]] bool is_open() const { return connection_ != nullptr; }

    // The answer to one command, with its line ends, bytes as they came; "UNKNOWN COMMAND\n" and
    // "FAIL\n" are answers. Empty when hostapd is gone, or silent for the time to wait: then the
    // connection is closed, so that no late answer is taken for another command's, and who wants to
    // go on makes a new one.
    std::optional<std::string> request(std::string_view command);

    // The same for a command that is known to take longer than others. `goes_on` is asked now and
    // then whether hostapd still runs, which a socket of datagrams does not tell; without it
    // hostapd is awaited to the end.
    std::optional<std::string> request(std::string_view command, std::chrono::milliseconds wait,
                                       const std::function<bool()>& goes_on = nullptr);

    // As request(); whether the answer says "OK".
    bool command(std::string_view text);

    // From here on hostapd tells its events to this connection. False as request() is empty, or
    // when hostapd refuses.
    bool attach();

    // One event without its level ("<3>"), one of the global socket with its "IFNAME=wlan0-va0 "
    // before it; empty when none waits. Never waits.
    std::optional<std::string> next_event();

    // Readable when next_event() may have one; -1 when not open. For poll(2) alone.
    [[nodiscard]] int fd() const;

    // Why the last operation failed, as a text for the log.
    [[nodiscard]] const std::string& why() const { return why_; }

  private:
    using clock = std::chrono::steady_clock;
    struct closer {
        void operator()(wpa_ctrl* connection) const;
    };

    bool send(std::string_view command, clock::time_point deadline);
    std::optional<std::string> receive_answer(std::chrono::milliseconds wait,
                                              clock::time_point deadline,
                                              const std::function<bool()>& goes_on);
    // One message; empty when there is none or the connection broke, which then is closed.
    std::optional<std::string> receive();
    // Whether the socket became ready for `events` of poll(2).
    bool wait_for(short events, clock::time_point deadline);
    void keep(std::string event);
    void fail(const std::string& reason);

    std::string path_;
    std::chrono::milliseconds wait_;
    std::unique_ptr<wpa_ctrl, closer> connection_;
    bool attached_ = false;
    std::deque<std::string> events_;
    std::string why_;
};

#endif
