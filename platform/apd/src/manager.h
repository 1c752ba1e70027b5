// Manager is the network manager of one access point: it brings the radios to the settings of the
// store, carries out what the service wants of them, and tells the agent what happens.
//
// One thread. Nothing waits: what takes time answers through a Done.
#ifndef PLATFORM_APD_MANAGER_H
#define PLATFORM_APD_MANAGER_H

#include <array>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agent_files.h"
#include "client_traps.h"
#include "config_store.h"
#include "radio_control.h"

namespace apd {

class Manager {
  public:
    using Clock = RadioControl::Clock;
    using Done = RadioControl::Done;
    using Params = std::vector<std::pair<std::string, std::string>>;

    // All borrowed.
    struct Surroundings {
        ConfigStore& store;
        HostapdPort& hostapd;
        RadioKernel& kernel;
        const AgentFiles& files;
        std::string folder;           // of hostapd's files
        std::string control_folder;   // of hostapd's own sockets
        std::optional<Mac> base_mac;  // of the access point; none: made from its first radio's
        std::function<void(const Json& trap)> tell_agent;
        std::function<Clock::time_point()> now = Clock::now;
    };

    explicit Manager(Surroundings surroundings);

    // hostapd is there, with this process id, or has gone.
    void hostapd_came(int pid);
    void hostapd_went();
    // It is there and does not answer, which is no better.
    void hostapd_fell_silent();
    [[nodiscard]] bool has_hostapd() const { return hostapd_pid_.has_value(); }
    void take_event(const std::string& ifname, const std::string& text);
    void tick();
    [[nodiscard]] bool is_busy() const;

    // Makes the candidate of the store what is stored, and goes there; waits for radios that are
    // being scanned with.
    [[nodiscard]] std::string commit();
    // The stored settings were read anew.
    void reloaded();

    // What the service wants of a radio: settings below /interface/IFNAME/wlan/radio.
    void update_radio(const std::string& ifname, const Params& params, const Done& done);
    // Takes back all that it has set there.
    void reset_radio(const std::string& ifname, const Done& done);
    // The object "ft-config" of each access point; null takes back what was set.
    void update_ft(const std::map<std::string, json_object*>& configs, const Done& done);
    void set_mac_lists(json_object* lists);

    // Until then, or for two minutes, nothing but the service disturbs the radio.
    void lock_scan(const std::string& ifname);
    void unlock_scan(const std::string& ifname);

    // For people.
    [[nodiscard]] Json status() const;

  private:
    [[nodiscard]] RadioControl::Surroundings surroundings_of_radios();
    [[nodiscard]] std::optional<Mac> address_of(VapId id);
    void apply();
    [[nodiscard]] bool take_back_later(const std::vector<std::string>& paths);
    void apply_radio(std::size_t radio, const std::optional<RadioConfig>& config);
    void want_with(const std::string& path, Json tree, const std::function<void()>& keep,
                   const Done& done,
                   RadioControl::ChannelIs channel = RadioControl::ChannelIs::kAsBefore);
    void announce();
    void do_without_hostapd();
    void expect_stations();
    void expect_stations_of(const std::string& ifname);
    void settled(int radio);
    void take_black_list();
    void load_black_list();
    [[nodiscard]] std::optional<TrapVap> vap_of(const std::string& ifname) const;
    [[nodiscard]] Json status_of(const RadioControl& radio) const;

    Surroundings at_;
    ClientTraps traps_;
    std::set<Mac> black_list_;
    std::map<std::string, Clock::time_point> locks_;  // by radio: until when
    bool waits_for_unlock_ = false;
    bool announced_ = false;
    std::optional<int> hostapd_pid_;
    std::array<std::unique_ptr<RadioControl>, kRadios> radios_;
};

}  // namespace apd

#endif
