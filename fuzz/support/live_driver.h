// The Realtek driver of the process on the AccessPoint: hostapd is up and both radios are read.
#ifndef FUZZ_LIVE_DRIVER_H
#define FUZZ_LIVE_DRIVER_H

#include "platform-specific/driver_realtek.h"

namespace fuzz {

// Ends what an earlier input has set, and reads all radios anew.
driver_realtek& live_driver();

}  // namespace fuzz

#endif
