#include "bus_view.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <utility>

#include "connection.h"
#include "msgbus_modules.h"

namespace {

using msgbus::Connection;
using msgbus::Message;

constexpr std::chrono::seconds list_limit{1};
constexpr int tool_modules = 50;  // at the end of the range: for short-lived tools

// The broker tells a new monitor of the modules that are there before it answers anything else: the
// answer to a question ends their list, and so does the end of a broker that does not know it.
std::vector<int> read_modules(Connection& bus) {
    bus.send(msgbus::make_header(MSGBUS_LIST, 0, 0), {});
    std::vector<int> modules;
    const auto limit = Connection::Clock::now() + list_limit;
    while (bus.wait(limit)) {
        const Message frame = bus.take();
        if (frame->header.type == MSGBUS_LIST)
            break;
        if (frame->header.type == MSGBUS_ATTACH)
            modules.push_back(frame->header.src);
        else if (frame->header.type == MSGBUS_DETACH)
            std::erase(modules, static_cast<int>(frame->header.src));
    }
    std::sort(modules.begin(), modules.end());
    return modules;
}

int error_of_socket(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return errno;
    if (!S_ISSOCK(status.st_mode))
        return ENOTSOCK;
    return access(path.c_str(), W_OK) == 0 ? 0 : errno;
}

}  // namespace

std::string bus_socket_path() {
    return msgbus::default_socket_path();
}

bus_view look_at_bus(const std::string& socket_path) {
    bus_view view;
    view.socket_error = error_of_socket(socket_path);
    if (view.socket_error != 0)
        return view;
    Connection bus;
    int error = bus.attach(socket_path, 0, MSGBUS_MONITOR);
    if (error == 0) {
        view.modules = read_modules(bus);
        return view;
    }
    if (error == EPERM || error == EADDRINUSE) {
        const int own = MSGBUS_MONITOR - 1 - static_cast<int>(getpid()) % tool_modules;
        error = bus.attach(socket_path, static_cast<std::uint8_t>(own), 0);
    }
    view.forbidden = error == EPERM;
    if (error != 0)
        view.error = msgbus::describe_attach_error(error);
    return view;
}

std::string module_name(int module) {
    static constexpr std::pair<int, const char*> names[] = {
#define LUMCTL_MODULE_NAME(number, name, description) {number, name},
        MSGBUS_MODULES(LUMCTL_MODULE_NAME)
#undef LUMCTL_MODULE_NAME
    };
    for (const auto& [number, name] : names)
        if (number == module)
            return name;
    return "module " + std::to_string(module);
}
