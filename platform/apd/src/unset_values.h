// What holds where a setting is not set: the value of its own (config_rules.h), or one that follows
// from other settings.
#ifndef PLATFORM_APD_UNSET_VALUES_H
#define PLATFORM_APD_UNSET_VALUES_H

#include <string>

#include "json.h"

namespace apd {

// `tree` is what is set. Null for a setting that has no value unless it is set, and for a path that
// is none of a setting.
[[nodiscard]] Json unset_value(json_object* tree, const std::string& path);

}  // namespace apd

#endif
