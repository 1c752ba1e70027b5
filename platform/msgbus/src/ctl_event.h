// How msgbusctl shows what goes over the bus: as a line for people or one of JSON.
#ifndef PLATFORM_MSGBUS_CTL_EVENT_H
#define PLATFORM_MSGBUS_CTL_EVENT_H

#include <ctime>
#include <string>
#include <string_view>

#include "msgbus.h"

namespace msgbusctl {

[[nodiscard]] std::string_view payload_of(const message_s& frame);

// "12:30:01.250 28 (orvanta) -> 6 (hubd) #7 uid 0 TEXT", in local time and without a line feed,
// whatever bytes the payload has.
[[nodiscard]] std::string line_of(const message_s& frame, const timespec& when);

// A JSON object with "time" (RFC 3339, UTC), "type", "src" and "dst" (and "src-name" and "dst-name"
// where there are names), "seq", "uid" and "size" (bytes of the payload), without a line feed. The
// payload is "payload" when it is JSON, "text" when it is other UTF-8, else "bytes" in hexadecimal.
[[nodiscard]] std::string json_of(const message_s& frame, const timespec& when);

}  // namespace msgbusctl

#endif
