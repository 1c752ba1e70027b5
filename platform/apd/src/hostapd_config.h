// hostapd's file of one BSS: hostapd.conf(5). hostapd takes each by "ADD bss_config=PHY:FILE"; the
// first of a radio says what holds for all of them.
#ifndef PLATFORM_APD_HOSTAPD_CONFIG_H
#define PLATFORM_APD_HOSTAPD_CONFIG_H

#include <string>

#include "access_point.h"
#include "radio_kernel.h"

namespace apd {

// Where hostapd finds and puts things.
struct HostapdPlaces {
    std::string control_folder;  // of its control sockets
    std::string deny_file;       // MAC addresses that no BSS takes
};

// The whole text. `is_first`: whether it is the radio's first BSS, whose address is its
// interface's.
[[nodiscard]] std::string hostapd_config(const RadioConfig& radio, const VapConfig& vap,
                                         const Mac& bssid, bool is_first,
                                         const RadioAbility& ability, const HostapdPlaces& places);

// "WPA-PSK FT-PSK"; empty for an open access point.
[[nodiscard]] std::string key_management(const VapConfig& vap);

// What CHAN_SWITCH is told of the radio's modes: "ht vht".
[[nodiscard]] std::string switch_modes(const RadioConfig& radio, const RadioAbility& ability);

}  // namespace apd

#endif
