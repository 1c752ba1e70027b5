// What hostapd tells by itself, read once: the events of its control sockets.
#ifndef PLATFORM_APD_HOSTAPD_EVENT_H
#define PLATFORM_APD_HOSTAPD_EVENT_H

#include <optional>
#include <string>

#include "mac_text.h"

namespace apd {

enum class EventKind {
    kStationConnected,
    kStationDisconnected,
    kPassphraseMismatch,
    kStationRejected,  // black list, or no room
    kEapSuccess,
    kEapFailure,
    kApEnabled,
    kApDisabled,
    kSwitchFinished,  // a change of channel
    kNewChannel,      // that hostapd has chosen after radar
    kRadar,
    kCacStart,  // the radar check
    kCacEnd,
    kTerminating,
};

struct HostapdEvent {
    EventKind kind{};
    Mac station{};         // of the kinds that concern one
    int frequency = 0;     // MHz, of the kinds that concern a channel; 0: not told
    bool success = false;  // of kCacEnd
    int seconds = 0;       // of kCacStart: how long the check takes
};

// Of one event without its level. Nothing for those that concern nobody here and for malformed
// ones.
[[nodiscard]] std::optional<HostapdEvent> read_event(const std::string& text);

}  // namespace apd

#endif
