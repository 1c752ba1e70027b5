// rrm_sta_realtek: an associated client as the kernel's station entry tells it.
#ifndef LUMD_RRM_STA_REALTEK_H
#define LUMD_RRM_STA_REALTEK_H

#include "driver_interface.h"
#include "vexor_command.h"

class rrm_sta_realtek : public rrm_sta_s {
  public:
    // What the entry does not tell (interface, SSID, security) is left to the caller.
    explicit rrm_sta_realtek(const sta_info_s& entry);
};

#endif
