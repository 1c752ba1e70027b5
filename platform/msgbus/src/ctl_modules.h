// The modules as msgbusctl's user writes and reads them: numbers, and the names of those that have
// one.
#ifndef PLATFORM_MSGBUS_CTL_MODULES_H
#define PLATFORM_MSGBUS_CTL_MODULES_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "msgbus.h"

namespace msgbusctl {

inline constexpr int kMaxModule = MSGBUS_MONITOR - 1;

struct NamedModule {
    std::uint8_t number;
    const char* name;
    const char* purpose;
};

// By number.
[[nodiscard]] std::span<const NamedModule> named_modules();

// Null for a module without a name.
[[nodiscard]] const char* name_of(int module);

// The module that the text gives by name or number.
[[nodiscard]] std::optional<std::uint8_t> find_module(std::string_view text);

// "6 (hubd)", or the number alone.
[[nodiscard]] std::string describe_module(int module);

}  // namespace msgbusctl

#endif
