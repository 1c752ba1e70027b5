#include "interface_name.h"

namespace apd {

std::string radio_name(int radio) {
    return "wlan" + std::to_string(radio);
}

std::string vap_name(VapId id) {
    return radio_name(id.radio) + "-va" + std::to_string(id.vap);
}

std::optional<int> parse_radio(const std::string& name) {
    for (int radio = 0; radio < kRadios; radio++)
        if (name == radio_name(radio))
            return radio;
    return std::nullopt;
}

std::optional<VapId> parse_vap(const std::string& name) {
    for (int radio = 0; radio < kRadios; radio++)
        for (int vap = 0; vap < kVaps; vap++)
            if (name == vap_name({radio, vap}))
                return VapId{radio, vap};
    return std::nullopt;
}

}  // namespace apd
