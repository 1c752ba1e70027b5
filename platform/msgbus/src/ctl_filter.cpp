#include "ctl_filter.h"

#include <algorithm>

#include "ctl_event.h"
#include "tree.h"

namespace msgbusctl {

bool Filter::lets_pass(const message_s& frame) const {
    const auto concerns = [&](std::uint8_t module) {
        return module == frame.header.src || module == frame.header.dst;
    };
    return (modules_.empty() || std::any_of(modules_.begin(), modules_.end(), concerns)) &&
           (commands_.empty() || has_command(frame));
}

bool Filter::has_command(const message_s& frame) const {
    const std::string_view payload = payload_of(frame);
    const msgbus::Tree tree{frame.header.type == MSGBUS_DATA
                                ? cfgtree_parse_buffer(payload.data(), payload.size())
                                : nullptr};
    const char* const command = cfgtree_get_param(tree.get(), "command");
    return command != nullptr &&
           std::find(commands_.begin(), commands_.end(), command) != commands_.end();
}

}  // namespace msgbusctl
