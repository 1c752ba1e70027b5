#include "unset_values.h"

#include <algorithm>
#include <optional>

#include "channel.h"
#include "config_rules.h"
#include "interface_name.h"
#include "text_values.h"

namespace apd {

namespace {

// dBm between which the agent keeps a radio of which it is told nothing.
constexpr int kLeastPower = 11;
constexpr int kMostPower = 16;
constexpr int kNarrow = 20;  // MHz

std::optional<int> number_at(json_object* radio, const std::string& name) {
    return parse_number(member_text(radio, name));
}

// The half of the channel that hostapd is told; a narrow one is a lower half to the agent.
std::string sideband_of(json_object* radio) {
    Channel channel;
    channel.number = number_at(radio, "channel").value_or(0);
    channel.width = number_at(radio, "bandwidth").value_or(kNarrow);
    std::string reason;
    const std::optional<Channel> completed = complete(channel, reason);
    return completed && completed->sideband == Sideband::kUpper ? "upper" : "lower";
}

// Of the settings of a radio that follow from its others; empty for all else.
std::string radio_value(json_object* radio, const std::string& name) {
    if (name == "control-sideband")
        return sideband_of(radio);
    if (name == "tx-power-min")
        return std::to_string(
            std::min(kLeastPower, number_at(radio, "tx-power-max").value_or(kLeastPower)));
    if (name == "tx-power-max")
        return std::to_string(
            std::max(kMostPower, number_at(radio, "tx-power-min").value_or(kMostPower)));
    return "";
}

}  // namespace

Json unset_value(json_object* tree, const std::string& path) {
    const std::string where = canonical_path(path);
    if (Json value = default_value(where))
        return value;
    for (int radio = 0; radio < kRadios; radio++) {
        const std::string settings = "/interface/" + radio_name(radio) + "/wlan/radio";
        if (!where.starts_with(settings + '/'))
            continue;
        const std::string text =
            radio_value(find_path(tree, settings), where.substr(settings.size() + 1));
        return text.empty() ? nullptr : Json{json_object_new_string(text.c_str())};
    }
    return nullptr;
}

}  // namespace apd
