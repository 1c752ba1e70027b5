#include "msgbus_policy.h"

#include <unistd.h>

#include <algorithm>

namespace {

const MsgbusPolicy::Modules all_modules = MsgbusPolicy::Modules{}.set();

bool names(const MsgbusPolicy::Rule& rule, const MsgbusUser& user) {
    if (rule.user && *rule.user != user.uid)
        return false;
    return !rule.group ||
           std::find(user.groups.begin(), user.groups.end(), *rule.group) != user.groups.end();
}

}  // namespace

MsgbusPolicy MsgbusPolicy::for_everybody() {
    return MsgbusPolicy{{{std::nullopt, std::nullopt, all_modules, all_modules}}};
}

MsgbusPolicy MsgbusPolicy::for_trusted_users() {
    return MsgbusPolicy{{{0, std::nullopt, all_modules, all_modules},
                         {geteuid(), std::nullopt, all_modules, all_modules}}};
}

std::optional<MsgbusPolicy::Modules> MsgbusPolicy::receivers(const MsgbusUser& user,
                                                             std::uint8_t module) const {
    for (const Rule& rule : rules_)
        if (module < rule.as.size() && rule.as[module] && names(rule, user))
            return rule.to;
    return std::nullopt;
}
