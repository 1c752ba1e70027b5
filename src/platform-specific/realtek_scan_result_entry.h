// scan_result_entry: a neighbour as the kernel's scan result tells it.
#ifndef LUMD_REALTEK_SCAN_RESULT_ENTRY_H
#define LUMD_REALTEK_SCAN_RESULT_ENTRY_H

#include <cstdint>

#include "driver_interface.h"
#include "vexor_command.h"

class driver_realtek;

enum scan_kind : std::int32_t { SCAN_ACTIVE = 0, SCAN_RRM = 1, SCAN_MAX = 2 };

// An active scan tells channel and bandwidth themselves; an RRM scan tells the chanspec, which
// `drv` takes apart, and the transmit power.
struct scan_result_entry : ap_info {
    scan_result_entry(const driver_realtek& drv, const ap_info_s& entry, scan_kind kind);
};

#endif
