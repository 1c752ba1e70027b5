// MsgbusSettings: who may open the broker's socket, and who may do what on the bus.
#ifndef PLATFORM_MSGBUS_SETTINGS_H
#define PLATFORM_MSGBUS_SETTINGS_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "msgbus_policy.h"

// What one connection may ask of the broker.
struct MsgbusLimits {
    std::uint32_t waiting = MSGBUS_MAX_WAITING;  // bytes kept for it while it does not read
    std::uint32_t rate = 0;                      // frames a second that it may send; 0: any
};

struct MsgbusSettings {
    // A socket and a bus for every user.
    [[nodiscard]] static MsgbusSettings for_everybody();

    std::optional<gid_t> group;  // of the socket file; none: that of the process
    mode_t mode = 0660;          // of the socket file
    MsgbusPolicy policy = MsgbusPolicy::for_trusted_users();
    MsgbusLimits limits = {};
    // The group that the file wants for the socket and that is not there. The socket then keeps the
    // group of the process, which opens it to nobody else.
    std::string missing_group = {};

    // Each sets what the text names; false when it names none, and nothing is set. `group` is a
    // name or a number, `mode` an octal number of access bits.
    [[nodiscard]] bool set_group(const std::string& name);
    [[nodiscard]] bool set_mode(const std::string& text);

    // Takes over what the text of a configuration file (msgbusd(8)) says; its rules are then the
    // whole policy, even when there is none. Empty when all is well, otherwise what is wrong, with
    // the number of its line, and nothing is taken over.
    [[nodiscard]] std::string take(const std::string& text);
};

#endif
