#include "nl80211_events.h"

#include <linux/nl80211.h>
#include <poll.h>

#include <array>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "driver_realtek.h"
#include "krds.h"
#include "lum_trace.h"

int nl80211_events::process(long wait_us, const callback_t& callback) {
    constexpr long us_per_ms = 1000;
    const hostapd_control* const hostapd = radios_.hostapd_events();
    // A descriptor of -1 is none to poll(2).
    std::array entries = {pollfd{radios_.kernel_events().fd(), POLLIN, 0},
                          pollfd{hostapd != nullptr ? hostapd->fd() : -1, POLLIN, 0}};
    if (poll(entries.data(), entries.size(), static_cast<int>(wait_us / us_per_ms)) > 0) {
        if (entries[0].revents != 0)
            read_kernel(callback);
        if (entries[1].revents != 0)
            read_hostapd(callback);
    }
    return 0;
}

void nl80211_events::read_kernel(const callback_t& callback) {
    std::set<std::uint32_t> changed;
    const int result = radios_.kernel_events().read_events(
        [&changed](std::uint8_t command, const nl_attributes& message) {
            if (command == NL80211_CMD_CH_SWITCH_NOTIFY)
                changed.insert(message.get<std::uint32_t>(NL80211_ATTR_IFINDEX).value_or(0));
        });
    for (const std::uint32_t index : changed)
        if (const std::optional<int> radio = radio_of_interface(index))
            tell_channel(radio, callback);
    if (result == 0)
        return;
    trace.warn("<%s:%d> events of nl80211 are lost: %s\n", __func__, __LINE__,
               std::strerror(-result));
    tell_channel(std::nullopt, callback);
}

std::optional<int> nl80211_events::radio_of_interface(std::uint32_t index) {
    std::vector<interface_record> all;
    radios_.interfaces(all);
    for (const interface_record& entry : all)
        if (entry.index == index && drv_.radio_by_ifname(entry.name) != nullptr)
            return drv_.get_radio_id(entry.name);
    return std::nullopt;
}

void nl80211_events::tell_channel(std::optional<int> radio, const callback_t& callback) {
    KRDS::for_each_radio([&](const std::string& ifname, const KRDS::RadioDescription& description) {
        const int number = drv_.get_radio_id(ifname);
        if (description.driver == KRDS::Driver::NL80211 && number == radio.value_or(number))
            callback({RRM_CHANSPEC_ACSD, number, rrm_sta_s{}});
        return false;
    });
}

void nl80211_events::read_hostapd(const callback_t& callback) {
    hostapd_control* const hostapd = radios_.hostapd_events();
    for (std::size_t i = 0; hostapd != nullptr && i < hostapd_control::events_kept; ++i) {
        const std::optional<std::string> event = hostapd->next_event();
        if (!event)
            break;
        take_hostapd_event(*event, callback);
    }
}

void nl80211_events::take_hostapd_event(std::string_view event, const callback_t& callback) {
    const std::string ifname{hostapd_texts::take_interface(event)};
    if (event.starts_with("AP-ENABLED"))
        return drv_.radio_by_ifname(ifname) != nullptr
                   ? tell_channel(drv_.get_radio_id(ifname), callback)
                   : void();
    const std::optional<hostapd_texts::transition_response> response =
        hostapd_texts::read_transition_response(event);
    const interface_context* const radio = response ? drv_.radio_by_ifname(ifname) : nullptr;
    if (radio == nullptr)
        return;
    if (response->status != 0) {
        trace.info("<%s:%d> %s: client(%s) does not move, status %u\n", __func__, __LINE__,
                   ifname.c_str(), response->station.c_str(), response->status);
        return;
    }
    rrm_sta_s station;
    station.mac = response->station;
    station.target_roaming_mac = response->target;
    station.ifname = ifname;
    for (const vap_context& vap : radio->vap)
        if (vap.ifname == ifname)
            station.ssid = vap.ssid;
    callback({RRM_STA_ROAM, drv_.get_radio_id(ifname), station});
}
