// ClientTraps turns hostapd's events about stations into the agent's "wifi-client-trap" messages.
//
// hostapd does not tell who ended an association; what apd itself has brought about (black list,
// start of an access point) is told as the access point's doing, all else as the client's.
// One thread at a time.
#ifndef PLATFORM_APD_CLIENT_TRAPS_H
#define PLATFORM_APD_CLIENT_TRAPS_H

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "hostapd_event.h"
#include "json.h"
#include "mac_text.h"

namespace apd {

// What a message says of the access point that an event came from.
struct TrapVap {
    std::string ifname;
    std::string ssid;
    bool enterprise = false;
};

// What hostapd's STA tells of a station.
struct StationFacts {
    std::optional<int> signal;  // dBm
    bool transitions = false;   // takes part in 802.11v
};
[[nodiscard]] StationFacts read_station(const std::string& answer);

class ClientTraps {
  public:
    // The messages for one event, in their order. `facts` is asked once for a station that comes.
    template <typename Facts>
    [[nodiscard]] std::vector<Json> take(const HostapdEvent& event, const TrapVap& vap,
                                         const Facts& facts) {
        const bool comes = event.kind == EventKind::kStationConnected;
        return make(event, vap, comes ? facts(event.station) : StationFacts{});
    }

    // From now on the station's end is the access point's doing.
    void put_off(const Mac& station) { put_off_.insert(station); }

    // A station that was there before this process.
    void expect(const Mac& station, const TrapVap& vap) { stations_[station] = vap; }

    // The messages for the end of an access point that apd has brought about. hostapd's own events
    // come later, when the access point may be there anew, and are passed over.
    [[nodiscard]] std::vector<Json> end(const std::string& ifname);

    // hostapd has gone, and with it all associations; the agent has seen that itself.
    void forget_all();

    // Where a station is; empty: nowhere.
    [[nodiscard]] std::string where(const Mac& station) const;
    [[nodiscard]] std::size_t count(const std::string& ifname) const;

  private:
    std::vector<Json> make(const HostapdEvent& event, const TrapVap& vap,
                           const StationFacts& facts);
    std::vector<Json> connected(const HostapdEvent& event, const TrapVap& vap,
                                const StationFacts& facts);
    std::vector<Json> disconnected(const HostapdEvent& event, const TrapVap& vap);

    std::map<Mac, TrapVap> stations_;
    std::set<Mac> put_off_;
};

}  // namespace apd

#endif
