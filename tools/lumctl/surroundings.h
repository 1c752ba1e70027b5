// What the agent finds on its machine: siblings' pid files, notify files, the platform's files,
// interfaces.
#ifndef LUMCTL_SURROUNDINGS_H
#define LUMCTL_SURROUNDINGS_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "finding.h"

// A sibling daemon by its pid file, as the agent looks for it.
struct sibling {
    bool announced = false;  // the file is there: for the agent the daemon runs
    bool alive = false;      // so does the process that it names
    pid_t pid = 0;           // 0: the file names none
};
[[nodiscard]] sibling look_at_hostapd();
[[nodiscard]] sibling look_at_guardd();

// "running, pid 12" and so on.
[[nodiscard]] std::string describe(const sibling& daemon);

void check_siblings(report& found, bool needed);
void check_notify_files(report& found, bool agent_runs);
void check_platform_files(report& found);

// Each radio that radios.json names, in /sys/class/net. After check_platform_files().
void check_radios(report& found);

#endif
