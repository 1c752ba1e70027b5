#include "nl80211_radios.h"

#include <linux/nl80211.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "lum_trace.h"

namespace {

using namespace std::chrono_literals;

// hostapd answers at once, or its loop hangs in the kernel; then one survey must not wait for each
// station and VAP.
constexpr auto hostapd_wait = 500ms;
constexpr auto hostapd_rest = 5s;
constexpr auto events_rest = 5s;  // until who gave no events is asked for them again
constexpr int dump_tries = 3;
constexpr char event_group[] = "mlme";

}  // namespace

nl80211_radios::nl80211_radios(std::unique_ptr<nl80211_transport> commands,
                               std::unique_ptr<nl80211_transport> events, std::string hostapd_path)
    : commands_(std::move(commands)),
      events_(std::move(events)),
      hostapd_path_(std::move(hostapd_path)) {}

// --- the kernel ---

int nl80211_radios::collect(const nl_request& request, const std::function<void()>& begin,
                            const nl_handler& each) {
    int result = 0;
    for (int i = 0; i < dump_tries; ++i) {
        begin();
        result = commands_->exchange(request, each);
        if (result != -EINTR && result != -ENOBUFS)
            return result;
    }
    trace.warn("<%s:%d> nl80211 command %d: the answer is incomplete: %s\n", __func__, __LINE__,
               request.command(), std::strerror(-result));
    return 0;
}

int nl80211_radios::interfaces(std::vector<interface_record>& result) {
    return dump(nl_request{NL80211_CMD_GET_INTERFACE, nl_request::dump}, result);
}

// --- hostapd ---

std::optional<std::string> nl80211_radios::ask_hostapd(const std::string& ifname,
                                                       const std::string& command) {
    if (clock::now() < hostapd_silent_until_)
        return std::nullopt;
    hostapd_control hostapd{hostapd_path_, hostapd_wait};
    const bool there = hostapd.is_open();
    std::optional<std::string> answer = hostapd.request("IFNAME=" + ifname + " " + command);
    if (!answer) {
        trace.error("<%s:%d> %s: hostapd does not answer: %s\n", __func__, __LINE__, ifname.c_str(),
                    hostapd.why().c_str());
        if (there)
            hostapd_silent_until_ = clock::now() + hostapd_rest;
    }
    return answer;
}

bool nl80211_radios::tell_hostapd(const std::string& ifname, const std::string& command) {
    const std::optional<std::string> answer = ask_hostapd(ifname, command);
    if (!answer)
        return false;
    if (answer->starts_with("OK"))
        return true;
    const std::string verdict = answer->substr(0, answer->find('\n'));
    trace.error("<%s:%d> %s: hostapd refuses '%s': %s\n", __func__, __LINE__, ifname.c_str(),
                command.c_str(), verdict.c_str());
    return false;
}

// --- events ---

nl80211_transport& nl80211_radios::kernel_events() {
    if (events_->fd() < 0 && clock::now() >= kernel_events_again_) {
        kernel_events_again_ = clock::now() + events_rest;
        if (const int result = events_->subscribe(event_group); result != 0)
            trace.error("<%s:%d> no events of nl80211: %s\n", __func__, __LINE__,
                        std::strerror(-result));
    }
    return *events_;
}

hostapd_control* nl80211_radios::hostapd_events() {
    struct stat entry {};
    const ino_t inode = stat(hostapd_path_.c_str(), &entry) == 0 ? entry.st_ino : 0;
    const bool same = inode == hostapd_inode_;
    if (same && hostapd_events_ && hostapd_events_->is_open())
        return hostapd_events_.get();
    hostapd_events_.reset();
    hostapd_inode_ = inode;
    if (inode == 0 || (same && clock::now() < hostapd_events_again_))
        return nullptr;
    hostapd_events_again_ = clock::now() + events_rest;
    auto connection = std::make_unique<hostapd_control>(hostapd_path_, hostapd_wait);
    if (connection->attach())
        hostapd_events_ = std::move(connection);
    else
        trace.error("<%s:%d> no events of hostapd: %s\n", __func__, __LINE__,
                    connection->why().c_str());
    return hostapd_events_.get();
}

// --- stations that were asked to move ---

void nl80211_radios::set_roam_timeout(const std::string& vap, int seconds) {
    attempts_[vap].timeout = seconds;
}

int nl80211_radios::roam_timeout(const std::string& vap) const {
    const auto found = attempts_.find(vap);
    return found == attempts_.end() ? 0 : found->second.timeout;
}

void nl80211_radios::note_roam_attempt(const std::string& vap, const std::string& station) {
    roam_attempts& attempts = attempts_[vap];
    const clock::time_point now = clock::now();
    std::erase_if(attempts.until, [now](const auto& entry) { return entry.second <= now; });
    if (attempts.timeout > 0)
        attempts.until[station] = now + std::chrono::seconds{attempts.timeout};
}

bool nl80211_radios::was_asked_to_roam(const std::string& vap, const std::string& station) {
    const auto attempts = attempts_.find(vap);
    if (attempts == attempts_.end())
        return false;
    const auto found = attempts->second.until.find(station);
    return found != attempts->second.until.end() && clock::now() < found->second;
}
