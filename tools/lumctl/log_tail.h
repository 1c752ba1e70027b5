// The last complaints in the agent's log file.
#ifndef LUMCTL_LOG_TAIL_H
#define LUMCTL_LOG_TAIL_H

#include <cstddef>
#include <string>
#include <vector>

// Whether a line as the log sink writes it ("DATE TIME NAME[PID] SEVERITY: TEXT") is a warning or
// worse.
[[nodiscard]] bool is_complaint(const std::string& line);

// The last `count` of them in a text that may begin within a line, oldest first.
[[nodiscard]] std::vector<std::string> last_complaints(const std::string& log, std::size_t count);

#endif
