// nl80211_events: what radios of mac80211 and hostapd tell unasked, as events of the driver.
#ifndef LUMD_NL80211_EVENTS_H
#define LUMD_NL80211_EVENTS_H

#include <cstdint>
#include <optional>
#include <string_view>

#include "driver_interface.h"
#include "nl80211_radios.h"

class driver_realtek;

// A change of a radio's channel becomes RRM_CHANSPEC_ACSD, whoever made it, and so does an access
// point that hostapd starts, which may be on another channel than before. A client that accepts to
// move becomes RRM_STA_ROAM.
class nl80211_events {
  public:
    using callback_t = driver_interface::driver_event_callback;

    nl80211_events(const driver_realtek& owner, nl80211_radios& radios)
        : drv_(owner), radios_(radios) {}

    // Waits for at most `wait_us` and hands over what came. Always 0.
    int process(long wait_us, const callback_t& callback);

  private:
    void read_kernel(const callback_t& callback);
    void read_hostapd(const callback_t& callback);
    void take_hostapd_event(std::string_view event, const callback_t& callback);
    // Of the radio of that number; of all for an empty one.
    void tell_channel(std::optional<int> radio, const callback_t& callback);
    std::optional<int> radio_of_interface(std::uint32_t index);

    const driver_realtek& drv_;
    nl80211_radios& radios_;
};

#endif
