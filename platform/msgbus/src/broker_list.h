// What the broker answers to MSGBUS_LIST (msgbus.h).
#ifndef PLATFORM_MSGBUS_BROKER_LIST_H
#define PLATFORM_MSGBUS_BROKER_LIST_H

#include <span>
#include <string>

#include "broker_client.h"

namespace msgbus {

// The JSON text about those who hold a module id; `holders` is by module id, null where nobody is.
[[nodiscard]] std::string describe_modules(std::span<BrokerClient* const> holders);

}  // namespace msgbus

#endif
