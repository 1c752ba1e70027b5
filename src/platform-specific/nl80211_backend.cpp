#include "nl80211_backend.h"

#include "nl80211_events.h"
#include "nl80211_ioctl_ops.h"
#include "nl80211_radios.h"
#include "nl80211_socket.h"

namespace {

constexpr char hostapd_socket[] = "/var/run/hostapd/global";

}  // namespace

std::shared_ptr<nl80211_radios> make_nl80211_radios() {
    return std::make_shared<nl80211_radios>(std::make_unique<nl80211_socket>(),
                                            std::make_unique<nl80211_socket>(), hostapd_socket);
}

std::unique_ptr<ioctl_ops> make_nl80211_ops(const std::string& ifname, nl80211_radios* radios) {
    return std::make_unique<nl80211_ioctl_ops>(ifname, *radios);
}

int process_nl80211_events(const driver_realtek& drv, nl80211_radios* radios, long wait_us,
                           const driver_interface::driver_event_callback& callback) {
    return nl80211_events{drv, *radios}.process(wait_us, callback);
}
