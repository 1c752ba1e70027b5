// Which of the frames on the bus the user wants to see.
#ifndef PLATFORM_MSGBUS_CTL_FILTER_H
#define PLATFORM_MSGBUS_CTL_FILTER_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "msgbus.h"

namespace msgbusctl {

class Filter {
  public:
    // What one of `modules` sends, receives or misses, also that it joins or leaves, and of that
    // the messages whose JSON member "command" is one of `commands`. Empty: any.
    Filter(std::vector<std::uint8_t> modules, std::vector<std::string> commands)
        : modules_(std::move(modules)), commands_(std::move(commands)) {}

    [[nodiscard]] bool lets_pass(const message_s& frame) const;

  private:
    [[nodiscard]] bool has_command(const message_s& frame) const;

    const std::vector<std::uint8_t> modules_;
    const std::vector<std::string> commands_;
};

}  // namespace msgbusctl

#endif
