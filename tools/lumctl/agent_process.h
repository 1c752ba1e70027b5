// The running agent as /proc shows it (proc(5)).
#ifndef LUMCTL_AGENT_PROCESS_H
#define LUMCTL_AGENT_PROCESS_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "socket_table.h"
#include "websock_cfg.h"

struct agent_process {
    pid_t pid = 0;
    std::string config_path;             // absolute as far as it can be told; empty: without -f
    std::optional<ws_instance_id> mode;  // by its threads; nothing before they run
    std::optional<long> age;             // seconds since its start
    std::optional<long> memory_kib;      // resident
};

// Every process that bears the agent's name and is no thread of another, by pid.
[[nodiscard]] std::vector<agent_process> find_agents();

// The one that runs with that configuration file; without a path the only one there is.
[[nodiscard]] std::optional<agent_process> choose_agent(const std::vector<agent_process>& agents,
                                                        const std::string& config_path);

// The file that -f names in an argument list as /proc/PID/cmdline has it, each argument ended by a
// zero.
[[nodiscard]] std::string config_argument(const std::string& command_line);

// The TCP sockets that the process holds. Nothing, with errno set, without the right to look.
[[nodiscard]] std::optional<std::vector<tcp_socket>> sockets_of(pid_t pid);

// Whether a process of that number runs.
[[nodiscard]] bool is_alive(pid_t pid);

#endif
