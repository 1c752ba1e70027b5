// MsgbusPolicy: who may be which module on the bus, and which modules that one may send to.
#ifndef PLATFORM_MSGBUS_POLICY_H
#define PLATFORM_MSGBUS_POLICY_H

#include <sys/types.h>

#include <bitset>
#include <cstdint>
#include <optional>
#include <vector>

#include "msgbus.h"

// Whom the kernel names at the other end of a connection.
struct MsgbusUser {
    uid_t uid = 0;
    std::vector<gid_t> groups;  // the supplementary ones too
};

class MsgbusPolicy {
  public:
    // Module ids.
    using Modules = std::bitset<MSGBUS_MONITOR>;

    // Whom it names: all users, one, or the members of a group.
    struct Rule {
        std::optional<uid_t> user;
        std::optional<gid_t> group;
        Modules as;
        Modules to;
    };

    // The first rule that names a user and a module decides; what none names is refused.
    explicit MsgbusPolicy(std::vector<Rule> rules) : rules_(std::move(rules)) {}

    // Everybody may be everything and send to all.
    [[nodiscard]] static MsgbusPolicy for_everybody();

    // The same for root and for this process's own user; nothing for others.
    [[nodiscard]] static MsgbusPolicy for_trusted_users();

    // The modules that `user` may send to as `module`; none when it may not be that module.
    [[nodiscard]] std::optional<Modules> receivers(const MsgbusUser& user,
                                                   std::uint8_t module) const;

  private:
    std::vector<Rule> rules_;
};

#endif
