#include "nl80211_kernel.h"

#include <linux/nl80211.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace apd {

namespace {

constexpr int kTries = 3;  // of a dump that changed while it was told

// An ioctl of netdevice(7) on one interface; 0 or a positive errno.
int interface_ioctl(unsigned long request, const std::string& ifname, ifreq& record) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return errno;
    ifname.copy(record.ifr_name, sizeof record.ifr_name - 1);
    const int error = ioctl(fd, request, &record) == 0 ? 0 : errno;
    close(fd);
    return error;
}

std::string bring_up(const std::string& ifname) {
    ifreq record{};
    int error = interface_ioctl(SIOCGIFFLAGS, ifname, record);
    if (error == 0 && (record.ifr_flags & IFF_UP) == 0) {
        record.ifr_flags = static_cast<short>(record.ifr_flags | IFF_UP);
        error = interface_ioctl(SIOCSIFFLAGS, ifname, record);
    }
    return error == 0 ? "" : ifname + " cannot be set up: " + std::strerror(error);
}

void read_frequency(const nl_attributes& frequency, RadioAbility& ability) {
    const auto mhz = frequency.get<std::uint32_t>(NL80211_FREQUENCY_ATTR_FREQ);
    const std::optional<int> number =
        mhz ? channel_of_frequency(static_cast<int>(*mhz)) : std::nullopt;
    if (!number || frequency.has(NL80211_FREQUENCY_ATTR_DISABLED))
        return;
    constexpr std::uint32_t per_dbm = 100;
    KernelChannel channel;
    channel.number = *number;
    channel.no_ir = frequency.has(NL80211_FREQUENCY_ATTR_NO_IR);
    channel.radar = frequency.has(NL80211_FREQUENCY_ATTR_RADAR);
    channel.radar_seen =
        frequency.get<std::uint32_t>(NL80211_FREQUENCY_ATTR_DFS_STATE) == NL80211_DFS_UNAVAILABLE;
    channel.max_power = static_cast<int>(
        frequency.get<std::uint32_t>(NL80211_FREQUENCY_ATTR_MAX_TX_POWER).value_or(0) / per_dbm);
    // A split dump may tell a channel more than once.
    if (ability.find(channel.number) == nullptr)
        ability.channels.push_back(channel);
}

void read_band(const nl_attributes& band, RadioAbility& ability) {
    ability.ht = ability.ht || band.has(NL80211_BAND_ATTR_HT_CAPA);
    ability.vht = ability.vht || band.has(NL80211_BAND_ATTR_VHT_CAPA);
    band.nested(NL80211_BAND_ATTR_IFTYPE_DATA).for_each([&](int, nl_attributes::bytes data) {
        const nl_attributes type{data};
        if (type.has(NL80211_BAND_IFTYPE_ATTR_HE_CAP_PHY) &&
            type.nested(NL80211_BAND_IFTYPE_ATTR_IFTYPES).has(NL80211_IFTYPE_AP))
            ability.he = true;
    });
    band.nested(NL80211_BAND_ATTR_FREQS).for_each([&](int, nl_attributes::bytes data) {
        read_frequency(nl_attributes{data}, ability);
    });
}

void read_wiphy(const nl_attributes& told, RadioAbility& ability) {
    ability.wiphy = told.get<std::uint32_t>(NL80211_ATTR_WIPHY).value_or(ability.wiphy);
    if (told.has(NL80211_ATTR_WIPHY_NAME))
        ability.phy = std::string{told.text(NL80211_ATTR_WIPHY_NAME)};
    told.nested(NL80211_ATTR_SUPPORTED_COMMANDS).for_each([&](int, nl_attributes::bytes data) {
        std::uint32_t command = 0;
        if (data.size() >= sizeof command)
            std::memcpy(&command, data.data(), sizeof command);
        ability.csa = ability.csa || command == NL80211_CMD_CHANNEL_SWITCH;
    });
    told.nested(NL80211_ATTR_WIPHY_BANDS).for_each([&](int, nl_attributes::bytes data) {
        read_band(nl_attributes{data}, ability);
    });
}

int width_of(std::uint32_t width) {
    switch (width) {
        case NL80211_CHAN_WIDTH_20_NOHT:
        case NL80211_CHAN_WIDTH_20:
            return 20;
        case NL80211_CHAN_WIDTH_40:
            return 40;
        case NL80211_CHAN_WIDTH_80:
            return 80;
        default:
            return 0;
    }
}

}  // namespace

std::string Nl80211Kernel::send(const nl_request& request, const std::string& what) {
    const int result = transport_.exchange(request);
    if (result == 0)
        return "";
    const std::string& words = transport_.reason();
    return what + ": " + (words.empty() ? std::strerror(-result) : words);
}

bool Nl80211Kernel::read_interface(const std::string& ifname, const nl_handler& handler) {
    const unsigned index = if_nametoindex(ifname.c_str());
    if (index == 0)
        return false;
    nl_request request{NL80211_CMD_GET_INTERFACE};
    request.put_u32(NL80211_ATTR_IFINDEX, index);
    return transport_.exchange(request, handler) == 0;
}

std::optional<std::uint32_t> Nl80211Kernel::wiphy_of(const std::string& phy) {
    std::optional<std::uint32_t> found;
    const nl_handler look = [&](std::uint8_t, const nl_attributes& told) {
        if (told.text(NL80211_ATTR_WIPHY_NAME) == phy)
            found = told.get<std::uint32_t>(NL80211_ATTR_WIPHY);
    };
    nl_request request{NL80211_CMD_GET_WIPHY, nl_request::dump};
    request.put_flag(NL80211_ATTR_SPLIT_WIPHY_DUMP);
    for (int tries = 0; tries < kTries && transport_.exchange(request, look) == -EINTR; tries++) {
    }
    return found;
}

std::string Nl80211Kernel::open_radio(const std::string& ifname, const std::string& phy) {
    if (if_nametoindex(ifname.c_str()) != 0)
        return bring_up(ifname);
    if (phy.empty())
        return "there is no interface " + ifname + ", and no phy is set to make it on";
    const std::optional<std::uint32_t> wiphy = wiphy_of(phy);
    if (!wiphy)
        return "there is no " + phy + " for " + ifname;
    nl_request request{NL80211_CMD_NEW_INTERFACE};
    request.put_u32(NL80211_ATTR_WIPHY, *wiphy)
        .put_text(NL80211_ATTR_IFNAME, ifname)
        .put_u32(NL80211_ATTR_IFTYPE, NL80211_IFTYPE_STATION);
    std::string reason = send(request, ifname + " cannot be made");
    return reason.empty() ? bring_up(ifname) : reason;
}

std::optional<RadioAbility> Nl80211Kernel::ability(const std::string& ifname) {
    std::optional<std::uint32_t> wiphy;
    if (!read_interface(ifname,
                        [&](std::uint8_t, const nl_attributes& told) {
                            wiphy = told.get<std::uint32_t>(NL80211_ATTR_WIPHY);
                        }) ||
        !wiphy)
        return std::nullopt;
    RadioAbility ability;
    const nl_handler read = [&](std::uint8_t, const nl_attributes& told) {
        if (told.get<std::uint32_t>(NL80211_ATTR_WIPHY) == wiphy)
            read_wiphy(told, ability);
    };
    nl_request request{NL80211_CMD_GET_WIPHY, nl_request::dump};
    request.put_flag(NL80211_ATTR_SPLIT_WIPHY_DUMP).put_u32(NL80211_ATTR_WIPHY, *wiphy);
    int result = -EINTR;
    for (int tries = 0; tries < kTries && result == -EINTR; tries++) {
        ability = RadioAbility{};
        result = transport_.exchange(request, read);
    }
    return result == 0 ? std::optional{ability} : std::nullopt;
}

std::string Nl80211Kernel::make_vap(const std::string& ifname, const RadioAbility& ability,
                                    const Mac& mac) {
    remove_vap(ifname);
    nl_request request{NL80211_CMD_NEW_INTERFACE};
    request.put_u32(NL80211_ATTR_WIPHY, ability.wiphy)
        .put_text(NL80211_ATTR_IFNAME, ifname)
        .put_u32(NL80211_ATTR_IFTYPE, NL80211_IFTYPE_AP)
        .put_data(NL80211_ATTR_MAC, mac);
    return send(request, ifname + " cannot be made");
}

void Nl80211Kernel::remove_vap(const std::string& ifname) {
    const unsigned index = if_nametoindex(ifname.c_str());
    if (index == 0)
        return;
    nl_request request{NL80211_CMD_DEL_INTERFACE};
    request.put_u32(NL80211_ATTR_IFINDEX, index);
    static_cast<void>(transport_.exchange(request));
}

std::optional<Mac> Nl80211Kernel::address(const std::string& ifname) {
    ifreq record{};
    if (interface_ioctl(SIOCGIFHWADDR, ifname, record) != 0)
        return std::nullopt;
    Mac mac{};
    std::memcpy(mac.data(), record.ifr_hwaddr.sa_data, mac.size());
    return mac;
}

std::string Nl80211Kernel::set_power(const RadioAbility& ability, std::optional<int> power) {
    constexpr int per_dbm = 100;
    nl_request request{NL80211_CMD_SET_WIPHY};
    request.put_u32(NL80211_ATTR_WIPHY, ability.wiphy)
        .put_u32(NL80211_ATTR_WIPHY_TX_POWER_SETTING,
                 power ? NL80211_TX_POWER_FIXED : NL80211_TX_POWER_AUTOMATIC);
    if (power)
        request.put_u32(NL80211_ATTR_WIPHY_TX_POWER_LEVEL,
                        static_cast<std::uint32_t>(*power * per_dbm));
    return send(request, "the power of " + ability.phy + " cannot be set");
}

std::optional<int> Nl80211Kernel::power(const std::string& ifname) {
    constexpr int per_dbm = 100;
    std::optional<int> result;
    read_interface(ifname, [&](std::uint8_t, const nl_attributes& told) {
        if (const auto level = told.get<std::uint32_t>(NL80211_ATTR_WIPHY_TX_POWER_LEVEL))
            result = static_cast<std::int32_t>(*level) / per_dbm;
    });
    return result;
}

std::optional<Channel> Nl80211Kernel::channel(const std::string& ifname) {
    std::optional<Channel> result;
    read_interface(ifname, [&](std::uint8_t, const nl_attributes& told) {
        const auto primary = told.get<std::uint32_t>(NL80211_ATTR_WIPHY_FREQ);
        const auto width = told.get<std::uint32_t>(NL80211_ATTR_CHANNEL_WIDTH);
        const auto center = told.get<std::uint32_t>(NL80211_ATTR_CENTER_FREQ1);
        if (primary && width)
            result = channel_of(static_cast<int>(*primary), width_of(*width),
                                static_cast<int>(center.value_or(*primary)));
    });
    return result;
}

}  // namespace apd
