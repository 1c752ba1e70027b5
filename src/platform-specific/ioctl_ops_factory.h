// ioctl_ops_factory: the back-end for an interface.
#ifndef LUMD_IOCTL_OPS_FACTORY_H
#define LUMD_IOCTL_OPS_FACTORY_H

#include <memory>
#include <string>

#include "ioctl_ops.h"

class driver_realtek;

class ioctl_ops_factory {
  public:
    // Null for an unknown family. `drv` is borrowed for the back-end's life.
    static std::unique_ptr<ioctl_ops> get(ioctl_ops_type type, const driver_realtek& drv,
                                          const std::string& ifname);
};

#endif
