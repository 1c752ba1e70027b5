// msgbusctl monitor: all traffic, as it goes over the bus.
#ifndef PLATFORM_MSGBUS_CTL_MONITOR_H
#define PLATFORM_MSGBUS_CTL_MONITOR_H

#include "ctl_options.h"

namespace msgbusctl {

// Until the user ends it or nobody reads it any more; the exit status. A failure ends the program.
[[nodiscard]] int run_monitor(const Options& options);

}  // namespace msgbusctl

#endif
