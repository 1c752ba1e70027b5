#include "radio_control.h"

#include <algorithm>
#include <utility>

#include "logsink.h"
#include "stored_file.h"
#include "text_values.h"

namespace apd {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kAnswerPatience{18};  // of an agent that waits 20 s
constexpr seconds kStartPatience{15};   // country, channel scans
constexpr seconds kSwitchPatience{5};   // five beacons
constexpr seconds kWatchPace{10};       // a radio that is up
constexpr seconds kTrialPace{60};       // a radio that is down and should not be
constexpr seconds kRadarPatience{700};  // weather radar channels are listened to for ten minutes
constexpr const char* kNoHostapd = "hostapd is not running";
constexpr const char* kTooLate = "the changes before it took too long";

const VapConfig* find_vap(const RadioConfig& radio, VapId id) {
    for (const VapConfig& vap : radio.vaps)
        if (vap.id == id)
            return &vap;
    return nullptr;
}

// What hostapd cannot be told but by a start of its own.
bool same_but_channel_and_power(const RadioConfig& one, const RadioConfig& other) {
    RadioConfig same = one;
    same.channel = other.channel;
    same.tx_power = other.tx_power;
    same.vaps = other.vaps;
    same.auto_channel = other.auto_channel;
    return same == other;
}

bool differ_in_ft_alone(const VapConfig& one, const VapConfig& other) {
    VapConfig same = one;
    same.ft = other.ft;
    return same == other;
}

// Then hostapd can take the difference with the clients connected.
bool differ_in_keys_alone(const VapConfig& one, const VapConfig& other) {
    return differ_in_ft_alone(one, other) && differ_in_key_holders_alone(one.ft, other.ft);
}

std::optional<Channel> asked_by(const std::optional<RadioConfig>& config) {
    return config && !config->auto_channel ? std::optional{config->channel} : std::nullopt;
}

// The 20 MHz channels that a channel covers.
std::vector<int> covered(const Channel& channel) {
    constexpr int step = 20;  // MHz
    const Frequencies at = frequencies_of(channel);
    std::vector<int> numbers;
    if (channel.width == step || !is_5ghz(channel.number)) {
        numbers.push_back(channel.number);
        return numbers;
    }
    const int first = at.center - channel.width / 2 + step / 2;
    for (int mhz = first; mhz < first + channel.width; mhz += step)
        numbers.push_back(channel_number_of(mhz));
    return numbers;
}

}  // namespace

RadioControl::RadioControl(int radio, Surroundings surroundings)
    : radio_(radio), name_(radio_name(radio)), at_(std::move(surroundings)) {}

void RadioControl::want(std::optional<RadioConfig> config, Done done, ChannelIs channel) {
    waiting_.push_back({std::move(config), std::move(done), at_.now() + kAnswerPatience, channel});
    next();
}

// A radio that runs goes on, or back to what it had, when the new settings are refused.
void RadioControl::bring_to(std::optional<RadioConfig> config) {
    if (!applied_)
        wanted_ = config;
    waiting_.push_back(
        {std::move(config), [this](const auto& reason) { log_refusal(reason); }, std::nullopt});
    next();
}

void RadioControl::log_refusal(const std::string& reason) const {
    if (!reason.empty())
        logsink_message(SINK_ERROR, "%s: %s", name_.c_str(), reason.c_str());
}

// rfkill(8) that is lifted, a card that is plugged in, a channel that is free of radar again.
void RadioControl::try_again() {
    deadline_ = at_.now() + kTrialPace;
    if (!hostapd_there_ || !wanted_ || change_)
        return;
    waiting_.push_back({wanted_,
                        [this, known = trouble_](const std::string& reason) {
                            if (reason != known)  // once, and not at each trial
                                log_refusal(reason);
                            if (state_ == State::kUp)
                                at_.settled(radio_);
                        },
                        std::nullopt});
    next();
}

void RadioControl::next() {
    while (!change_ && !waiting_.empty()) {
        Change change = std::move(waiting_.front());
        waiting_.pop_front();
        if (change.answer_by && at_.now() >= *change.answer_by) {
            change.done(kTooLate);
            continue;
        }
        change_ = std::move(change);
        begin();
    }
}

void RadioControl::begin() {
    if (!change_->target) {
        stop();
        wanted_.reset();
        finish("");
        return;
    }
    if (!hostapd_there_) {
        finish(kNoHostapd);
        return;
    }
    const RadioConfig target = target_of(*change_);
    if (std::string reason = at_.kernel.open_radio(name_, target.phy); !reason.empty()) {
        finish(reason);
        return;
    }
    if (const std::optional<RadioAbility> ability = at_.kernel.ability(name_))
        ability_ = *ability;
    if (std::string reason = check(target); !reason.empty()) {
        finish(reason);
        return;
    }
    fallback_ = applied_;
    if (must_restart(target))
        start(target);
    else
        change_running(target);
}

RadioConfig RadioControl::target_of(const Change& change) const {
    RadioConfig target = *change.target;
    if (change.channel == ChannelIs::kAsBefore && applied_ && !target.auto_channel &&
        target.channel == asked_)
        target.channel = applied_->channel;
    return target;
}

std::string RadioControl::check(const RadioConfig& target) const {
    std::string reason = check_channel(target);
    return reason.empty() ? check_power(target) : reason;
}

std::string RadioControl::check_channel(const RadioConfig& target) const {
    // hostapd sets the country first, and only then the kernel has its channels.
    if (target.auto_channel || (applied_ && applied_->country != target.country) || !applied_)
        return "";
    for (const int number : covered(target.channel)) {
        const KernelChannel* const channel = ability_.find(number);
        if (channel == nullptr || channel->no_ir)
            return "channel " + std::to_string(number) + " is not available on " + name_ +
                   (target.country.empty() ? "" : " in " + target.country);
        if (channel->radar_seen)
            return "channel " + std::to_string(number) + " was left for a radar lately";
    }
    return "";
}

std::string RadioControl::check_power(const RadioConfig& target) const {
    const KernelChannel* const channel = ability_.find(target.channel.number);
    if (!target.tx_power || target.auto_channel || channel == nullptr ||
        *target.tx_power <= channel->max_power)
        return "";
    return "tx-power " + std::to_string(*target.tx_power) + " dBm is above the " +
           std::to_string(channel->max_power) + " dBm of channel " +
           std::to_string(target.channel.number);
}

bool RadioControl::needs_radar_check(const Channel& channel) const {
    const std::vector<int> numbers = covered(channel);
    return std::any_of(numbers.begin(), numbers.end(), [this](int number) {
        const KernelChannel* const known = ability_.find(number);
        return known != nullptr && known->radar;
    });
}

bool RadioControl::must_restart(const RadioConfig& target) const {
    if (state_ != State::kUp || !applied_ || !same_but_channel_and_power(*applied_, target) ||
        (target.auto_channel && !applied_->auto_channel))
        return true;
    // The first access point carries the others: hostapd takes all of the radio down with it.
    if (target.vaps.front().id != applied_->vaps.front().id ||
        !differ_in_ft_alone(target.vaps.front(), applied_->vaps.front()))
        return true;
    if (target.auto_channel || target.channel == applied_->channel)
        return false;
    // At 2.4 GHz 40 MHz want hostapd's scan for others before, IEEE 802.11-2020 11.15.5.
    const bool wants_scan = !target.five_ghz && target.channel.width == 40;
    return !ability_.csa || wants_scan || target.five_ghz != applied_->five_ghz ||
           needs_radar_check(target.channel);
}

void RadioControl::change_running(const RadioConfig& target) {
    if (std::string reason = change_vaps(target); !reason.empty()) {
        logsink_message(SINK_NOTICE, "%s: %s, starts all access points anew", name_.c_str(),
                        reason.c_str());
        start(target);
        return;
    }
    if (target.tx_power != applied_->tx_power) {
        if (std::string reason = at_.kernel.set_power(ability_, target.tx_power); !reason.empty()) {
            finish(reason);
            return;
        }
        applied_->tx_power = target.tx_power;
    }
    if (target.auto_channel || target.channel == applied_->channel)
        finish("");
    else
        change_channel(target);
}

// The channel changes later.
std::string RadioControl::change_vaps(const RadioConfig& target) {
    for (const VapConfig& vap : applied_->vaps)
        if (find_vap(target, vap.id) == nullptr)
            remove(vap);
    RadioConfig now = target;
    now.channel = applied_->channel;
    for (const VapConfig& vap : now.vaps)
        if (std::string reason = change_vap(now, vap); !reason.empty())
            return reason;
    applied_->vaps = now.vaps;
    write_files(now);
    return "";
}

// Seen with hostapd 2.10: REMOVE and ADD of any but the first leave the clients of the others.
std::string RadioControl::change_vap(const RadioConfig& now, const VapConfig& vap) {
    const VapConfig* const before = find_vap(*applied_, vap.id);
    if (before == nullptr)
        return add(now, vap);
    if (*before == vap)
        return "";
    if (vap.id == now.vaps.front().id || differ_in_keys_alone(*before, vap))
        return change_ft(*before, vap);
    remove(vap);
    return add(now, vap);
}

void RadioControl::remove(const VapConfig& vap) {
    const std::string ifname = vap_name(vap.id);
    at_.vap_ends(ifname);
    at_.hostapd.tell("REMOVE " + ifname);
    at_.kernel.remove_vap(ifname);
}

std::string RadioControl::change_ft(const VapConfig& before, const VapConfig& now) {
    const std::string ifname = vap_name(now.id);
    const auto set = [&](const HostapdLine& line) {
        return at_.hostapd.tell(ifname, "SET " + line.name + ' ' + line.value)
                   ? ""
                   : "hostapd does not take " + line.name + " on " + ifname;
    };
    std::vector<HostapdLine> lines = key_holder_lines(withdrawn(before.ft.remotes, now.ft.remotes));
    std::vector<KeyHolder> added;
    for (const KeyHolder& holder : now.ft.remotes)
        if (std::find(before.ft.remotes.begin(), before.ft.remotes.end(), holder) ==
            before.ft.remotes.end())
            added.push_back(holder);
    for (HostapdLine& line : key_holder_lines(added))
        lines.push_back(std::move(line));
    const bool keys_alone = differ_in_keys_alone(before, now);
    if (!keys_alone) {
        lines.push_back({"wpa_key_mgmt", key_management(now)});
        const Mac bssid = at_.address_of(now.id).value_or(Mac{});
        if (now.ft.enabled)
            for (HostapdLine& line : ft_lines(now.ft, now.ssid, ifname, bssid))
                lines.push_back(std::move(line));
    }
    for (const HostapdLine& line : lines)
        if (std::string reason = set(line); !reason.empty())
            return reason;
    return keys_alone ? "" : reload();
}

// hostapd 2.10 reloads all access points of the radio, whichever is named, and puts all clients
// off; to that end it reads any word that begins with RELOAD, but RELOAD_WPA_PSK.
std::string RadioControl::reload() {
    for (const VapConfig& vap : applied_->vaps)
        at_.vap_ends(vap_name(vap.id));
    return at_.hostapd.tell(first_vap(), "RELOAD") ? "" : "hostapd does not reload " + name_;
}

void RadioControl::change_channel(const RadioConfig& target) {
    const std::string command = switch_command(target.channel, switch_modes(target, ability_));
    if (!at_.hostapd.tell(first_vap(), command)) {
        logsink_message(SINK_NOTICE, "%s: hostapd refuses to announce channel %s, starts it anew",
                        name_.c_str(), to_text(target.channel).c_str());
        start(target);
        return;
    }
    deadline_ = at_.now() + kSwitchPatience;
    enter(State::kSwitching);
}

void RadioControl::start(const RadioConfig& target) {
    stop();
    std::string reason = add_all(target);
    if (!reason.empty()) {
        fail_start(reason);
        return;
    }
    applied_ = target;
    began_ = at_.now();
    deadline_ = began_ + kStartPatience;
    if (change_->answer_by)
        deadline_ = std::min(deadline_, *change_->answer_by);
    enter(State::kStarting);
}

std::string RadioControl::add_all(const RadioConfig& target) {
    for (const VapConfig& vap : target.vaps)
        if (std::string reason = add(target, vap); !reason.empty())
            return reason;
    return "";
}

std::string RadioControl::add(const RadioConfig& target, const VapConfig& vap) {
    const std::string ifname = vap_name(vap.id);
    const std::optional<Mac> mac = at_.address_of(vap.id);
    if (!mac)
        return name_ + " has no address";
    if (std::string reason = at_.kernel.make_vap(ifname, ability_, *mac); !reason.empty())
        return reason;
    if (!replace_file(file_of(vap), text_of(target, vap)))
        return "cannot write " + file_of(vap);
    if (!at_.hostapd.tell("ADD bss_config=" + ability_.phy + ':' + file_of(vap)))
        return "hostapd does not take " + ifname;
    return "";
}

void RadioControl::stop() {
    if (applied_)
        for (auto vap = applied_->vaps.rbegin(); vap != applied_->vaps.rend(); ++vap)
            remove(*vap);
    applied_.reset();
    enter(State::kDown);
}

void RadioControl::hostapd_came(const std::set<std::string>& interfaces) {
    hostapd_there_ = true;
    std::set<std::string> ours;
    for (const std::string& ifname : interfaces)
        if (const std::optional<VapId> id = parse_vap(ifname); id && id->radio == radio_)
            ours.insert(ifname);
    if (!wanted_) {
        for (const std::string& ifname : ours) {
            at_.hostapd.tell("REMOVE " + ifname);
            at_.kernel.remove_vap(ifname);
        }
        return;
    }
    const RadioConfig target = *wanted_;
    std::set<std::string> names;
    for (const VapConfig& vap : target.vaps)
        names.insert(vap_name(vap.id));
    static_cast<void>(at_.kernel.open_radio(name_, target.phy));
    if (const std::optional<RadioAbility> ability = at_.kernel.ability(name_))
        ability_ = *ability;
    const std::optional<std::string> status =
        ours == names ? at_.hostapd.ask(vap_name(target.vaps.front().id), "STATUS") : std::nullopt;
    if (status && value_of(split_lines(*status), "state") == "ENABLED" && files_are(target)) {
        applied_ = target;
        if (const std::optional<Channel> channel = at_.kernel.channel(first_vap()))
            applied_->channel = *channel;
        asked_ = asked_by(target);
        if (target.tx_power)
            applied_->tx_power = at_.kernel.power(first_vap());
        enter(State::kUp);
        logsink_message(SINK_INFO, "%s: takes over the access points that run", name_.c_str());
    } else {
        for (const std::string& ifname : ours)
            at_.hostapd.tell("REMOVE " + ifname);
    }
    bring_to(target);
}

void RadioControl::hostapd_went() {
    hostapd_there_ = false;
    applied_.reset();
    enter(State::kDown);
    if (change_)
        finish(kNoHostapd);
}

void RadioControl::take(const std::string& ifname, const HostapdEvent& event) {
    if (!applied_ || ifname != first_vap())
        return;
    switch (event.kind) {
        case EventKind::kApEnabled:
            if (state_ == State::kStarting || state_ == State::kRadarCheck)
                came_up();
            break;
        case EventKind::kSwitchFinished:
            if (state_ == State::kSwitching)
                look_at_switch(false);
            else
                moved();
            break;
        case EventKind::kNewChannel:
        case EventKind::kRadar:
            logsink_message(SINK_NOTICE, "%s: %s at %d MHz", name_.c_str(),
                            event.kind == EventKind::kRadar ? "a radar was seen"
                                                            : "hostapd goes to another channel",
                            event.frequency);
            break;
        case EventKind::kCacStart:
            if (state_ == State::kStarting)
                look_at_start();
            break;
        case EventKind::kCacEnd:
            if (!event.success)
                logsink_message(SINK_WARNING, "%s: the radar check was ended", name_.c_str());
            break;
        case EventKind::kApDisabled:
            // The event may be older than what was asked for since.
            if (state_ == State::kUp && !is_enabled()) {
                began_ = at_.now();
                deadline_ = began_ + kRadarPatience;
                enter(State::kRadarCheck);  // after radar hostapd begins anew by itself
            }
            break;
        case EventKind::kStationConnected:
        case EventKind::kStationDisconnected:
        case EventKind::kPassphraseMismatch:
        case EventKind::kStationRejected:
        case EventKind::kEapSuccess:
        case EventKind::kEapFailure:
        case EventKind::kTerminating:
            break;
    }
}

void RadioControl::tick() {
    switch (state_) {
        case State::kStarting:
        case State::kRadarCheck:
            look_at_start();
            break;
        case State::kSwitching:
            look_at_switch(at_.now() >= deadline_);
            break;
        case State::kUp:
            if (at_.now() >= deadline_)
                watch();
            break;
        case State::kDown:
            if (at_.now() >= deadline_)
                try_again();
            break;
    }
}

// Seen with Linux 6.1 after an announced change of channel on a machine without time: the kernel
// has no beacons any more, and hostapd, which could not set them, believes that all is well.
void RadioControl::watch() {
    deadline_ = at_.now() + kWatchPace;
    if (at_.kernel.channel(first_vap())) {
        lost_ = false;
        return;
    }
    if (!std::exchange(lost_, true))
        return;
    logsink_message(SINK_WARNING, "%s: the kernel no longer sends for it, starts it anew",
                    name_.c_str());
    const RadioConfig again = *applied_;
    stop();
    bring_to(again);
}

bool RadioControl::is_busy() const {
    return state_ == State::kStarting || state_ == State::kSwitching ||
           state_ == State::kRadarCheck;
}

bool RadioControl::is_enabled() const {
    const std::optional<std::string> status = at_.hostapd.ask(first_vap(), "STATUS");
    return status && value_of(split_lines(*status), "state") == "ENABLED";
}

// Events may have come before we listened, so hostapd is asked as well.
void RadioControl::look_at_start() {
    const std::optional<std::string> status = at_.hostapd.ask(first_vap(), "STATUS");
    if (!status)
        return;
    const std::string state = value_of(split_lines(*status), "state").value_or("");
    if (state == "ENABLED") {
        came_up();
    } else if (state == "DFS") {
        if (state_ == State::kStarting) {
            logsink_message(SINK_INFO, "%s: listens for radar on channel %s", name_.c_str(),
                            to_text(applied_->channel).c_str());
            deadline_ = at_.now() + kRadarPatience;
            enter(State::kRadarCheck);
            finish("");
        } else if (at_.now() >= deadline_) {
            fail_start("the radar check does not end");
        }
    } else if (state_ == State::kStarting && (state == "DISABLED" || state == "UNINITIALIZED")) {
        fail_start("hostapd cannot start channel " + to_text(applied_->channel));
    } else if (at_.now() >= deadline_) {
        const auto waited = std::chrono::duration_cast<seconds>(at_.now() - began_);
        fail_start("hostapd does not start within " + std::to_string(waited.count()) +
                   " s (it is at " + for_log(state) + ')');
    }
}

void RadioControl::look_at_switch(bool is_over) {
    const std::optional<Channel> channel = at_.kernel.channel(first_vap());
    const Channel& target = change_->target->channel;
    if (channel == target) {
        enter(State::kUp);
        applied_->channel = target;
        RadioConfig now = *change_->target;
        write_files(now);
        finish("");
    } else if (is_over) {
        // Seen with hostapd 2.10: "CSA failed (wlan1-va0 was stopped)", and it begins anew where it
        // was, with primary and secondary channel the other way round.
        logsink_message(
            SINK_NOTICE, "%s: channel %s was announced, and the radio is on %s: starts it anew",
            name_.c_str(), to_text(target).c_str(), channel ? to_text(*channel).c_str() : "none");
        start(RadioConfig{*change_->target});
    }
}

void RadioControl::came_up() {
    const bool after_check = state_ == State::kRadarCheck;
    enter(State::kUp);
    if (const std::optional<RadioAbility> ability = at_.kernel.ability(name_))
        ability_ = *ability;
    if (const std::optional<Channel> channel = at_.kernel.channel(first_vap()))
        applied_->channel = *channel;
    std::string reason;
    if (applied_->tx_power || fallback_)
        reason = at_.kernel.set_power(ability_, applied_->tx_power);
    logsink_message(
        SINK_INFO, "%s: up on channel %s after %lld s", name_.c_str(),
        to_text(applied_->channel).c_str(),
        static_cast<long long>(std::chrono::duration_cast<seconds>(at_.now() - began_).count()));
    if (change_)
        finish(reason);
    if (after_check)
        at_.settled(radio_);
}

void RadioControl::moved() {
    const std::optional<Channel> channel = at_.kernel.channel(first_vap());
    if (!channel || *channel == applied_->channel)
        return;
    logsink_message(SINK_NOTICE, "%s: hostapd has moved it to channel %s", name_.c_str(),
                    to_text(*channel).c_str());
    applied_->channel = *channel;
    at_.settled(radio_);
}

void RadioControl::finish(const std::string& reason) {
    trouble_ = reason;
    if (!change_)
        return;
    const Change change = *std::exchange(change_, std::nullopt);
    if (reason.empty()) {
        wanted_ = change.target;
        asked_ = asked_by(wanted_);
    }
    change.done(reason);
    next();
}

// Back to what was there before; without that, the radio stays down until the next trial.
void RadioControl::fail_start(const std::string& reason) {
    stop();
    const std::optional<RadioConfig> before = std::exchange(fallback_, std::nullopt);
    if (!change_)
        log_refusal(reason);
    if (before && hostapd_there_)
        waiting_.push_front({before, [](const std::string&) {}, std::nullopt});
    if (change_)
        finish(reason);
    else
        next();
    trouble_ = reason;
}

void RadioControl::deny(const std::set<Mac>& added, const std::set<Mac>& removed) {
    if (!applied_)
        return;
    for (const VapConfig& vap : applied_->vaps) {
        for (const Mac& mac : added)
            at_.hostapd.tell(vap_name(vap.id), "DENY_ACL ADD_MAC " + to_text(mac));
        for (const Mac& mac : removed)
            at_.hostapd.tell(vap_name(vap.id), "DENY_ACL DEL_MAC " + to_text(mac));
    }
}

bool RadioControl::write_files(const RadioConfig& target) const {
    return std::all_of(target.vaps.begin(), target.vaps.end(), [&](const VapConfig& vap) {
        return replace_file(file_of(vap), text_of(target, vap));
    });
}

bool RadioControl::files_are(const RadioConfig& target) const {
    return std::all_of(target.vaps.begin(), target.vaps.end(), [&](const VapConfig& vap) {
        return read_file(file_of(vap)) == text_of(target, vap);
    });
}

std::string RadioControl::text_of(const RadioConfig& target, const VapConfig& vap) const {
    return hostapd_config(target, vap, at_.address_of(vap.id).value_or(Mac{}),
                          vap.id == target.vaps.front().id, ability_, at_.places);
}

std::string RadioControl::file_of(const VapConfig& vap) const {
    return at_.folder + '/' + vap_name(vap.id) + ".conf";
}

std::string RadioControl::first_vap() const {
    return vap_name(applied_->vaps.front().id);
}

void RadioControl::enter(State next) {
    if (next != state_)
        logsink_message(SINK_DEBUG, "%s: %s -> %s", name_.c_str(), state_text(state_),
                        state_text(next));
    state_ = next;
    if (next == State::kUp) {
        deadline_ = at_.now() + kWatchPace;
        lost_ = false;
    } else if (next == State::kDown) {
        deadline_ = at_.now() + kTrialPace;
    }
}

const char* state_text(RadioControl::State state) {
    switch (state) {
        case RadioControl::State::kDown:
            return "down";
        case RadioControl::State::kStarting:
            return "starting";
        case RadioControl::State::kRadarCheck:
            return "radar check";
        case RadioControl::State::kSwitching:
            return "switching";
        case RadioControl::State::kUp:
            break;
    }
    return "up";
}

}  // namespace apd
