/*
 * nl80211_transport: the way of commands to the wireless kernel and of its events back
 * (linux/nl80211.h has the commands).
 */
#ifndef PLATFORM_NL80211_TRANSPORT_H
#define PLATFORM_NL80211_TRANSPORT_H

#include <string>

#include "nl_answer.h"
#include "nl_request.h"

// An object belongs to one thread.
class nl80211_transport {
  public:
    // Sends one command and hands each message of the answer to `handler`. 0, or a negative errno:
    // the kernel's own; -EINTR for a dump that changed while it was told (what was handed over may
    // be incomplete or double: ask again); -ENOBUFS when messages were lost for want of room;
    // -ETIMEDOUT when the kernel stayed silent; -ENODEV when it has no nl80211; -EMSGSIZE for a
    // request that is not whole.
    virtual int exchange(const nl_request& request, const nl_handler& handler) = 0;
    int exchange(const nl_request& request) {
        return exchange(request, [](std::uint8_t, const nl_attributes&) {});
    }

    // Lets events of a group ("scan", "mlme", "regulatory") come here: 0 or a negative errno. Give
    // events a transport of their own, so that none of them crowd out an answer.
    virtual int subscribe(const char* group) = 0;
    // Hands over the events that wait, without waiting for one; -ENOBUFS when some were lost.
    virtual int read_events(const nl_handler& handler) = 0;
    // Readable when read_events() has something; -1 when there is no socket. For poll(2) alone.
    [[nodiscard]] virtual int fd() const = 0;

    // The kernel's own words for the last refusal; empty when it had none.
    [[nodiscard]] virtual const std::string& reason() const = 0;

    virtual ~nl80211_transport() = default;
};

#endif
