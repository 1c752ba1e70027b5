// msgbusctl list and names: who is on the bus, and who might be.
#ifndef PLATFORM_MSGBUS_CTL_LIST_H
#define PLATFORM_MSGBUS_CTL_LIST_H

#include "ctl_options.h"

namespace msgbusctl {

// Each is the exit status; a failure ends the program.
[[nodiscard]] int run_list(const Options& options);
[[nodiscard]] int run_names(const Options& options);

}  // namespace msgbusctl

#endif
