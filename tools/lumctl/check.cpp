#include "check.h"

#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "agent_process.h"
#include "bus_view.h"
#include "config_findings.h"
#include "files.h"
#include "handshake.h"
#include "ipc_module.h"
#include "lum_trace.h"
#include "network.h"
#include "surroundings.h"

namespace {

constexpr std::size_t whole_config = std::size_t{1024} * 1024;

// ---- configuration

void check_log_file(report& found, const std::string& path) {
    if (!global_log_out || path.empty())
        return found.ok("log file", "none: to syslog alone");
    if (path[0] != '/')
        return found.warning("log file", path + ": stands in the folder that lumd was started in",
                             "give its whole path");
    struct stat status {};
    const bool there = stat(path.c_str(), &status) == 0;
    if (there && !S_ISREG(status.st_mode))
        return found.warning("log file", path + ": is no regular file", "name another log_file");
    const std::string target =
        there ? path : path.substr(0, std::max<std::size_t>(path.rfind('/'), 1));
    if (access(target.c_str(), there ? W_OK : W_OK | X_OK) == 0)
        return found.ok("log file", path + (there ? ": can be written" : ": can be created"));
    const std::string advice = geteuid() == 0 ? "name another log_file, or make room for it"
                                              : "look again as the user that lumd runs as";
    found.warning("log file", path + ": cannot be written: " + std::strerror(errno), advice);
}

// What the agent makes of the file; nothing when there is nothing to go on with.
std::optional<websock_cfg_t> check_config(report& found, const std::string& path) {
    if (auto broken = unusable_config(path)) {
        found.add(std::move(*broken));
        return std::nullopt;
    }
    config_examiner examiner(path);
    websock_cfg_t config = read_agent_config(path);
    for (finding& one : examiner.examine(read_file(path, whole_config).value_or(""), config))
        found.add(std::move(one));
    for (finding& one : examiner.examine_whole(config))
        found.add(std::move(one));
    check_log_file(found, global_log_file);
    return config;
}

// ---- message bus

std::string list_modules(const std::vector<int>& modules) {
    std::string text;
    for (const int module : modules)
        text += (text.empty() ? "" : ", ") + module_name(module);
    return text.empty() ? "nobody" : text;
}

std::vector<int> needed_modules(std::optional<ws_instance_id> mode) {
    if (mode == WS_INSTANCE_PORTAL)
        return {PORTALMOD};
    if (mode == WS_INSTANCE_RRM)
        return {VAULTDMOD, HUBDMOD, SCANDMOD};
    return {};
}

void check_modules(report& found, const std::vector<int>& modules,
                   std::optional<ws_instance_id> mode) {
    std::vector<int> missing;
    for (const int module : needed_modules(mode))
        if (std::find(modules.begin(), modules.end(), module) == modules.end())
            missing.push_back(module);
    if (missing.empty())
        return found.ok("bus", "on the bus: " + list_modules(modules));
    found.warning("bus", "not on the bus: " + list_modules(missing), "start these daemons");
}

void check_bus(report& found, std::optional<ws_instance_id> mode) {
    const std::string path = bus_socket_path();
    const bus_view view = look_at_bus(path);
    if (view.socket_error == ENOENT)
        return found.broken("bus", path + ": there is no socket", "start msgbusd");
    if (view.socket_error == EACCES)
        return found.warning("bus", path + ": not allowed to connect to it",
                             "look again as root, or join the socket's group");
    if (view.socket_error != 0)
        return found.broken("bus", path + ": " + std::strerror(view.socket_error),
                            "look at msgbusd's -s and at $MSGBUS_SOCKET");
    if (view.forbidden)
        return found.warning(
            "bus",
            path + ": answers; its policy gives user " + std::to_string(geteuid()) + " no place",
            "look again as root, or see msgbusd(8)");
    if (!view.error.empty())
        return found.broken("bus", path + ": " + view.error, "restart msgbusd");
    if (!view.modules)
        return found.ok("bus", path + ": answers; who is there only root may see");
    found.ok("bus", path + ": answers");
    check_modules(found, *view.modules, mode);
}

// ---- service

std::string endpoint_text(const std::string& host, int port) {
    return host + " port " + std::to_string(port);
}

void report_handshake(report& found, const handshake_result& result, const std::string& subprotocol,
                      std::chrono::seconds limit) {
    const char* const check = "websocket";
    if (result.timed_out)
        return found.broken(
            check,
            "no answer to the opening handshake within " + std::to_string(limit.count()) + " s",
            "look whether the service hangs, or the port is another server's");
    const bool refused = result.http_status != 0 && result.http_status != 101;
    if (!result.established && refused)
        return found.broken(check,
                            "the service answers HTTP status " + std::to_string(result.http_status),
                            "correct the path of the URL, or ask who runs the service");
    if (!result.established)
        return found.broken(check, "the opening handshake fails: " + result.error,
                            "look whether a websocket service has that port");
    if (result.subprotocol != subprotocol)
        return found.warning(
            check, "established, but the service does not take the subprotocol " + subprotocol,
            "look whether the URL leads to the service of this mode");
    if (!result.closed)
        return found.warning(check, "established; the service does not answer the Close frame",
                             "nothing lumd needs; tell who runs the service");
    found.ok(check, "established, subprotocol " + subprotocol + ", and closed again");
}

void check_service(report& found, const config_instance_t& service, ws_instance_id mode,
                   std::chrono::seconds limit) {
    const look_up_result names = look_up(service.domain, service.port, limit);
    if (names.addresses.empty())
        return found.broken("name", std::string(service.domain) + ": " + names.error,
                            "correct the URL, or look at /etc/resolv.conf");
    found.ok("name", std::string(service.domain) + ": " + names.addresses.front().text());
    const connect_result connected = try_connect(names.addresses, limit);
    const std::string endpoint = endpoint_text(service.domain, service.port);
    if (!connected.error.empty())
        return found.broken("tcp", endpoint + ": " + connected.error,
                            "look at the service, the URL, routes and firewalls");
    found.ok("tcp", endpoint + ": connected");
    handshake opening(connected.address, service.domain, service.port, service.path,
                      websock_names[mode]);
    report_handshake(found, opening.run(limit), websock_names[mode], limit);
}

bool is_port(int port) {
    return port > 0 && port <= 65535;
}

}  // namespace

report run_check(const std::string& config_path, std::chrono::seconds limit) {
    report found;
    const std::optional<websock_cfg_t> config = check_config(found, config_path);
    const std::optional<ws_instance_id> mode = config ? mode_of(*config) : std::nullopt;
    const bool radios = mode != WS_INSTANCE_PORTAL;
    if (radios)
        check_platform_files(found);
    check_bus(found, mode);
    if (mode && config->instance[*mode].domain[0] != '\0' && is_port(config->instance[*mode].port))
        check_service(found, config->instance[*mode], *mode, limit);
    if (radios)
        check_radios(found);
    check_siblings(found, mode == WS_INSTANCE_RRM);
    check_notify_files(found, choose_agent(find_agents(), config_path).has_value());
    return found;
}
