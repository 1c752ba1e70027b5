#include "client_traps.h"

#include <array>
#include <charconv>
#include <utility>

#include "text_values.h"

namespace apd {

namespace {

// Bit 19 of the extended capabilities: IEEE 802.11-2020 9.4.2.26, BSS Transition.
constexpr std::size_t kTransitionByte = 2;
constexpr unsigned kTransitionBit = 1U << 3;

// Seen on air: hostapd puts stations off by Deauthentication frames, at the end of an access point
// as for the black list.
constexpr const char* kPutOff = "send-deauth";

// The object "event" with what each has.
Json trap(const char* type, const TrapVap& vap, const Mac& station) {
    Json message = new_object();
    set_text(message.get(), "command", "wifi-client-trap");
    json_object* const event = json_object_new_object();
    json_object_object_add(message.get(), "event", event);
    set_text(event, "type", type);
    set_text(event, "dev", vap.ifname);
    set_text(event, "mac", to_text(station));
    set_text(event, "ssid", vap.ssid);
    return message;
}

std::vector<Json> one(Json message) {
    std::vector<Json> messages;
    messages.push_back(std::move(message));
    return messages;
}

}  // namespace

StationFacts read_station(const std::string& answer) {
    StationFacts facts;
    const std::vector<std::string> lines = split_lines(answer);
    if (const std::optional<std::string> signal = value_of(lines, "signal"))
        facts.signal = parse_number(*signal);
    if (const std::optional<std::string> hex = value_of(lines, "ext_capab")) {
        const std::string_view digits = hex->size() >= 2 * (kTransitionByte + 1)
                                            ? std::string_view{*hex}.substr(2 * kTransitionByte, 2)
                                            : std::string_view{};
        unsigned byte = 0;
        if (!digits.empty() && is_hex(digits))
            std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
        facts.transitions = (byte & kTransitionBit) != 0;
    }
    return facts;
}

std::vector<Json> ClientTraps::make(const HostapdEvent& event, const TrapVap& vap,
                                    const StationFacts& facts) {
    switch (event.kind) {
        case EventKind::kStationConnected:
            return connected(event, vap, facts);
        case EventKind::kStationDisconnected:
            return disconnected(event, vap);
        case EventKind::kPassphraseMismatch:
        case EventKind::kStationRejected:
            return one(trap("auth-fail", vap, event.station));
        case EventKind::kEapFailure:
            return one(trap("8021x-fail", vap, event.station));
        case EventKind::kEapSuccess:  // AP-STA-CONNECTED follows when the keys are there
        case EventKind::kApEnabled:
        case EventKind::kApDisabled:
        case EventKind::kSwitchFinished:
        case EventKind::kNewChannel:
        case EventKind::kRadar:
        case EventKind::kCacStart:
        case EventKind::kCacEnd:
        case EventKind::kTerminating:
            break;
    }
    return {};
}

std::vector<Json> ClientTraps::connected(const HostapdEvent& event, const TrapVap& vap,
                                         const StationFacts& facts) {
    std::vector<Json> messages;
    const auto before = stations_.find(event.station);
    // It has moved within the access point; where it was, hostapd tells nothing or later.
    if (before != stations_.end() && before->second.ifname != vap.ifname)
        messages.push_back(trap("reassoc", before->second, event.station));
    stations_[event.station] = vap;
    put_off_.erase(event.station);
    Json message = trap(vap.enterprise ? "8021x-success" : "auth", vap, event.station);
    json_object* const told = member(message.get(), "event");
    if (facts.signal)
        json_object_object_add(told, "rssi", json_object_new_int(*facts.signal));
    json_object* const client = json_object_new_object();
    set_text(client, "using-802.11v", facts.transitions ? "yes" : "no");
    json_object_object_add(told, "client-info", client);
    messages.push_back(std::move(message));
    return messages;
}

std::vector<Json> ClientTraps::disconnected(const HostapdEvent& event, const TrapVap& vap) {
    const auto known = stations_.find(event.station);
    // The late end of an association that a newer one has replaced, or that was told before.
    if (known == stations_.end() || known->second.ifname != vap.ifname)
        return {};
    stations_.erase(known);
    return one(
        trap(put_off_.erase(event.station) > 0 ? kPutOff : "recv-disassoc", vap, event.station));
}

std::vector<Json> ClientTraps::end(const std::string& ifname) {
    std::vector<Json> messages;
    std::erase_if(stations_, [&](const auto& entry) {
        const auto& [station, vap] = entry;
        if (vap.ifname != ifname)
            return false;
        messages.push_back(trap(kPutOff, vap, station));
        put_off_.erase(station);
        return true;
    });
    return messages;
}

void ClientTraps::forget_all() {
    stations_.clear();
    put_off_.clear();
}

std::string ClientTraps::where(const Mac& station) const {
    const auto known = stations_.find(station);
    return known != stations_.end() ? known->second.ifname : "";
}

std::size_t ClientTraps::count(const std::string& ifname) const {
    std::size_t count = 0;
    for (const auto& [mac, vap] : stations_)
        count += vap.ifname == ifname ? 1 : 0;
    return count;
}

}  // namespace apd
