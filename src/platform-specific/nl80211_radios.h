// nl80211_radios: what outlives a command to the radios of mac80211: the ways to the kernel and to
// hostapd, and what the chip families' drivers keep in the kernel but this one does not.
#ifndef LUMD_NL80211_RADIOS_H
#define LUMD_NL80211_RADIOS_H

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hostapd_control.h"
#include "hostapd_texts.h"
#include "nl80211_records.h"
#include "nl80211_transport.h"

// Used by the driver's thread alone.
class nl80211_radios {
  public:
    // One transport for commands, one for events; the global control socket of hostapd.
    nl80211_radios(std::unique_ptr<nl80211_transport> commands,
                   std::unique_ptr<nl80211_transport> events, std::string hostapd_path);

    // --- the kernel ---

    // One command: 0 or a negative errno.
    int command(const nl_request& request) { return commands_->exchange(request); }
    [[nodiscard]] const std::string& reason() const { return commands_->reason(); }

    // Each record of one kind. A dump that changed while it was told, or of which messages were
    // lost, is asked for again; what the last try told counts, with a line in the log. 0 or a
    // negative errno with which nothing is told.
    template <typename Record>
    int dump(const nl_request& request, std::vector<Record>& records) {
        return collect(
            request, [&records] { records.clear(); },
            [&records](std::uint8_t, const nl_attributes& message) {
                for (auto& record : records_of<Record>(message))
                    records.push_back(std::move(record));
            });
    }
    int interfaces(std::vector<interface_record>& result);

    // --- hostapd ---

    // The answer of the BSS `ifname` to a command; empty, with a line in the log, when hostapd is
    // not there or stays silent. After a silence nobody is made to wait again for a while.
    std::optional<std::string> ask_hostapd(const std::string& ifname, const std::string& command);
    // Whether the answer is "OK"; a refusal is logged, too.
    bool tell_hostapd(const std::string& ifname, const std::string& command);

    // --- events ---

    // Both ways of events, opened when they can be: a transport whose descriptor is -1 has none.
    nl80211_transport& kernel_events();
    // Null while hostapd is not there. A hostapd that was started anew is attached to anew.
    hostapd_control* hostapd_events();

    // --- kept for the radios ---

    // The channel that was measured last, by the radio's interface.
    std::map<std::string, unsigned> measured;
    // Candidates for transitions, by the VAP's interface.
    std::map<std::string, std::vector<hostapd_neighbour>> candidates;

    // How long a station counts as one that was asked to move, in seconds; 0: not at all.
    void set_roam_timeout(const std::string& vap, int seconds);
    [[nodiscard]] int roam_timeout(const std::string& vap) const;
    void note_roam_attempt(const std::string& vap, const std::string& station);
    [[nodiscard]] bool was_asked_to_roam(const std::string& vap, const std::string& station);

  private:
    using clock = std::chrono::steady_clock;
    struct roam_attempts {
        int timeout = 0;
        std::map<std::string, clock::time_point> until;  // by the station's address
    };

    template <typename Record>
    static std::vector<Record> records_of(const nl_attributes& message);
    int collect(const nl_request& request, const std::function<void()>& begin,
                const nl_handler& each);

    std::unique_ptr<nl80211_transport> commands_;
    std::unique_ptr<nl80211_transport> events_;
    std::string hostapd_path_;
    clock::time_point hostapd_silent_until_{};
    std::unique_ptr<hostapd_control> hostapd_events_;
    ino_t hostapd_inode_ = 0;  // of the socket that events come from
    clock::time_point hostapd_events_again_{};
    clock::time_point kernel_events_again_{};
    std::map<std::string, roam_attempts> attempts_;
};

template <typename Record>
std::vector<Record> nl80211_radios::records_of(const nl_attributes& message) {
    if (std::optional<Record> record = Record::read(message))
        return {*std::move(record)};
    return {};
}

template <>
inline std::vector<frequency_record> nl80211_radios::records_of(const nl_attributes& message) {
    return frequency_record::read(message);
}

#endif
