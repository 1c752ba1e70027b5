// What the tests of apd share: settings in short, and a hostapd and a kernel that keep what they
// are told.
#ifndef TESTS_APD_SUPPORT_H
#define TESTS_APD_SUPPORT_H

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "access_point.h"
#include "hostapd_port.h"
#include "json.h"
#include "radio_kernel.h"

namespace apd {

// 2.4 GHz with two access points, 5 GHz with one.
inline constexpr const char* kTwoRadios = R"({"interface": {
    "wlan0": {"wlan": {"radio": {"country": "DE", "channel": "6", "bandwidth": "20"}}},
    "wlan1": {"wlan": {"radio": {"country": "DE", "channel": "36", "bandwidth": "80"}}},
    "wlan0-va0": {"common": {"enabled": "true"}, "vap": {"ssid": "office",
        "ap-security": {"mode": "WPA2_PSK", "passphrase": "12345678"},
        "ft-config": {"enabled": "true"}}},
    "wlan0-va2": {"common": {"enabled": "true"}, "vap": {"ssid": "guests"}},
    "wlan1-va0": {"common": {"enabled": "true"}, "vap": {"ssid": "office",
        "ap-security": {"mode": "WPA2_PSK", "passphrase": "12345678"}}}}})";

inline Json text_node(const std::string& text) {
    return Json{json_object_new_string(text.c_str())};
}

// A kernel whose radios have what `abilities` says, and do what hostapd and apd tell them.
class FakeKernel : public RadioKernel {
  public:
    FakeKernel() {
        for (int radio = 0; radio < kRadios; radio++) {
            RadioAbility& ability = abilities[radio_name(radio)];
            ability.wiphy = static_cast<std::uint32_t>(radio);
            ability.phy = "phy" + std::to_string(radio);
            ability.ht = ability.vht = ability.csa = true;
            for (int number = 1; number <= 13; number++)
                ability.channels.push_back({number, false, false, false, 20});
            for (const int number : {36, 40, 44, 48, 52, 56, 60, 64})
                ability.channels.push_back({number, false, number >= 52, false, 23});
        }
    }

    std::string open_radio(const std::string& ifname, const std::string&) override {
        return abilities.contains(ifname) ? "" : "there is no interface " + ifname;
    }
    std::optional<RadioAbility> ability(const std::string& ifname) override {
        const auto found = abilities.find(ifname);
        return found != abilities.end() ? std::optional{found->second} : std::nullopt;
    }
    std::string make_vap(const std::string& ifname, const RadioAbility&, const Mac& mac) override {
        vaps[ifname] = mac;
        return "";
    }
    void remove_vap(const std::string& ifname) override { vaps.erase(ifname); }
    std::optional<Mac> address(const std::string&) override {
        return Mac{0, 0x11, 0x22, 0x33, 0x44, 0x50};
    }
    std::string set_power(const RadioAbility& ability, std::optional<int> power) override {
        powers[ability.phy] = power;
        return "";
    }
    std::optional<int> power(const std::string&) override { return sent_with; }
    std::optional<Channel> channel(const std::string& ifname) override {
        const auto found = channels.find(ifname);
        return found != channels.end() ? std::optional{found->second} : std::nullopt;
    }

    std::map<std::string, RadioAbility> abilities;
    std::map<std::string, Mac> vaps;
    std::map<std::string, std::optional<int>> powers;
    std::map<std::string, Channel> channels;  // by access point
    int sent_with = 20;                       // dBm
};

// Takes everything, unless a refusal or another answer is prepared for what a command begins with.
class FakeHostapdPort : public HostapdPort {
  public:
    std::optional<std::string> ask(const std::string& command) override {
        commands.push_back(command);
        for (const auto& [begin, answer] : answers)
            if (command.starts_with(begin))
                return answer;
        if (command.ends_with(" STATUS"))
            return "state=" + state;
        return "OK";
    }
    using HostapdPort::ask;

    // The commands since the last call that begin so, or have it behind "IFNAME=...".
    [[nodiscard]] std::vector<std::string> told(const std::string& word) const {
        std::vector<std::string> result;
        for (const std::string& command : commands)
            if (command.starts_with(word) || command.find(' ' + word) != std::string::npos)
                result.push_back(command);
        return result;
    }

    std::string state = "ENABLED";
    std::map<std::string, std::optional<std::string>> answers;
    std::vector<std::string> commands;
};

}  // namespace apd

#endif
