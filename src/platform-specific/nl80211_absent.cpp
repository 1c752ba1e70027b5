#include "nl80211_backend.h"

class nl80211_radios {};

std::shared_ptr<nl80211_radios> make_nl80211_radios() {
    return nullptr;
}

std::unique_ptr<ioctl_ops> make_nl80211_ops(const std::string&, nl80211_radios*) {
    return nullptr;
}

int process_nl80211_events(const driver_realtek&, nl80211_radios*, long,
                           const driver_interface::driver_event_callback&) {
    return -1;
}
