// The black list in the MAC lists that the intrusion-detection service hands over.
#ifndef PLATFORM_APD_MAC_LISTS_H
#define PLATFORM_APD_MAC_LISTS_H

#include <set>
#include <string>

#include "json.h"
#include "mac_text.h"

namespace apd {

// Every MAC address below a member whose name has "black" in it, in any letter case: as a text in
// an array, as a member "mac" or "MAC" of an object in one, or as the name of a member.
[[nodiscard]] std::set<Mac> black_list(json_object* lists);

// What hostapd reads as deny_mac_file.
[[nodiscard]] std::string deny_file_text(const std::set<Mac>& macs);

}  // namespace apd

#endif
