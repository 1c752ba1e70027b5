// MsgbusSettings: who may open the broker's socket, and who may do what on the bus.
#ifndef PLATFORM_MSGBUS_SETTINGS_H
#define PLATFORM_MSGBUS_SETTINGS_H

#include <sys/types.h>

#include <optional>
#include <string>

#include "msgbus_policy.h"

struct MsgbusSettings {
    // A socket and a bus for every user.
    [[nodiscard]] static MsgbusSettings for_everybody();

    std::optional<gid_t> group;  // of the socket file; none: that of the process
    mode_t mode = 0660;          // of the socket file
    MsgbusPolicy policy = MsgbusPolicy::for_trusted_users();

    // Each sets what the text names; false when it names none, and nothing is set. `group` is a
    // name or a number, `mode` an octal number of access bits.
    [[nodiscard]] bool set_group(const std::string& name);
    [[nodiscard]] bool set_mode(const std::string& text);

    // Takes over what the text of a configuration file (msgbusd(8)) says; its rules are then the
    // whole policy, even when there is none. Empty when all is well, otherwise what is wrong, with
    // the number of its line.
    [[nodiscard]] std::string take(const std::string& text);
};

#endif
