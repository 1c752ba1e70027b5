// driver_realtek: chanspecs, and the channel and power in use or asked for.
#include <cstring>
#include <span>

#include "driver_realtek.h"
#include "lum_trace.h"
#include "text.h"

namespace {

constexpr unsigned channel_mask = 0xFF;    // centre channel of a chanspec
constexpr int first_5ghz_channel = 30;     // every lower number is a 2.4 GHz channel
constexpr int channels_per_half_step = 2;  // half of 20 MHz in channel numbers, 5 MHz each

unsigned sub_band(unsigned chanspec) {
    return chanspec & LWLIO_CHANSPEC_CTL_SB_MASK;
}

// Distance of the primary channel from the centre of a 40 MHz channel.
int primary_offset_40(unsigned sub_band_bits) {
    switch (sub_band_bits) {
        case LWLIO_CHANSPEC_CTL_SB_LOWER:
            return -channels_per_half_step;
        case LWLIO_CHANSPEC_CTL_SB_UPPER:
            return channels_per_half_step;
        default:
            return 0;
    }
}

// The same of an 80 MHz channel.
int primary_offset_80(unsigned sub_band_bits) {
    switch (sub_band_bits) {
        case LWLIO_CHANSPEC_CTL_SB_LL:
            return -3 * channels_per_half_step;
        case LWLIO_CHANSPEC_CTL_SB_LU:
            return -channels_per_half_step;
        case LWLIO_CHANSPEC_CTL_SB_UL:
            return channels_per_half_step;
        case LWLIO_CHANSPEC_CTL_SB_UU:
            return 3 * channels_per_half_step;
        default:
            return 0;
    }
}

}  // namespace

int driver_realtek::chanspec_bw(unsigned chanspec) const {
    switch (chanspec & LWLIO_CHANSPEC_BW_MASK) {
        case LWLIO_CHANSPEC_BW_20:
            return 20;
        case LWLIO_CHANSPEC_BW_40:
            return 40;
        case LWLIO_CHANSPEC_BW_80:
            return 80;
        default:
            trace.warn("<%s:%d> bandwidth is not set in chanspec\n", __func__, __LINE__);
            return 20;
    }
}

int driver_realtek::chanspec_channel(unsigned chanspec) const {
    const int centre = static_cast<int>(chanspec & channel_mask);
    switch (chanspec_bw(chanspec)) {
        case 40:
            return centre + primary_offset_40(sub_band(chanspec));
        case 80:
            return centre + primary_offset_80(sub_band(chanspec));
        default:
            return centre;
    }
}

const char* driver_realtek::chanspec_primary(unsigned chanspec) const {
    if (chanspec_bw(chanspec) != 40)
        return "none";
    return sub_band(chanspec) == LWLIO_CHANSPEC_CTL_SB_UPPER ? "upper" : "lower";
}

const char* driver_realtek::primary_channel_to_string(int sub_band_bits, int bw) const {
    struct name {
        int bw;
        int sub_band_bits;
        const char* text;
    };
    static constexpr name names[] = {
        {40, LWLIO_CHANSPEC_CTL_SB_LOWER, "lower"}, {40, LWLIO_CHANSPEC_CTL_SB_UPPER, "upper"},
        {80, LWLIO_CHANSPEC_CTL_SB_LL, "ll"},       {80, LWLIO_CHANSPEC_CTL_SB_LU, "lu"},
        {80, LWLIO_CHANSPEC_CTL_SB_UL, "ul"},       {80, LWLIO_CHANSPEC_CTL_SB_UU, "uu"},
    };
    for (const name& entry : names) {
        if (entry.bw == bw && entry.sub_band_bits == sub_band_bits)
            return entry.text;
    }
    return "none";
}

int driver_realtek::chanspec_band(unsigned chanspec) const {
    return channel_band(chanspec_channel(chanspec));
}

int driver_realtek::channel_band(int channel) const {
    return channel < first_5ghz_channel ? BAND_2G : BAND_5G;
}

primary_channel_mode driver_realtek::chanspec_primary_40(const char* text) const {
    if (text == nullptr)
        return PRIMARY_CHANNEL_NONE;
    if (std::strchr(text, 'u') != nullptr)
        return PRIMARY_CHANNEL_UPPER;
    return std::strchr(text, 'l') != nullptr ? PRIMARY_CHANNEL_LOWER : PRIMARY_CHANNEL_NONE;
}

unsigned driver_realtek::get_chanspec(const char* ifname) const {
    if (!live())
        return 0;
    if (ifname == nullptr) {
        trace.error("<%s:%d> interface is not set\n", __func__, __LINE__);
        return 0;
    }
    std::uint32_t value = 0;
    make_ops(ifname)->get_mib("chanspec", std::as_writable_bytes(std::span{&value, 1}), ifname);
    trace.debug("<%s:%d> ifname == %s chanspec == %0x\n", __func__, __LINE__, ifname, value);
    return value;
}

int driver_realtek::set_chanspec(const char* ifname, int channel, int bw,
                                 primary_channel_mode mode) const {
    if (!live())
        return 0;
    orvanta_params_t params{{"auto-channel", "false"},
                            {"channel", std::to_string(channel)},
                            {"bandwidth", std::to_string(bw)}};
    if (mode != PRIMARY_CHANNEL_NONE)
        params.emplace_back("control-sideband", mode == PRIMARY_CHANNEL_UPPER ? "upper" : "lower");
    return update_orvanta(text_of(ifname), params);
}

int driver_realtek::set_tx_power(const char* ifname, int power) const {
    if (!live())
        return 0;
    return update_orvanta(text_of(ifname), {{"tx-power", std::to_string(power)}});
}

std::optional<std::set<unsigned>> driver_realtek::get_config_limit_channels_cb(
    const interface_context*, const std::string& value) {
    if (value.empty())
        return std::nullopt;
    std::set<unsigned> channels;
    for (std::size_t begin = value.find_first_not_of(' '); begin != std::string::npos;) {
        const std::size_t end = value.find(' ', begin);
        channels.insert(static_cast<unsigned>(to_int(value.substr(begin, end - begin).c_str())));
        begin = value.find_first_not_of(' ', end);
    }
    return channels;
}

int driver_realtek::fill_chanspecs(const char* ifname, std::string& out) const {
    if (ifname == nullptr)
        return -1;
    const int radio = get_radio_id(ifname);
    if (!is_enabled(radio) || is_wds_enabled(radio) || is_wids_enabled(radio))
        return -1;
    std::set<unsigned> channels;
    if (make_ops(ifname)->get_available_channels(channels) != 0)
        return -1;
    if (getconf_radio<std::string>(ifname, "use-limit-channels", empty_callback_radio) == "true") {
        // The configured channels stand even where the driver does not offer them.
        std::optional<std::set<unsigned>> limit = getconf_radio<std::set<unsigned>>(
            ifname, "limit-channels", get_config_limit_channels_cb);
        if (limit)
            channels = std::move(*limit);
    }
    out.clear();
    for (const unsigned channel : channels)
        out += std::to_string(channel) + " ";
    trace.debug("<%s:%d> chanspecs == %s\n", __func__, __LINE__, out.c_str());
    return 0;
}
