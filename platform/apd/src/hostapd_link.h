// HostapdLink holds the one connection to hostapd's global control socket, over which apd sends all
// commands and hears the events of every BSS.
//
// One thread at a time.
#ifndef PLATFORM_APD_HOSTAPD_LINK_H
#define PLATFORM_APD_HOSTAPD_LINK_H

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "hostapd_control.h"
#include "hostapd_port.h"

namespace apd {

class HostapdLink : public HostapdPort {
  public:
    // How long an answer is awaited.
    struct Patience {
        std::chrono::milliseconds usual{5000};
        // Of what sets up an access point. Its keys are the first use of a cipher, for which the
        // kernel may look for modules (modprobe(8)); seen to take seconds, in which hostapd waits
        // for the kernel and answers nobody. The agent waits 20 s.
        std::chrono::milliseconds set_up{15000};
    };

    explicit HostapdLink(std::string socket) : HostapdLink(std::move(socket), Patience{}) {}
    HostapdLink(std::string socket, Patience patience)
        : socket_(std::move(socket)), patience_(patience) {}

    [[nodiscard]] const std::string& socket() const { return socket_; }

    // Connects and asks for events; true when that was done now or before.
    bool connect();
    [[nodiscard]] bool is_connected() const { return control_ != nullptr; }

    // Whether hostapd still answers; when not, the link is down.
    bool check();

    // Of a link that is down: whether there is a hostapd nevertheless, which did not answer.
    [[nodiscard]] bool is_silent() const;

    std::optional<std::string> ask(const std::string& command) override;
    using HostapdPort::ask;

    struct Event {
        std::string ifname;  // empty: of hostapd as a whole
        std::string text;
    };
    [[nodiscard]] std::optional<Event> next_event();

    // For poll(2): readable when next_event() may have one; -1 when not connected.
    [[nodiscard]] int fd() const { return control_ ? control_->fd() : -1; }

    // Process id of the one at the other end, told by the kernel; nothing when nobody answers.
    std::optional<int> pid();

  private:
    [[nodiscard]] bool has_ended() const;
    [[nodiscard]] std::optional<int> ask_pid() const;

    const std::string socket_;
    const Patience patience_;
    std::unique_ptr<hostapd_control> control_;
    std::optional<int> pid_;  // of the last one that was connected to
};

}  // namespace apd

#endif
