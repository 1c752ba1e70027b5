// RadioControl brings one radio to its settings: makes the interfaces, writes hostapd's files and
// drives hostapd, with as little harm to the clients as hostapd allows.
//
//     kDown ──start──► kStarting ──► kUp ◄──► kSwitching (announced change of channel)
//                        │   ▲
//                        ▼   │ radar check of a minute
//                      kRadarCheck
//
// Nothing here waits: what takes time goes on at events of hostapd and at tick(). One change at a
// time; the next waits for its end.
// One thread at a time. Borrows what its surroundings name.
#ifndef PLATFORM_APD_RADIO_CONTROL_H
#define PLATFORM_APD_RADIO_CONTROL_H

#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>

#include "access_point.h"
#include "hostapd_config.h"
#include "hostapd_event.h"
#include "hostapd_port.h"
#include "radio_kernel.h"

namespace apd {

class RadioControl {
  public:
    using Clock = std::chrono::steady_clock;
    // Told how a change has ended: an empty text, or why it was refused.
    using Done = std::function<void(const std::string& reason)>;

    struct Surroundings {
        HostapdPort& hostapd;
        RadioKernel& kernel;
        std::string folder;  // of hostapd's files
        HostapdPlaces places;
        std::function<std::optional<Mac>(VapId)> address_of;
        // The radio came to rest on its own: after a radar check, or where hostapd has moved it.
        std::function<void(int radio)> settled;
        // The associations at this access point end, while hostapd goes on.
        std::function<void(const std::string& ifname)> vap_ends;
        std::function<Clock::time_point()> now = Clock::now;
    };

    enum class State { kDown, kStarting, kRadarCheck, kSwitching, kUp };
    // What a change means by its channel. One as before is where hostapd has gone from there: to
    // 20 MHz when it heard others at 2.4 GHz, elsewhere when it saw a radar.
    enum class ChannelIs { kAsBefore, kAskedFor };

    RadioControl(int radio, Surroundings surroundings);

    // What hostapd_came() is to bring the radio to.
    void expect(std::optional<RadioConfig> config) { wanted_ = std::move(config); }

    // Brings the radio to these settings for somebody who waits; without any it stops. `done` may
    // be called at once or later, and always is: what cannot be reached while the agent waits is
    // refused.
    void want(std::optional<RadioConfig> config, Done done,
              ChannelIs channel = ChannelIs::kAsBefore);

    // The same for settings that are to hold, with nobody who waits: a refusal goes to the log, and
    // a radio that stays down is tried again every minute.
    void bring_to(std::optional<RadioConfig> config);

    // hostapd is there: takes over the access points that run as wanted, and starts the others.
    void hostapd_came(const std::set<std::string>& interfaces);
    void hostapd_went();

    // An event of one of this radio's access points.
    void take(const std::string& ifname, const HostapdEvent& event);
    void tick();

    // Takes MAC addresses in and out of the list of those that no access point takes.
    void deny(const std::set<Mac>& added, const std::set<Mac>& removed);

    [[nodiscard]] State state() const { return state_; }
    // Whether a tick() is wanted soon.
    [[nodiscard]] bool is_busy() const;
    // What the radio really does; nothing while it is down.
    [[nodiscard]] const std::optional<RadioConfig>& applied() const { return applied_; }
    // Why it is not what was wanted; empty when it is.
    [[nodiscard]] const std::string& trouble() const { return trouble_; }

  private:
    struct Change {
        std::optional<RadioConfig> target;
        Done done;
        std::optional<Clock::time_point> answer_by;  // none: nobody waits
        ChannelIs channel = ChannelIs::kAsBefore;
    };

    void log_refusal(const std::string& reason) const;
    void try_again();
    void next();
    void begin();
    [[nodiscard]] RadioConfig target_of(const Change& change) const;
    std::string check(const RadioConfig& target) const;
    std::string check_channel(const RadioConfig& target) const;
    std::string check_power(const RadioConfig& target) const;
    bool needs_radar_check(const Channel& channel) const;
    bool must_restart(const RadioConfig& target) const;
    void change_running(const RadioConfig& target);
    std::string change_vaps(const RadioConfig& target);
    std::string change_vap(const RadioConfig& now, const VapConfig& vap);
    std::string change_ft(const VapConfig& before, const VapConfig& now);
    std::string reload();
    void change_channel(const RadioConfig& target);
    void start(const RadioConfig& target);
    std::string add_all(const RadioConfig& target);
    std::string add(const RadioConfig& target, const VapConfig& vap);
    void remove(const VapConfig& vap);
    void stop();
    [[nodiscard]] bool is_enabled() const;
    void look_at_start();
    void look_at_switch(bool is_over);
    void watch();
    void came_up();
    void moved();
    void finish(const std::string& reason);
    void fail_start(const std::string& reason);
    bool write_files(const RadioConfig& target) const;
    bool files_are(const RadioConfig& target) const;
    [[nodiscard]] std::string text_of(const RadioConfig& target, const VapConfig& vap) const;
    [[nodiscard]] std::string file_of(const VapConfig& vap) const;
    [[nodiscard]] std::string first_vap() const;
    void enter(State next);

    const int radio_;
    const std::string name_;
    const Surroundings at_;
    bool hostapd_there_ = false;
    State state_ = State::kDown;
    Clock::time_point deadline_{};  // of what is under way; in kUp: the next look at the kernel;
                                    // in kDown: the next trial
    bool lost_ = false;             // the last look found no channel
    Clock::time_point began_{};
    RadioAbility ability_;
    std::optional<RadioConfig> wanted_;    // the last that was accepted or is expected
    std::optional<RadioConfig> applied_;   // what is there
    std::optional<Channel> asked_;         // of which hostapd has made that of applied_
    std::optional<RadioConfig> fallback_;  // to go back to when a start fails
    std::optional<Change> change_;         // the one under way
    std::deque<Change> waiting_;
    std::string trouble_;
};

[[nodiscard]] const char* state_text(RadioControl::State state);

}  // namespace apd

#endif
