#include "manager.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "config_rules.h"
#include "logsink.h"
#include "mac_lists.h"
#include "stored_file.h"
#include "text_values.h"

namespace apd {

namespace {

constexpr std::chrono::seconds kLockPatience{120};   // longer than any survey
constexpr std::uint8_t kLocallyAdministered = 0x02;  // IEEE 802-2014 8.2
constexpr int kAddressesPerRadio = 8;

std::string radio_path(const std::string& ifname) {
    return "/interface/" + ifname + "/wlan/radio";
}

std::string ft_path(const std::string& ifname) {
    return "/interface/" + ifname + "/vap/ft-config";
}

std::string below(std::string path, const std::string& name) {
    return path.append("/").append(name);
}

// The settings of a radio with the service's in them, its sideband as the channel wants it.
std::string put_params(json_object* tree, const std::string& path, const Manager::Params& params) {
    for (const auto& [name, text] : params) {
        Json value{json_object_new_string(text.c_str())};
        const std::string setting = below(path, name);
        // hostapd's own lines are the operator's.
        if (name.find('/') != std::string::npos)
            return "there is no setting " + for_log(setting);
        if (std::string reason = why_refused(setting, value.get()); !reason.empty())
            return reason;
        put_path(tree, setting, std::move(value));
    }
    return "";
}

bool names(const Manager::Params& params, const char* name) {
    return std::any_of(params.begin(), params.end(),
                       [name](const auto& param) { return param.first == name; });
}

// Of hostapd's answer about a station: whether it is through with its keys.
bool is_authorized(const std::vector<std::string>& lines) {
    const std::optional<std::string> flags = value_of(lines, "flags");
    return flags && flags->find("[AUTHORIZED]") != std::string::npos;
}

// All of several answers as one: the first reason.
struct Gathered {
    std::size_t missing = 0;
    std::string reason;
};

}  // namespace

Manager::Manager(Surroundings surroundings) : at_(std::move(surroundings)) {
    for (int radio = 0; radio < kRadios; radio++)
        radios_[static_cast<std::size_t>(radio)] =
            std::make_unique<RadioControl>(radio, surroundings_of_radios());
    load_black_list();
}

RadioControl::Surroundings Manager::surroundings_of_radios() {
    return {
        .hostapd = at_.hostapd,
        .kernel = at_.kernel,
        .folder = at_.folder,
        .places = {.control_folder = at_.control_folder, .deny_file = at_.folder + "/black-list"},
        .address_of = [this](VapId id) { return address_of(id); },
        .settled = [this](int radio) { settled(radio); },
        .vap_ends =
            [this](const std::string& ifname) {
                for (const Json& trap : traps_.end(ifname))
                    at_.tell_agent(trap);
            },
        .now = at_.now,
    };
}

// As the agent computes them: the last byte alone counts, without a carry.
std::optional<Mac> Manager::address_of(VapId id) {
    if (!at_.base_mac) {
        at_.base_mac = at_.kernel.address(radio_name(0));
        if (!at_.base_mac)
            at_.base_mac = at_.kernel.address(radio_name(id.radio));
        if (at_.base_mac)
            (*at_.base_mac)[0] |= kLocallyAdministered;
    }
    std::optional<Mac> mac = at_.base_mac;
    if (mac)
        mac->back() =
            static_cast<std::uint8_t>(mac->back() + 1 + id.vap + kAddressesPerRadio * id.radio);
    return mac;
}

void Manager::hostapd_came(int pid) {
    hostapd_pid_ = pid;
    announced_ = false;
    const std::optional<std::string> interfaces = at_.hostapd.ask("INTERFACES");
    const std::vector<std::string> lines =
        interfaces ? split_lines(*interfaces) : std::vector<std::string>{};
    std::set<std::string> there;
    for (const std::string& line : lines)
        for (const std::string& word : split_words(line))
            there.insert(word);
    for (const auto& radio : radios_)
        radio->hostapd_came(there);
    expect_stations();
    announce();
}

void Manager::hostapd_went() {
    logsink_message(SINK_WARNING, "hostapd has gone");
    do_without_hostapd();
}

void Manager::hostapd_fell_silent() {
    logsink_message(SINK_WARNING, "hostapd does not answer");
    do_without_hostapd();
}

void Manager::do_without_hostapd() {
    hostapd_pid_.reset();
    announced_ = false;
    for (const auto& radio : radios_)
        radio->hostapd_went();
    traps_.forget_all();
    at_.files.hostapd_stopped();
}

// Once, when nothing is about to come up any more. A radar check takes a minute or ten; the other
// radios are not to wait for it.
void Manager::announce() {
    const bool starting = std::any_of(radios_.begin(), radios_.end(), [](const auto& radio) {
        return radio->state() == RadioControl::State::kStarting;
    });
    if (announced_ || !hostapd_pid_ || starting)
        return;
    announced_ = true;
    at_.files.hostapd_started(*hostapd_pid_);
}

// Of the access points that were taken over.
void Manager::expect_stations() {
    for (const auto& radio : radios_) {
        if (radio->state() != RadioControl::State::kUp)
            continue;
        for (const VapConfig& vap : radio->applied()->vaps)
            expect_stations_of(vap_name(vap.id));
    }
}

void Manager::expect_stations_of(const std::string& ifname) {
    const std::optional<TrapVap> vap = vap_of(ifname);
    std::optional<std::string> answer = at_.hostapd.ask(ifname, "STA-FIRST");
    for (int count = 0; vap && answer && count < kMaxStations; count++) {
        const std::vector<std::string> lines = split_lines(*answer);
        const std::optional<Mac> station = lines.empty() ? std::nullopt : parse_mac(lines.front());
        if (!station)
            return;
        if (is_authorized(lines))
            traps_.expect(*station, *vap);
        answer = at_.hostapd.ask(ifname, "STA-NEXT " + to_text(*station));
    }
}

void Manager::settled(int radio) {
    logsink_message(SINK_INFO, "%s has settled, the agent is told", radio_name(radio).c_str());
    at_.files.config_updated();
}

void Manager::take_event(const std::string& ifname, const std::string& text) {
    const std::optional<HostapdEvent> event = read_event(text);
    const std::optional<VapId> id = parse_vap(ifname);
    if (!event || !id)
        return;
    radios_[static_cast<std::size_t>(id->radio)]->take(ifname, *event);
    if (const std::optional<TrapVap> vap = vap_of(ifname)) {
        const auto facts = [&](const Mac& station) {
            const std::optional<std::string> answer =
                at_.hostapd.ask(ifname, "STA " + to_text(station));
            return answer ? read_station(*answer) : StationFacts{};
        };
        for (const Json& trap : traps_.take(*event, *vap, facts))
            at_.tell_agent(trap);
    }
    announce();
}

std::optional<TrapVap> Manager::vap_of(const std::string& ifname) const {
    const std::optional<VapId> id = parse_vap(ifname);
    const std::optional<RadioConfig>& applied =
        radios_[static_cast<std::size_t>(id->radio)]->applied();
    if (applied)
        for (const VapConfig& vap : applied->vaps)
            if (vap.id == *id)
                return TrapVap{ifname, vap.ssid, vap.is_enterprise()};
    return std::nullopt;
}

void Manager::tick() {
    for (const auto& radio : radios_)
        radio->tick();
    const Clock::time_point now = at_.now();
    std::erase_if(locks_, [now](const auto& lock) { return lock.second <= now; });
    if (waits_for_unlock_ && locks_.empty())
        apply();
    announce();
}

bool Manager::is_busy() const {
    return waits_for_unlock_ || std::any_of(radios_.begin(), radios_.end(),
                                            [](const auto& radio) { return radio->is_busy(); });
}

std::string Manager::commit() {
    if (std::string reason = at_.store.commit(); !reason.empty())
        return reason;
    apply();
    return "";
}

void Manager::reloaded() {
    apply();
}

void Manager::apply() {
    waits_for_unlock_ = has_hostapd() && !locks_.empty();
    if (waits_for_unlock_)
        return;
    std::string reason;
    const std::optional<AccessPoint> access_point = read_access_point(at_.store.running(), reason);
    if (!access_point) {
        logsink_message(SINK_ERROR, "settings cannot be applied: %s", reason.c_str());
        return;
    }
    take_black_list();
    for (std::size_t radio = 0; radio < radios_.size(); radio++)
        apply_radio(radio, (*access_point)[radio]);
    if (hostapd_pid_ && announced_) {
        announced_ = false;  // the agent reads all of it anew
        announce();
    }
}

void Manager::apply_radio(std::size_t radio, const std::optional<RadioConfig>& config) {
    if (has_hostapd())
        radios_[radio]->bring_to(config);
    else
        radios_[radio]->expect(config);
}

// Goes where the tree says, and keeps that only if the radios that it concerns have got there.
void Manager::want_with(const std::string& path, Json tree, const std::function<void()>& keep,
                        const Done& done, RadioControl::ChannelIs channel) {
    std::string reason;
    const std::optional<AccessPoint> now = read_access_point(tree.get(), reason);
    if (!now) {
        done(reason);
        return;
    }
    std::string before_reason;
    const std::optional<AccessPoint> before = read_access_point(at_.store.running(), before_reason);
    std::vector<std::size_t> concerned;
    for (std::size_t radio = 0; radio < radios_.size(); radio++) {
        const std::string name = "/interface/" + radio_name(static_cast<int>(radio)) + '/';
        const bool named = path.starts_with(name);
        if (named || !before || (*before)[radio] != (*now)[radio])
            concerned.push_back(radio);
    }
    const auto gathered = std::make_shared<Gathered>();
    gathered->missing = concerned.size();
    const auto one = [gathered, keep, done](const std::string& why) {
        if (gathered->reason.empty())
            gathered->reason = why;
        if (--gathered->missing > 0)
            return;
        if (gathered->reason.empty())
            keep();
        done(gathered->reason);
    };
    if (concerned.empty()) {
        keep();
        done("");
    }
    for (const std::size_t radio : concerned) {
        if ((*now)[radio])
            radios_[radio]->want((*now)[radio], one, channel);
        else
            one(radio_name(static_cast<int>(radio)) + " has no access point");
    }
}

// The agent takes back what the service has set when hostapd stays away: the next one begins with
// what is stored. False while hostapd is there.
bool Manager::take_back_later(const std::vector<std::string>& paths) {
    if (has_hostapd())
        return false;
    for (const std::string& path : paths)
        at_.store.reset_service(path);
    std::string reason;
    const std::optional<AccessPoint> access_point = read_access_point(at_.store.running(), reason);
    for (std::size_t radio = 0; access_point && radio < radios_.size(); radio++)
        radios_[radio]->expect((*access_point)[radio]);
    return true;
}

void Manager::update_radio(const std::string& ifname, const Params& params, const Done& done) {
    const std::string path = radio_path(ifname);
    if (!parse_radio(ifname) || find_path(at_.store.running(), path) == nullptr) {
        done("there is no radio " + for_log(ifname));
        return;
    }
    Json tree = copy_of(at_.store.running());
    // A sideband of another channel is none of this one's.
    if (names(params, "channel") && !names(params, "control-sideband"))
        put_path(tree.get(), path + "/control-sideband", nullptr);
    if (std::string reason = put_params(tree.get(), path, params); !reason.empty()) {
        done(reason);
        return;
    }
    Params kept = params;
    std::string reason;
    const std::optional<AccessPoint> now = read_access_point(tree.get(), reason);
    const auto radio = static_cast<std::size_t>(*parse_radio(ifname));
    if (now && (*now)[radio] && (*now)[radio]->channel.sideband != Sideband::kNone &&
        !names(params, "control-sideband"))
        kept.emplace_back("control-sideband", sideband_text((*now)[radio]->channel.sideband));
    want_with(
        path, std::move(tree),
        [this, path, kept] {
            for (const auto& [name, text] : kept)
                at_.store.set_service(below(path, name),
                                      Json{json_object_new_string(text.c_str())});
            at_.files.config_updated();
        },
        done,
        names(params, "channel") || names(params, "bandwidth")
            ? RadioControl::ChannelIs::kAskedFor
            : RadioControl::ChannelIs::kAsBefore);
}

void Manager::reset_radio(const std::string& ifname, const Done& done) {
    const std::string path = radio_path(ifname);
    json_object* const stored = find_path(at_.store.stored(), path);
    if (!parse_radio(ifname) || stored == nullptr) {
        done("there is no radio " + for_log(ifname));
        return;
    }
    if (take_back_later({path})) {
        done("");
        return;
    }
    Json tree = copy_of(at_.store.running());
    put_path(tree.get(), path, copy_of(stored));
    want_with(
        path, std::move(tree), [this, path] { at_.store.reset_service(path); }, done);
}

void Manager::update_ft(const std::map<std::string, json_object*>& configs, const Done& done) {
    Json tree = copy_of(at_.store.running());
    std::map<std::string, std::string> texts;  // of what is to be kept; empty: taken back
    std::vector<std::string> taken_back;
    for (const auto& [ifname, config] : configs) {
        const std::string path = ft_path(ifname);
        json_object* const stored = find_path(at_.store.stored(), path);
        put_path(tree.get(), path, copy_of(config != nullptr ? config : stored));
        texts[path] = config != nullptr ? compact(config) : "";
        if (config == nullptr)
            taken_back.push_back(path);
    }
    if (taken_back.size() == configs.size() && take_back_later(taken_back)) {
        done("");
        return;
    }
    want_with(
        "", std::move(tree),
        [this, texts] {
            for (const auto& [path, text] : texts) {
                if (text.empty())
                    at_.store.reset_service(path);
                else
                    at_.store.set_service(path, parse_json(text));
            }
        },
        done);
}

void Manager::set_mac_lists(json_object* lists) {
    at_.store.set_service(kMacLists, copy_of(lists));
    take_black_list();
}

void Manager::load_black_list() {
    black_list_ = black_list(at_.store.get(kMacLists));
    const std::string file = at_.folder + "/black-list";
    if (!replace_file(file, deny_file_text(black_list_)))
        logsink_message(SINK_ERROR, "cannot write %s: %s", file.c_str(), std::strerror(errno));
}

void Manager::take_black_list() {
    const std::set<Mac> before = black_list_;
    load_black_list();
    std::set<Mac> added;
    std::set<Mac> removed;
    std::set_difference(black_list_.begin(), black_list_.end(), before.begin(), before.end(),
                        std::inserter(added, added.end()));
    std::set_difference(before.begin(), before.end(), black_list_.begin(), black_list_.end(),
                        std::inserter(removed, removed.end()));
    for (const Mac& mac : added)
        if (!traps_.where(mac).empty())
            traps_.put_off(mac);
    for (const auto& radio : radios_)
        radio->deny(added, removed);
}

void Manager::lock_scan(const std::string& ifname) {
    if (parse_radio(ifname))
        locks_[ifname] = at_.now() + kLockPatience;
}

void Manager::unlock_scan(const std::string& ifname) {
    locks_.erase(ifname);
    if (waits_for_unlock_ && locks_.empty())
        apply();
}

Json Manager::status_of(const RadioControl& radio) const {
    Json told = new_object();
    set_text(told.get(), "state", state_text(radio.state()));
    if (!radio.trouble().empty())
        set_text(told.get(), "trouble", radio.trouble());
    if (!radio.applied())
        return told;
    const std::string first = vap_name(radio.applied()->vaps.front().id);
    set_text(told.get(), "channel", to_text(radio.applied()->channel));
    if (const std::optional<int> power = at_.kernel.power(first))
        json_object_object_add(told.get(), "tx-power", json_object_new_int(*power));
    for (const VapConfig& vap : radio.applied()->vaps) {
        Json one = new_object();
        set_text(one.get(), "ssid", vap.ssid);
        json_object_object_add(
            one.get(), "stations",
            json_object_new_int64(static_cast<std::int64_t>(traps_.count(vap_name(vap.id)))));
        json_object_object_add(told.get(), vap_name(vap.id).c_str(), one.release());
    }
    return told;
}

Json Manager::status() const {
    Json told = new_object();
    if (hostapd_pid_)
        json_object_object_add(told.get(), "hostapd", json_object_new_int(*hostapd_pid_));
    else
        set_text(told.get(), "hostapd", "not running");
    for (int radio = 0; radio < kRadios; radio++) {
        Json one = status_of(*radios_[static_cast<std::size_t>(radio)]);
        set_text(one.get(), "scan", locks_.contains(radio_name(radio)) ? "locked" : "free");
        json_object_object_add(told.get(), radio_name(radio).c_str(), one.release());
    }
    json_object_object_add(told.get(), "black-list",
                           json_object_new_int64(static_cast<std::int64_t>(black_list_.size())));
    json_object_object_add(
        told.get(), "uncommitted",
        json_object_new_int64(static_cast<std::int64_t>(at_.store.changes().size())));
    return told;
}

}  // namespace apd
