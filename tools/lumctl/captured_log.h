// What the agent's classes and the platform's libraries log within lumctl goes to nobody's log:
// captured_log.cpp stands in for the platform's log sink. Linked into the program itself, where a
// definition comes before any library's.
#ifndef LUMCTL_CAPTURED_LOG_H
#define LUMCTL_CAPTURED_LOG_H

#include <string>
#include <vector>

// The lines since the last call, oldest first, without line feeds.
[[nodiscard]] std::vector<std::string> take_captured_log();

#endif
