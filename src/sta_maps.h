// Per-radio tables of stations, keyed by MAC address.
#ifndef LUMD_STA_MAPS_H
#define LUMD_STA_MAPS_H

#include <cstddef>
#include <unordered_map>
#include <vector>

#include "MacAddr.h"

// What a client's probe request told.
struct sta_prob_info {
    int rssi = 0;     // dBm; 0 while not known
    int timeout = 0;  // seconds left before the record is reported
    int vap = 0;      // index of the VAP probed
};

// A hash map that can be walked with a predicate. Used by one thread.
template <typename Value>
class _sta_table {
  public:
    static constexpr std::size_t bucket_hint = 10;

    _sta_table() : entries(bucket_hint) {}

    Value& operator[](const libhubd::MacAddr& mac) { return entries[mac]; }
    [[nodiscard]] const Value* find(const libhubd::MacAddr& mac) const {
        const auto it = entries.find(mac);
        return it == entries.end() ? nullptr : &it->second;
    }

    // Calls `predicate(mac, value)` on every entry and erases those for which it returns true.
    template <typename Predicate>
    void if_remove(Predicate predicate) {
        for (auto it = entries.begin(); it != entries.end();) {
            if (predicate(it->first, it->second))
                it = entries.erase(it);
            else
                ++it;
        }
    }

    void clear() { entries.clear(); }
    [[nodiscard]] bool empty() const { return entries.empty(); }
    [[nodiscard]] std::size_t size() const { return entries.size(); }

  private:
    std::unordered_map<libhubd::MacAddr, Value> entries;
};

using sta_environment_t = std::vector<_sta_table<sta_prob_info>>;  // probe records by radio
using sta_block_t = std::vector<_sta_table<int>>;  // blocked stations by radio: seconds left

#endif
