#include "ctl_modules.h"

#include <charconv>

#include "msgbus_modules.h"

namespace msgbusctl {

namespace {

constexpr NamedModule kNamedModules[] = {
#define MSGBUSCTL_ROW(number, name, purpose) {number, name, purpose},
    MSGBUS_MODULES(MSGBUSCTL_ROW)
#undef MSGBUSCTL_ROW
};

}  // namespace

std::span<const NamedModule> named_modules() {
    return kNamedModules;
}

const char* name_of(int module) {
    for (const NamedModule& named : kNamedModules)
        if (named.number == module)
            return named.name;
    return nullptr;
}

std::optional<std::uint8_t> find_module(std::string_view text) {
    for (const NamedModule& named : kNamedModules)
        if (text == named.name)
            return named.number;
    int number = -1;
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, number);
    if (error != std::errc{} || end != last || number < 0 || number > kMaxModule)
        return std::nullopt;
    return static_cast<std::uint8_t>(number);
}

std::string describe_module(int module) {
    const char* const name = name_of(module);
    return std::to_string(module) + (name != nullptr ? std::string{" ("} + name + ")" : "");
}

}  // namespace msgbusctl
