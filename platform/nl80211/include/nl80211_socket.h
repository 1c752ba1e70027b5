/*
 * nl80211_socket: a netlink socket to the wireless kernel.
 */
#ifndef PLATFORM_NL80211_SOCKET_H
#define PLATFORM_NL80211_SOCKET_H

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "nl80211_transport.h"

struct nl_sock;

// Opens its socket at the first use, and anew after a failure of the socket itself, so that it may
// be made before mac80211 is loaded. Needs no right for questions, CAP_NET_ADMIN for commands.
class nl80211_socket final : public nl80211_transport {
  public:
    // The kernel answers at once but for the locks that it waits for.
    static constexpr std::chrono::milliseconds default_wait{2000};
    // Of events read in one go; the rest waits for the next.
    static constexpr int datagrams_in_a_row = 64;

    // `wait` bounds the silence between two datagrams of an answer. `family` is the name of the
    // generic netlink family to talk to.
    explicit nl80211_socket(std::chrono::milliseconds wait = default_wait,
                            std::string family = "nl80211");

    using nl80211_transport::exchange;
    int exchange(const nl_request& request, const nl_handler& handler) override;
    int subscribe(const char* group) override;
    int read_events(const nl_handler& handler) override;
    [[nodiscard]] int fd() const override;
    [[nodiscard]] const std::string& reason() const override { return reason_; }

  private:
    struct closer {
        void operator()(nl_sock* socket) const;
    };

    int open();
    int find_family();
    int talk(const nl_request& request, std::uint16_t family, const nl_handler& handler);
    // One datagram to `take`: 0, -EAGAIN when none waits, or another negative errno.
    int receive(const std::function<void(std::span<const std::uint8_t>)>& take);
    // 0 when there is something to receive, -ETIMEDOUT.
    int wait_for_input();

    std::chrono::milliseconds wait_;
    std::string family_name_;
    std::unique_ptr<nl_sock, closer> socket_;
    std::uint16_t family_ = 0;
    std::map<std::string, std::uint32_t, std::less<>> groups_;
    std::string reason_;
};

#endif
