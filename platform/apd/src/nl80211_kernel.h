// Nl80211Kernel: radios and interfaces of the real kernel, by nl80211 (linux/nl80211.h) and the
// ioctls of netdevice(7).
#ifndef PLATFORM_APD_NL80211_KERNEL_H
#define PLATFORM_APD_NL80211_KERNEL_H

#include "nl80211_transport.h"
#include "radio_kernel.h"

namespace apd {

class Nl80211Kernel : public RadioKernel {
  public:
    // Borrowed.
    explicit Nl80211Kernel(nl80211_transport& transport) : transport_(transport) {}

    std::string open_radio(const std::string& ifname, const std::string& phy) override;
    std::optional<RadioAbility> ability(const std::string& ifname) override;
    std::string make_vap(const std::string& ifname, const RadioAbility& ability,
                         const Mac& mac) override;
    void remove_vap(const std::string& ifname) override;
    std::optional<Mac> address(const std::string& ifname) override;
    std::string set_power(const RadioAbility& ability, std::optional<int> power) override;
    std::optional<int> power(const std::string& ifname) override;
    std::optional<Channel> channel(const std::string& ifname) override;

  private:
    std::string send(const nl_request& request, const std::string& what);
    std::optional<std::uint32_t> wiphy_of(const std::string& phy);
    bool read_interface(const std::string& ifname, const nl_handler& handler);

    nl80211_transport& transport_;
};

}  // namespace apd

#endif
