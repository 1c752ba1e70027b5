// lumctl check: everything that the agent needs, one after the other.
#ifndef LUMCTL_CHECK_H
#define LUMCTL_CHECK_H

#include <chrono>
#include <string>

#include "finding.h"

// Each step ends within `limit`.
[[nodiscard]] report run_check(const std::string& config_path, std::chrono::seconds limit);

#endif
