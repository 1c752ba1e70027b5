#include "mock_driver.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr int max_vaps = 7;
constexpr int macs_per_radio = 8;

std::string vap_mac(int radio, int vap) {
    char text[sizeof "00:11:22:33:44:50"];
    std::snprintf(text, sizeof text, "00:11:22:33:44:%02x",
                  static_cast<unsigned>(0x50 + 1 + vap + macs_per_radio * radio) & 0xffU);
    return text;
}

FakeRadio make_radio(int number, int band) {
    FakeRadio radio;
    radio.ifname = "wlan" + std::to_string(number);
    radio.band = band;
    radio.tx_power = 14;
    radio.tx_power_max = 20;
    radio.tx_power_min = 5;
    radio.eirp_max = 23;
    radio.eirp_min = 8;
    radio.antenna = antenna_config_t{3, 1};
    return radio;
}

void set_text(char (&field)[32], const char* text) {
    std::snprintf(field, sizeof field, "%s", text);
}

int bandwidth(unsigned spec) {
    const unsigned bits = spec & LWLIO_CHANSPEC_BW_MASK;
    return bits == LWLIO_CHANSPEC_BW_80 ? 80 : bits == LWLIO_CHANSPEC_BW_40 ? 40 : 20;
}

int primary_channel(unsigned spec) {
    const int centre = static_cast<int>(spec & 0xffU);
    const int sub_band = static_cast<int>((spec & LWLIO_CHANSPEC_CTL_SB_MASK) >> 8);
    switch (bandwidth(spec)) {
        case 80:
            return centre - 6 + 4 * sub_band;
        case 40:
            return centre - 2 + 4 * sub_band;
        default:
            return centre;
    }
}

const char* sub_band_name(int sub_band, int bw) {
    static constexpr std::array<const char*, 4> names_80 = {"ll", "lu", "ul", "uu"};
    const auto index = static_cast<std::size_t>(sub_band >> 8);
    if (bw == 80 && index < names_80.size())
        return names_80[index];
    if (bw == 40 && index < 2)
        return index == 0 ? "lower" : "upper";
    return "none";
}

FakeVap* vap_of(FakeRadio* radio, unsigned vap) {
    return radio != nullptr && vap < radio->vaps.size() ? &radio->vaps[vap] : nullptr;
}

FakeVap* up_vap_of(FakeRadio* radio, unsigned vap) {
    FakeVap* v = vap_of(radio, vap);
    return v != nullptr && v->up ? v : nullptr;
}

}  // namespace

MockDriver::MockDriver(const volatile bool* process_run_flag)
    : driver_interface(ORVANTAMOD, 20, process_run_flag) {
    set_up_radios();
    default_to_context_queries();
    default_to_vap_queries();
    default_to_chanspec_arithmetic();
    default_to_lists();
    default_to_scanning();
    default_to_lifecycle();
    default_to_recorded_commands();
}

MockDriver::~MockDriver() = default;

template class testing::NiceMock<MockDriver>;

void MockDriver::set_up_radios() {
    radios[0] = make_radio(0, BAND_2G);
    radios[0].chanspec_in_use = radios[0].config_spec = LWLIO_CHANSPEC_BW_20 | 6U;
    radios[0].available_channels = "1 6 11 ";
    radios[1] = make_radio(1, BAND_5G);
    radios[1].chanspec_in_use = radios[1].config_spec =
        LWLIO_CHANSPEC_BAND_5G | LWLIO_CHANSPEC_BW_80 | LWLIO_CHANSPEC_CTL_SB_LL | 42U;
    radios[1].available_channels = "36 40 44 48 ";
    for (const int radio : {0, 1}) {
        add_vap(radio, "home", true);
        add_vap(radio, "guest", false);
    }
    add_vap(1, "staff", true);
    set_text(factory.board, "WEP-3ax");
    set_text(factory.hw, "1v2");
    set_text(factory.serial, "WP42000017");
    set_text(factory.mac, "00:11:22:33:44:50");
}

FakeRadio* MockDriver::radio_by_ifname(const char* ifname) {
    int number = -1;
    if (ifname == nullptr || std::sscanf(ifname, "wlan%d", &number) != 1)
        return nullptr;
    return number >= 0 && number < 2 ? &radios[static_cast<std::size_t>(number)] : nullptr;
}

FakeVap* MockDriver::vap_by_ifname(const std::string& ifname) {
    for (FakeRadio& radio : radios) {
        for (FakeVap& vap : radio.vaps) {
            if (vap.ifname == ifname)
                return &vap;
        }
    }
    return nullptr;
}

FakeRadio* MockDriver::live_radio(int radio) {
    if (!hostapd_up || radio < 0 || radio > 1)
        return nullptr;
    FakeRadio& r = radios[static_cast<std::size_t>(radio)];
    return r.up ? &r : nullptr;
}

FakeVap& MockDriver::add_vap(int radio, const std::string& ssid, bool dot11k) {
    FakeRadio& r = radios.at(static_cast<std::size_t>(radio));
    const int number = static_cast<int>(r.vaps.size());
    FakeVap vap;
    vap.ifname = r.ifname + "-va" + std::to_string(number);
    vap.ssid = ssid;
    vap.mac = vap_mac(radio, number);
    vap.dot11k = dot11k;
    r.vaps.push_back(vap);
    return r.vaps.back();
}

rrm_sta_s& MockDriver::add_station(int radio, int vap, const std::string& mac, int rssi) {
    FakeRadio& r = radios.at(static_cast<std::size_t>(radio));
    const FakeVap& v = r.vaps.at(static_cast<std::size_t>(vap));
    rrm_sta_s sta;
    sta.mac = mac;
    sta.ssid = v.ssid;
    sta.ifname = v.ifname;
    sta.rssi = {rssi - first_chain_below, rssi, rssi - 9, rssi - 7};
    sta.max_rssi = rssi;
    r.stations.push_back(sta);
    return r.stations.back();
}

void MockDriver::default_to_context_queries() {
    const auto known = [this](int r) -> FakeRadio* {
        return r >= 0 && r < 2 ? &radios[static_cast<std::size_t>(r)] : nullptr;
    };
    const auto flag = [this, known](bool FakeRadio::*field) {
        return [this, known, field](int r) { return hostapd_up && known(r) && known(r)->*field; };
    };
    const auto number = [known](int FakeRadio::*field, int otherwise) {
        return [known, field, otherwise](int r) { return known(r) ? known(r)->*field : otherwise; };
    };
    ON_CALL(*this, is_enabled).WillByDefault(flag(&FakeRadio::up));
    ON_CALL(*this, is_wds_enabled).WillByDefault(flag(&FakeRadio::wds));
    ON_CALL(*this, is_wids_enabled).WillByDefault(flag(&FakeRadio::wids));
    ON_CALL(*this, get_tx_power_max).WillByDefault(number(&FakeRadio::tx_power_max, 16));
    ON_CALL(*this, get_tx_power_min).WillByDefault(number(&FakeRadio::tx_power_min, 11));
    ON_CALL(*this, get_eirp_max).WillByDefault(number(&FakeRadio::eirp_max, 100));
    ON_CALL(*this, get_eirp_min).WillByDefault(number(&FakeRadio::eirp_min, 0));
    ON_CALL(*this, is_obss_coex).WillByDefault([known](int r) {
        return known(r) && known(r)->obss_coex;
    });
    ON_CALL(*this, is_auto_channel).WillByDefault([known](int r) {
        return known(r) && known(r)->auto_channel;
    });
    ON_CALL(*this, get_config_spec).WillByDefault([known](int r) {
        return known(r) ? known(r)->config_spec : 0U;
    });
    ON_CALL(*this, get_antenna_configuration).WillByDefault([known](int r) {
        return known(r) ? known(r)->antenna : std::nullopt;
    });
    ON_CALL(*this, get_mac_offset).WillByDefault([known](int r) {
        return known(r) ? r * macs_per_radio : 0;
    });
    ON_CALL(*this, get_radio_mac_count).WillByDefault([known](int r) {
        return known(r) ? macs_per_radio : 0;
    });
    ON_CALL(*this, is_band).WillByDefault([this](int r, rrm_band_t band) {
        return live_radio(r) != nullptr && live_radio(r)->band == band;
    });
    ON_CALL(*this, get_status).WillByDefault([this](const char* ifname) {
        return radio_by_ifname(ifname) != nullptr && radio_by_ifname(ifname)->up;
    });
    ON_CALL(*this, get_tx_power).WillByDefault([this](const char* ifname) {
        return radio_by_ifname(ifname) != nullptr ? radio_by_ifname(ifname)->tx_power : 0;
    });
    ON_CALL(*this, get_chanspec).WillByDefault([this](const char* ifname) {
        const FakeRadio* r = radio_by_ifname(ifname);
        return hostapd_up && r != nullptr ? r->chanspec_in_use : 0U;
    });
    ON_CALL(*this, get_factory).WillByDefault(testing::ReturnRef(factory));
    ON_CALL(*this, get_mac).WillByDefault([this] { return factory.mac; });
    ON_CALL(*this, get_max_radios).WillByDefault(testing::Return(2));
    ON_CALL(*this, get_max_vap).WillByDefault(testing::Return(max_vaps));
    ON_CALL(*this, is_guardd_sentry_mode).WillByDefault([this] { return sentry_mode; });
    ON_CALL(*this, is_hostapd_initialized).WillByDefault([this] { return hostapd_up; });
}

void MockDriver::default_to_vap_queries() {
    const auto up_vap = [this](unsigned vap, int radio) {
        return up_vap_of(live_radio(radio), vap);
    };
    ON_CALL(*this, has_enabled_vaps).WillByDefault([this](int r) {
        if (!hostapd_up || r < 0 || r > 1)
            return false;
        for (const FakeVap& vap : radios[static_cast<std::size_t>(r)].vaps) {
            if (vap.up)
                return true;
        }
        return false;
    });
    ON_CALL(*this, is_vap_enabled).WillByDefault([up_vap](int r, int v) {
        return up_vap(static_cast<unsigned>(v), r) != nullptr;
    });
    ON_CALL(*this, is_802dot11k).WillByDefault([up_vap](int r, int v) {
        const FakeVap* vap = up_vap(static_cast<unsigned>(v), r);
        return vap != nullptr && vap->dot11k;
    });
    ON_CALL(*this, is_fbt_enabled).WillByDefault([up_vap](int r, int v) {
        const FakeVap* vap = up_vap(static_cast<unsigned>(v), r);
        return vap != nullptr && vap->fbt;
    });
    ON_CALL(*this, VapIdToVap).WillByDefault([this](unsigned v, int r) -> const char* {
        const FakeVap* vap = vap_of(live_radio(r), v);
        return vap != nullptr ? vap->ifname.c_str() : nullptr;
    });
    ON_CALL(*this, VapIdToSsid).WillByDefault([up_vap](unsigned v, int r) -> const char* {
        return up_vap(v, r) != nullptr ? up_vap(v, r)->ssid.c_str() : nullptr;
    });
    ON_CALL(*this, VapIdToMac).WillByDefault([up_vap](unsigned v, int r) -> const char* {
        return up_vap(v, r) != nullptr ? up_vap(v, r)->mac.c_str() : nullptr;
    });
    ON_CALL(*this, SsidToVapId).WillByDefault([this](const char* ssid, int r) {
        const FakeRadio* radio = live_radio(r);
        for (std::size_t v = 0; radio != nullptr && v < radio->vaps.size(); ++v) {
            if (radio->vaps[v].ssid == ssid)
                return static_cast<int>(v);
        }
        return -1;
    });
    ON_CALL(*this, SsidToVap).WillByDefault([this](const char* ssid, int r) -> const char* {
        const int vap = SsidToVapId(ssid, r);
        return vap < 0 ? nullptr
                       : live_radio(r)->vaps[static_cast<std::size_t>(vap)].ifname.c_str();
    });
    ON_CALL(*this, fill_vap_name).WillByDefault([](int r, int v, char* buf, unsigned len) {
        return std::snprintf(buf, len, "wlan%d-va%d", r, v);
    });
    ON_CALL(*this, add_radio_id).WillByDefault([](const char* ifname, json_writer* writer) {
        int radio = 0;
        int vap = 0;
        if (ifname == nullptr || std::sscanf(ifname, "wlan%d-va%d", &radio, &vap) != 2)
            return false;
        writer->insert_int("radio", radio);
        return true;
    });
}

void MockDriver::default_to_chanspec_arithmetic() {
    const auto band_of = [](int channel) { return channel < 30 ? BAND_2G : BAND_5G; };
    ON_CALL(*this, chanspec_bw).WillByDefault([](unsigned spec) { return bandwidth(spec); });
    ON_CALL(*this, chanspec_channel).WillByDefault([](unsigned spec) {
        return primary_channel(spec);
    });
    ON_CALL(*this, chanspec_primary).WillByDefault([](unsigned spec) {
        if (bandwidth(spec) != 40)
            return "none";
        return (spec & LWLIO_CHANSPEC_CTL_SB_MASK) == LWLIO_CHANSPEC_CTL_SB_UPPER ? "upper"
                                                                                  : "lower";
    });
    ON_CALL(*this, channel_band).WillByDefault(band_of);
    ON_CALL(*this, chanspec_band).WillByDefault([band_of](unsigned spec) {
        return band_of(primary_channel(spec));
    });
    ON_CALL(*this, get_band_from_ifname).WillByDefault([this](const char* ifname) {
        return chanspec_band(get_chanspec(ifname));
    });
    ON_CALL(*this, primary_channel_to_string).WillByDefault(sub_band_name);
    ON_CALL(*this, chanspec_primary_40).WillByDefault([](const char* text) {
        if (std::strchr(text, 'u') != nullptr)
            return PRIMARY_CHANNEL_UPPER;
        return std::strchr(text, 'l') != nullptr ? PRIMARY_CHANNEL_LOWER : PRIMARY_CHANNEL_NONE;
    });
}

void MockDriver::default_to_lists() {
    ON_CALL(*this, get_assoclist)
        .WillByDefault([this](const char* ifname, const assoclist_callback& callback) {
            if (const FakeRadio* r = radio_by_ifname(ifname); hostapd_up && r != nullptr && r->up) {
                for (const rrm_sta_s& sta : r->stations)
                    callback(sta);
            }
            return 0;
        });
    ON_CALL(*this, get_ssidlist)
        .WillByDefault([this](const char* ifname, const ssidlist_callback& callback) {
            const FakeRadio* r = radio_by_ifname(ifname);
            for (std::size_t v = 0; hostapd_up && r != nullptr && v < r->vaps.size(); ++v) {
                const FakeVap& vap = r->vaps[v];
                if (r->up && vap.up)
                    callback(static_cast<int>(v), vap.ssid.c_str(), vap.mac.c_str(), vap.dot11k);
            }
            return 0;
        });
    ON_CALL(*this, fill_chanspecs).WillByDefault([this](const char* ifname, std::string& out) {
        if (const FakeRadio* r = radio_by_ifname(ifname); r != nullptr && !r->wds && !r->wids)
            out = r->available_channels;
        return 0;
    });
    ON_CALL(*this, process_driver_events)
        .WillByDefault([this](const driver_event_callback& callback) {
            std::vector<PendingEvent> due;
            due.swap(events);
            for (const PendingEvent& e : due)
                callback(driver_event_desc{e.event, e.radio, e.sta});
            return 0;
        });
}

void MockDriver::default_to_scanning() {
    const auto fill = [this](ap_table& table) {
        table.clear();
        for (const FakeRadio& r : radios) {
            if (hostapd_up && r.up && !r.wds && !r.wids)
                table.insert(table.end(), r.neighbours.begin(), r.neighbours.end());
        }
        return 0;
    };
    ON_CALL(*this, fill_ap_table).WillByDefault(fill);
    ON_CALL(*this, fill_ap_table_vexor_rrm).WillByDefault(fill);
    ON_CALL(*this, start)
        .WillByDefault([this](bool active, const std::set<unsigned>& channels_2,
                              const std::set<unsigned>& channels_5, int& duration) {
            if (!hostapd_up || in_progress)
                return 0;
            in_progress = true;
            scans.push_back({active, channels_2, channels_5});
            duration = duration < scan_duration ? scan_duration : duration;
            return 0;
        });
    ON_CALL(*this, stop).WillByDefault([this](bool) {
        if (hostapd_up)
            in_progress = false;
        return 0;
    });
    ON_CALL(*this, is_in_progress).WillByDefault([this] { return in_progress; });
}

void MockDriver::default_to_lifecycle() {
    ON_CALL(*this, set_hostapd_initialized).WillByDefault([this](bool up) { hostapd_up = up; });
    ON_CALL(*this, init).WillByDefault([this] {
        if (hostapd_up)
            in_progress = false;
    });
    ON_CALL(*this, reset_orvanta).WillByDefault([this](ResetOrvantaCause cause) {
        resets.push_back(cause);
    });
    ON_CALL(*this, reset_orvanta_fbt).WillByDefault([this](ResetOrvantaCause cause) {
        fbt_resets.push_back(cause);
        return 0;
    });
    ON_CALL(*this, start_orvanta_fbt_params).WillByDefault([this] { return ++fbt_starts, 0; });
    ON_CALL(*this, finish_orvanta_fbt_params).WillByDefault([this] { return ++fbt_finishes, 0; });
    ON_CALL(*this, set_orvanta_fbt_params)
        .WillByDefault([this](const std::string& name, const std::string& json) {
            fbt_params.emplace_back(name, json);
        });
}

void MockDriver::default_to_recorded_commands() {
    ON_CALL(*this, set_chanspec)
        .WillByDefault([this](const char* ifname, int channel, int bw, primary_channel_mode mode) {
            channel_calls.push_back({ifname, channel, bw, mode});
            return 0;
        });
    ON_CALL(*this, set_tx_power).WillByDefault([this](const char* ifname, int power) {
        power_calls.emplace_back(ifname, power);
        if (FakeRadio* r = radio_by_ifname(ifname); r != nullptr)
            r->tx_power = power;
        return 0;
    });
    ON_CALL(*this, set_rrm_nbr_ap_list)
        .WillByDefault(
            [this](const char* bssid, const char* ssid, int channel, int value, int custom) {
                neighbour_calls.push_back(
                    {bssid ? bssid : "(null)", ssid ? ssid : "(null)", channel, value, custom});
                return 0;
            });
    ON_CALL(*this, clear_rrm_nbr_ap_list).WillByDefault([this](const char* ifname) {
        cleared_neighbour_lists.emplace_back(ifname);
        return 0;
    });
    ON_CALL(*this, clear_vexor_nbr_ap_list).WillByDefault([this](const char* ifname) {
        cleared_candidate_lists.emplace_back(ifname);
        return 0;
    });
    ON_CALL(*this, send_bsstrans_request)
        .WillByDefault([this](const char* ifname, const char* mac, int) {
            transition_requests.emplace_back(ifname, mac);
            return 0;
        });
    ON_CALL(*this, unblock_sta).WillByDefault([this](const char* ifname, const char* mac) {
        unblocked.emplace_back(ifname, mac);
        return 0;
    });
    ON_CALL(*this, set_vexor_roam_attempt_timeout)
        .WillByDefault([this](const char* ifname, int value) {
            roam_attempt_timeouts.emplace_back(ifname, value);
            return 0;
        });
}
