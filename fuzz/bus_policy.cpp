// The policy file of the bus.
#include <grp.h>
#include <pwd.h>

#include <cstring>

#include "input.h"
#include "msgbus_settings.h"

// Users and groups are the same on each machine.
extern "C" passwd* getpwnam(const char* name) {
    static passwd root{};
    return std::strcmp(name, "root") == 0 ? &root : nullptr;
}

extern "C" group* getgrnam(const char* name) {
    static group root{};
    return std::strcmp(name, "root") == 0 ? &root : nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr mode_t access_bits = 0777;
    const MsgbusUser nobody{65534, {65534}};
    MsgbusSettings settings;
    const std::string error = settings.take(std::string{fuzz::as_text(data, size)});
    if (!error.empty()) {
        fuzz::require(error.starts_with("line "));
        fuzz::require(!settings.group && settings.mode == MsgbusSettings{}.mode);
        fuzz::require(!settings.policy.receivers(nobody, 0));
    }
    fuzz::require(settings.mode <= access_bits);
    fuzz::require(!settings.group || settings.missing_group.empty());
    fuzz::require(!settings.policy.receivers(nobody, MSGBUS_MONITOR));
    return 0;
}
