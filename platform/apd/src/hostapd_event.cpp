#include "hostapd_event.h"

#include "text_values.h"

namespace apd {

namespace {

struct Known {
    const char* name;
    EventKind kind;
    bool has_station;
};
constexpr Known kKnown[] = {
    {"AP-STA-CONNECTED", EventKind::kStationConnected, true},
    {"AP-STA-DISCONNECTED", EventKind::kStationDisconnected, true},
    {"AP-STA-POSSIBLE-PSK-MISMATCH", EventKind::kPassphraseMismatch, true},
    {"CTRL-EVENT-SAE-UNKNOWN-PASSWORD-IDENTIFIER", EventKind::kPassphraseMismatch, true},
    {"AP-REJECTED-BLOCKED-STA", EventKind::kStationRejected, true},
    {"AP-REJECTED-MAX-STA", EventKind::kStationRejected, true},
    // With "2" it is the word of a RADIUS server, without it hostapd's own.
    {"CTRL-EVENT-EAP-SUCCESS", EventKind::kEapSuccess, true},
    {"CTRL-EVENT-EAP-SUCCESS2", EventKind::kEapSuccess, true},
    {"CTRL-EVENT-EAP-FAILURE", EventKind::kEapFailure, true},
    {"CTRL-EVENT-EAP-FAILURE2", EventKind::kEapFailure, true},
    {"CTRL-EVENT-EAP-TIMEOUT-FAILURE", EventKind::kEapFailure, true},
    {"CTRL-EVENT-EAP-TIMEOUT-FAILURE2", EventKind::kEapFailure, true},
    {"AP-ENABLED", EventKind::kApEnabled, false},
    {"AP-DISABLED", EventKind::kApDisabled, false},
    {"AP-CSA-FINISHED", EventKind::kSwitchFinished, false},
    {"DFS-NEW-CHANNEL", EventKind::kNewChannel, false},
    {"DFS-RADAR-DETECTED", EventKind::kRadar, false},
    {"DFS-CAC-START", EventKind::kCacStart, false},
    {"DFS-CAC-COMPLETED", EventKind::kCacEnd, false},
    {"CTRL-EVENT-TERMINATING", EventKind::kTerminating, false},
};

int number_of(const std::vector<std::string>& words, const char* name) {
    const std::optional<std::string> text = value_of(words, name);
    return text ? parse_number(*text).value_or(0) : 0;
}

void read_members(const std::vector<std::string>& words, HostapdEvent& event) {
    event.frequency = number_of(words, "freq");
    event.success = number_of(words, "success") == 1;
    if (const std::optional<std::string> time = value_of(words, "cac_time"))
        event.seconds =
            parse_number(time->ends_with('s') ? time->substr(0, time->size() - 1) : *time)
                .value_or(0);
}

}  // namespace

std::optional<HostapdEvent> read_event(const std::string& text) {
    std::vector<std::string> words = split_words(text);
    // hostapd ends some members with a comma.
    for (std::string& word : words)
        if (word.ends_with(','))
            word.pop_back();
    if (words.empty())
        return std::nullopt;
    for (const Known& known : kKnown) {
        if (words.front() != known.name)
            continue;
        HostapdEvent event;
        event.kind = known.kind;
        if (known.has_station) {
            const std::optional<Mac> station =
                words.size() > 1 ? parse_mac(words[1]) : std::nullopt;
            if (!station)
                return std::nullopt;
            event.station = *station;
        }
        read_members(words, event);
        return event;
    }
    return std::nullopt;
}

}  // namespace apd
