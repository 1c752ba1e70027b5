// The back-end for radios of mac80211, as the driver layer sees it: nl80211_backend.cpp where libnl
// and libwpa_client are, else nl80211_absent.cpp.
#ifndef LUMD_NL80211_BACKEND_H
#define LUMD_NL80211_BACKEND_H

#include <memory>
#include <string>

#include "driver_interface.h"
#include "ioctl_ops.h"

class driver_realtek;
class nl80211_radios;

// What is kept of such radios between two commands. It opens nothing before it is used. Null in a
// build without the back-end, whose radio registry knows no such radio either.
std::shared_ptr<nl80211_radios> make_nl80211_radios();

// The back-end for an interface. All is borrowed for its life.
std::unique_ptr<ioctl_ops> make_nl80211_ops(const std::string& ifname, nl80211_radios* radios);

// Waits for events of the radios and of hostapd for at most `wait_us` and hands them over: 0, or -1
// when there is nothing to wait for.
int process_nl80211_events(const driver_realtek& drv, nl80211_radios* radios, long wait_us,
                           const driver_interface::driver_event_callback& callback);

#endif
