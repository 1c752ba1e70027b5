// What apd asks of the kernel about one radio and its interfaces. RadioKernel is the door: behind
// it are nl80211 and rtnetlink's ioctls, or a test's own kernel.
#ifndef PLATFORM_APD_RADIO_KERNEL_H
#define PLATFORM_APD_RADIO_KERNEL_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "channel.h"
#include "mac_text.h"

namespace apd {

// A 20 MHz channel as the regulatory domain of the moment has it.
struct KernelChannel {
    int number = 0;
    bool no_ir = false;       // nobody may begin to send here
    bool radar = false;       // needs a radar check first
    bool radar_seen = false;  // and is not to be used for a while
    int max_power = 0;        // dBm
};

struct RadioAbility {
    std::uint32_t wiphy = 0;
    std::string phy;  // "phy0"
    bool ht = false;
    bool vht = false;
    bool he = false;
    bool csa = false;                     // can announce a change of channel
    std::vector<KernelChannel> channels;  // those that are not disabled

    [[nodiscard]] const KernelChannel* find(int number) const {
        for (const KernelChannel& channel : channels)
            if (channel.number == number)
                return &channel;
        return nullptr;
    }
};

// One thread at a time. Operations give the reason of a failure, or an empty text.
class RadioKernel {
  public:
    virtual ~RadioKernel() = default;

    // Makes "wlanN" of the phy, or of the one it has, there and up: the agent scans with it.
    [[nodiscard]] virtual std::string open_radio(const std::string& ifname,
                                                 const std::string& phy) = 0;

    // Of the radio with this interface, as it is now; nothing without one.
    [[nodiscard]] virtual std::optional<RadioAbility> ability(const std::string& ifname) = 0;

    // Makes an interface of type AP, anew when there is one of that name.
    [[nodiscard]] virtual std::string make_vap(const std::string& ifname,
                                               const RadioAbility& ability, const Mac& mac) = 0;
    virtual void remove_vap(const std::string& ifname) = 0;

    // The address of an interface.
    [[nodiscard]] virtual std::optional<Mac> address(const std::string& ifname) = 0;

    // dBm of the whole radio; none: what the kernel takes.
    [[nodiscard]] virtual std::string set_power(const RadioAbility& ability,
                                                std::optional<int> power) = 0;
    // dBm that an interface sends with; nothing while it does not.
    [[nodiscard]] virtual std::optional<int> power(const std::string& ifname) = 0;
    // Where it does so.
    [[nodiscard]] virtual std::optional<Channel> channel(const std::string& ifname) = 0;
};

}  // namespace apd

#endif
