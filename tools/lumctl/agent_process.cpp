#include "agent_process.h"

#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <utility>

#include "files.h"

namespace {

constexpr std::size_t small_file = std::size_t{64} * 1024;
constexpr std::size_t large_table = std::size_t{16} * 1024 * 1024;

std::string proc_path(pid_t pid, const char* name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

std::string read_proc(pid_t pid, const char* name) {
    return read_file(proc_path(pid, name), small_file).value_or("");
}

bool is_pid(const std::string& name) {
    return !name.empty() && name.find_first_not_of("0123456789") == std::string::npos;
}

// The agent names its threads "lumd:main" and so on, the first one too; until then it is called by
// its file.
bool is_agent_name(const std::string& name) {
    return name == "lumd\n" || name.starts_with("lumd:");
}

std::optional<ws_instance_id> mode_of_thread(const std::string& name) {
    constexpr std::pair<const char*, ws_instance_id> names[] = {
        {"lumd:websock-ro", WS_INSTANCE_PORTAL},  // the kernel keeps 15 bytes
        {"lumd:websock-rr", WS_INSTANCE_RRM},    {"lumd:websock-wi", WS_INSTANCE_WIDS},
        {"lumd:rrm", WS_INSTANCE_RRM},           {"lumd:wids", WS_INSTANCE_WIDS},
    };
    for (const auto& [thread, mode] : names)
        if (name.compare(0, name.find('\n'), thread) == 0)
            return mode;
    return std::nullopt;
}

std::optional<ws_instance_id> mode_of_process(pid_t pid) {
    for (const std::string& thread :
         list_folder(proc_path(pid, "task")).value_or(std::vector<std::string>{})) {
        const std::string comm = read_proc(pid, ("task/" + thread + "/comm").c_str());
        if (const auto mode = mode_of_thread(comm))
            return mode;
    }
    return std::nullopt;
}

// Field 22 of /proc/PID/stat counts clock ticks from the start of the machine. The name in field 2
// may hold anything.
std::optional<long> age_of_process(pid_t pid) {
    const std::string stat = read_proc(pid, "stat");
    const std::size_t name_end = stat.rfind(')');
    const std::string uptime = read_file("/proc/uptime", small_file).value_or("");
    unsigned long long start = 0;
    constexpr const char* form =
        ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d %llu";
    if (name_end == std::string::npos || uptime.empty() ||
        std::sscanf(stat.c_str() + name_end, form, &start) != 1)
        return std::nullopt;
    const long since =
        static_cast<long>(start / static_cast<unsigned long long>(sysconf(_SC_CLK_TCK)));
    return std::max(0L, std::strtol(uptime.c_str(), nullptr, 10) - since);
}

std::optional<long> memory_of_process(pid_t pid) {
    const std::string status = read_proc(pid, "status");
    constexpr const char* name = "\nVmRSS:";
    const std::size_t at = status.find(name);
    if (at == std::string::npos)
        return std::nullopt;
    return std::strtol(status.c_str() + at + std::strlen(name), nullptr, 10);
}

std::string link_target(const std::string& path) {
    char target[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    return length < 0 ? std::string() : std::string(target, static_cast<std::size_t>(length));
}

std::string absolute(pid_t pid, const std::string& path) {
    if (path.empty() || path[0] == '/')
        return path;
    const std::string folder = link_target(proc_path(pid, "cwd"));
    return folder.empty() ? path : folder + "/" + path;
}

bool is_same_file(const std::string& one, const std::string& other) {
    char resolved_one[PATH_MAX];
    char resolved_other[PATH_MAX];
    if (realpath(one.c_str(), resolved_one) == nullptr ||
        realpath(other.c_str(), resolved_other) == nullptr)
        return one == other;
    return std::strcmp(resolved_one, resolved_other) == 0;
}

agent_process look_at(pid_t pid) {
    agent_process agent;
    agent.pid = pid;
    agent.config_path = absolute(pid, config_argument(read_proc(pid, "cmdline")));
    agent.mode = mode_of_process(pid);
    agent.age = age_of_process(pid);
    agent.memory_kib = memory_of_process(pid);
    return agent;
}

// The inodes of a process's sockets, from links that read "socket:[1234]".
std::optional<std::set<unsigned long>> socket_inodes(pid_t pid) {
    const auto names = list_folder(proc_path(pid, "fd"));
    if (!names)
        return std::nullopt;
    constexpr const char* prefix = "socket:[";
    std::set<unsigned long> inodes;
    for (const std::string& name : *names) {
        const std::string target = link_target(proc_path(pid, ("fd/" + name).c_str()));
        if (target.starts_with(prefix))
            inodes.insert(std::strtoul(target.c_str() + std::strlen(prefix), nullptr, 10));
    }
    return inodes;
}

}  // namespace

std::vector<agent_process> find_agents() {
    std::vector<agent_process> agents;
    for (const std::string& name : list_folder("/proc").value_or(std::vector<std::string>{})) {
        if (!is_pid(name))
            continue;
        const auto pid = static_cast<pid_t>(std::strtol(name.c_str(), nullptr, 10));
        if (is_agent_name(read_proc(pid, "comm")))
            agents.push_back(look_at(pid));
    }
    std::sort(agents.begin(), agents.end(),
              [](const auto& one, const auto& other) { return one.pid < other.pid; });
    return agents;
}

std::optional<agent_process> choose_agent(const std::vector<agent_process>& agents,
                                          const std::string& config_path) {
    if (config_path.empty())
        return agents.size() == 1 ? std::optional(agents.front()) : std::nullopt;
    for (const agent_process& agent : agents)
        if (!agent.config_path.empty() && is_same_file(agent.config_path, config_path))
            return agent;
    return std::nullopt;
}

std::string config_argument(const std::string& command_line) {
    std::string path;
    bool is_next = false;
    for (std::size_t begin = 0; begin < command_line.size();) {
        const std::size_t end = std::min(command_line.find('\0', begin), command_line.size());
        const std::string argument = command_line.substr(begin, end - begin);
        if (is_next)
            path = argument;
        is_next = !is_next && argument == "-f";
        if (argument.size() > 2 && argument.starts_with("-f"))
            path = argument.substr(2);
        begin = end + 1;
    }
    return path;
}

std::optional<std::vector<tcp_socket>> sockets_of(pid_t pid) {
    const auto inodes = socket_inodes(pid);
    if (!inodes)
        return std::nullopt;
    std::vector<tcp_socket> sockets;
    for (const char* table : {"net/tcp", "net/tcp6"})
        for (tcp_socket& socket :
             parse_socket_table(read_file(proc_path(pid, table), large_table).value_or("")))
            if (inodes->count(socket.inode) > 0)
                sockets.push_back(std::move(socket));
    return sockets;
}

bool is_alive(pid_t pid) {
    return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
}
