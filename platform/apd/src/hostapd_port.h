// The door to hostapd: a command for hostapd as a whole or for one BSS, and its answer.
#ifndef PLATFORM_APD_HOSTAPD_PORT_H
#define PLATFORM_APD_HOSTAPD_PORT_H

#include <optional>
#include <string>

namespace apd {

class HostapdPort {
  public:
    virtual ~HostapdPort() = default;

    // The answer without its last line end; nothing when hostapd is not there or does not answer.
    virtual std::optional<std::string> ask(const std::string& command) = 0;

    // The same of one BSS.
    std::optional<std::string> ask(const std::string& ifname, const std::string& command) {
        return ask("IFNAME=" + ifname + ' ' + command);
    }

    // Whether the answer is "OK".
    bool tell(const std::string& command) { return ask(command) == "OK"; }
    bool tell(const std::string& ifname, const std::string& command) {
        return ask(ifname, command) == "OK";
    }
};

}  // namespace apd

#endif
