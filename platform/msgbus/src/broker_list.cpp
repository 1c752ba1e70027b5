#include "broker_list.h"

#include <string_view>

namespace msgbus {

namespace {

template <typename Number>
std::string member(std::string_view name, Number value) {
    return '"' + std::string{name} + "\":" + std::to_string(value);
}

std::string describe(const BrokerClient& client) {
    return '{' + member("module", client.module()) + ',' + member("pid", client.pid()) + ',' +
           member("uid", client.uid()) + ',' + member("waiting-frames", client.waiting_frames()) +
           ',' + member("waiting-bytes", client.waiting_bytes()) + ',' +
           member("sent", client.sent_frames()) + ',' +
           member("received", client.received_frames()) + '}';
}

}  // namespace

std::string describe_modules(std::span<BrokerClient* const> holders) {
    std::string elements;
    for (const BrokerClient* holder : holders)
        if (holder != nullptr)
            elements += (elements.empty() ? "" : ",") + describe(*holder);
    return "{\"modules\":[" + elements + "]}";
}

}  // namespace msgbus
