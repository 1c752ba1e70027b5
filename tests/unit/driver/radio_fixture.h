// What tests of the radio layer stand on: a kernel, tools, a bus and a driver of their own.
#ifndef TESTS_RADIO_FIXTURE_H
#define TESTS_RADIO_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "call_faults.h"
#include "fake_kernel.h"
#include "fake_tools.h"
#include "krds.h"
#include "log_capture.h"
#include "platform-specific/driver_realtek.h"
#include "temporary_folder.h"
#include "test_bus.h"

// The unit's own files: factory data and the registry of its radios.
class PlatformFolder {
  public:
    PlatformFolder() {
        setenv("LUMD_PLATFORM_DIR", folder_.path().c_str(), 1);
        folder_.write("factory.json",
                      R"({"board":"b","hw":"h","serial":"s","mac":"00:11:22:33:44:50"})");
        radios(two_radios);
    }
    ~PlatformFolder() {
        unsetenv("LUMD_PLATFORM_DIR");
        KRDS::reload();
    }
    PlatformFolder(const PlatformFolder&) = delete;
    PlatformFolder& operator=(const PlatformFolder&) = delete;

    static constexpr const char* two_radios =
        R"({"ifname":"wlan0","driver":"rtl8192cd","bands":["2.4GHz"]},)"
        R"({"ifname":"wlan1","driver":"g6","bands":["5GHz"]})";

    void radios(const std::string& list) {
        folder_.write("radios.json", R"({"radios":[)" + list + "]}");
        KRDS::reload();
    }

  private:
    const TemporaryFolder folder_;
};

// A driver whose radios nobody has brought up yet.
class RadioTest : public ::testing::Test {
  protected:
    // Lines of the log that match, all of them when it has none but these.
    [[nodiscard]] long logged(const std::string& pattern) const {
        const std::regex expression{pattern};
        const std::vector<std::string> lines = log.lines();
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return std::regex_match(line, expression);
        });
    }
    [[nodiscard]] long errors() const { return log.count("error: "); }

    FakeKernel kernel;
    FakeTools tools;
    PlatformFolder platform;
    TestBus bus;
    volatile bool run = true;
    driver_realtek driver{run};
    LogCapture log;
};

// The same with both radios up: wlan0 (rtl8192cd, 2.4 GHz, channel 6) and wlan1 (g6, 5 GHz, channel
// 36), each with one VAP "wlanN-va0" of the SSID "home" that has 802.11k. The log begins behind
// that.
class LiveRadioTest : public RadioTest {
  protected:
    LiveRadioTest() {
        for (const char* radio : {"wlan0", "wlan1"}) {
            kernel.add_interface(radio);
            add_vap(std::string{radio} + "-va0", "home", true);
        }
        kernel.set_mib("wlan0", "chanspec", 0x1000 | 6);
        tools.set_mib("wlan1", "chanspec", 0xC000 | 0x1000 | 36);
        bus.serve(SCANDMOD, [](const std::string&) { return std::nullopt; });
        driver.set_hostapd_initialized(true);
        refresh();
    }

    void add_vap(const std::string& ifname, const std::string& ssid, bool dot11k) {
        kernel.add_interface(ifname);
        vaultd.set("/interface/" + ifname + "/common/enabled", "true");
        vaultd.set("/interface/" + ifname + "/vap/ssid", ssid);
        vaultd.set("/interface/" + ifname + "/vap/w80211kv-config/enabled",
                   dot11k ? "true" : "false");
    }
    // The driver reads radios and VAPs anew; what that took is forgotten.
    void refresh() {
        driver.close_vapcontext();
        driver.set_vapcontext();
        kernel.forget();
        tools.forget();
    }
    // Notices to the scan daemon as "lock-scan wlan0", as soon as there are `count`.
    [[nodiscard]] std::vector<std::string> scan_notices(std::size_t count) const {
        std::vector<std::string> result;
        for (const std::string& notice : bus.wait_requests(SCANDMOD, count))
            result.push_back(test_bus::member(notice, "command").value_or("?") + " " +
                             test_bus::member(notice, "interface").value_or("?"));
        return result;
    }

    FakeVaultd vaultd{bus};
};

#endif
