// Which settings apd.json(5) may hold, and which values. What depends on several settings at once
// is judged where they are read together (access_point.h).
#ifndef PLATFORM_APD_CONFIG_RULES_H
#define PLATFORM_APD_CONFIG_RULES_H

#include <string>
#include <vector>

#include "json.h"

namespace apd {

// Why a setting is refused, in a sentence that names path, value and bound; empty when it may be.
[[nodiscard]] std::string why_refused(const std::string& path, json_object* value);

// The same for each setting in the tree that stands at this path; that of the first one refused.
[[nodiscard]] std::string why_tree_refused(json_object* tree, const std::string& path = "");

// The same for what the service sets: settings, fast transition as a whole, and the MAC lists.
inline constexpr const char* kMacLists = "/wids/mac-lists";
[[nodiscard]] std::string why_refused_of_service(const std::string& path, json_object* value);

// What holds where a setting is not set; null for one that has no such value.
[[nodiscard]] Json default_value(const std::string& path);

// Whether the value is a password or a key, which is not shown to everybody.
[[nodiscard]] bool is_secret(const std::string& path);

// "wlan0-vap2", as the agent names an access point in some of its paths, made "wlan0-va2".
[[nodiscard]] std::string canonical_path(const std::string& path);

// A setting for people: path, with R, V and W for the interfaces, and what it takes.
struct KnownSetting {
    std::string path;
    std::string takes;
};
[[nodiscard]] std::vector<KnownSetting> known_settings();

}  // namespace apd

#endif
