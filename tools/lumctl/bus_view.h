// The message bus as this user may see it. Talks the frames of the open bus (msgbus.h).
#ifndef LUMCTL_BUS_VIEW_H
#define LUMCTL_BUS_VIEW_H

#include <optional>
#include <string>
#include <vector>

// $MSGBUS_SOCKET or the default.
[[nodiscard]] std::string bus_socket_path();

struct bus_view {
    int socket_error = 0;                     // errno of the look at the socket file, 0: it is one
    std::string error;                        // why there is no answer; empty: the broker answers
    bool forbidden = false;                   // by the policy
    std::optional<std::vector<int>> modules;  // in ascending order; nothing: not allowed to look
};

// Asks the broker who is there, as a monitor, of which no module learns; where that is forbidden
// joins as a short-lived module. At most 3 seconds.
[[nodiscard]] bus_view look_at_bus(const std::string& socket_path);

// "vaultd" for 1, "module 77" for a number without a name.
[[nodiscard]] std::string module_name(int module);

#endif
