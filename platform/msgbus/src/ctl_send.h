// msgbusctl send and call: one message, and its answer.
#ifndef PLATFORM_MSGBUS_CTL_SEND_H
#define PLATFORM_MSGBUS_CTL_SEND_H

#include "ctl_options.h"

namespace msgbusctl {

// Each is the exit status; a failure ends the program.
[[nodiscard]] int run_send(const Options& options);
[[nodiscard]] int run_call(const Options& options);

}  // namespace msgbusctl

#endif
