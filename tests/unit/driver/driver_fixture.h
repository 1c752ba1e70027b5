// What tests of the radio layer stand on: a kernel, tools, platform data, a bus with its daemons
// and a driver of their own.
#ifndef TESTS_DRIVER_FIXTURE_H
#define TESTS_DRIVER_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
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

// The unit's own files: factory data, the registry of its radios and the known antennas.
class PlatformFolder {
  public:
    PlatformFolder() {
        setenv("LUMD_PLATFORM_DIR", folder_.path().c_str(), 1);
        write("factory.json", R"({"board": "AP-7", "hw": "rev-b", "serial": "S123",
                                  "mac": "00:11:22:33:44:50"})");
        write("antennas.json", R"({"antennas": []})");
        radios(R"({"ifname": "wlan0", "driver": "rtl8192cd", "bands": ["2.4GHz"],
                   "antenna-gain": {"type": "fixed", "value": 3}},
                  {"ifname": "wlan1", "driver": "g6", "bands": ["5GHz"],
                   "antenna-gain": {"type": "configurable"}})");
    }
    ~PlatformFolder() {
        unsetenv("LUMD_PLATFORM_DIR");
        KRDS::reload();
    }
    PlatformFolder(const PlatformFolder&) = delete;
    PlatformFolder& operator=(const PlatformFolder&) = delete;

    void write(const std::string& name, const std::string& text) const {
        folder_.write(name, text);
    }
    void remove(const std::string& name) const { std::filesystem::remove(folder_ / name); }
    // The registry holds these radios from now on, JSON objects with commas between.
    void radios(const std::string& list) const {
        write("radios.json", R"({"radios": [)" + list + "]}");
        KRDS::reload();
    }

  private:
    TemporaryFolder folder_;
};

// A driver whose radios nobody has brought up yet: wlan0 (rtl8192cd, 2.4 GHz) and wlan1 (g6, 5
// GHz).
class DriverTest : public ::testing::Test {
  protected:
    // The driver, made at the first use; hostapd is not up yet.
    driver_realtek& driver() {
        if (!driver_)
            driver_.emplace(run_flag);
        return *driver_;
    }
    // The driver with hostapd up and both radios up and read, wlan0 on channel 6 and wlan1 on
    // channel 36; no request of that is remembered.
    driver_realtek& ready_driver() {
        set_up("wlan0");
        set_up("wlan1");
        kernel.set_mib("wlan0", "chanspec", LWLIO_CHANSPEC_BW_20 | 6);
        tools.set_mib("wlan1", "chanspec", LWLIO_CHANSPEC_BAND_5G | LWLIO_CHANSPEC_BW_20 | 36);
        driver().set_hostapd_initialized(true);
        driver().set_vapcontext();
        forget();
        return driver();
    }

    void set_up(const std::string& ifname) { kernel.add_interface(ifname); }
    void set_down(const std::string& ifname) { kernel.add_interface(ifname, false); }
    // A VAP that is up, switched on and has an SSID.
    void add_vap(const std::string& ifname, const std::string& ssid, bool dot11k = false) {
        set_up(ifname);
        vaultd.set("/interface/" + ifname + "/common/enabled", "true");
        vaultd.set("/interface/" + ifname + "/vap/ssid", ssid);
        vaultd.set("/interface/" + ifname + "/vap/w80211kv-config/enabled",
                   dot11k ? "true" : "false");
    }
    // The radio takes part in WDS, or scans for guardd, from the next reading on.
    void set_wds(const std::string& radio) {
        vaultd.set("/interface/" + radio + "/wlan/wds/enabled", "true");
        vaultd.set("/interface/" + radio + "-wds0/common/enabled", "true");
    }
    void set_wids(const std::string& radio) {
        vaultd.set("/wids/enabled", "true");
        vaultd.set("/wids/scan-mode", "sentry");
        vaultd.set("/wids/scan-interface", radio);
    }
    // No request to the kernel, the tools or a daemon is remembered.
    void forget() {
        kernel.forget();
        tools.forget();
        bus.forget_requests();
    }

    // How many lines of the log match the whole pattern.
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
    FakeVaultd vaultd{bus};
    FakeHubd hubd{bus};
    volatile bool run_flag = true;
    LogCapture log;

  private:
    std::optional<driver_realtek> driver_;
};

// The same with a ready driver; each radio has one VAP "wlanN-va0" of the SSID "home" that has
// 802.11k, and there is a scan daemon.
class LiveDriverTest : public DriverTest {
  protected:
    LiveDriverTest() {
        bus.serve(SCANDMOD, [](const std::string&) { return std::nullopt; });
        add_vap("wlan0-va0", "home", true);
        add_vap("wlan1-va0", "home", true);
        ready_driver();
    }

    // The driver forgets what it has read and reads radios and VAPs anew.
    void refresh() {
        driver().close_vapcontext();
        driver().set_vapcontext();
        forget();
    }
    // Notices to the scan daemon as "lock-scan wlan0", as soon as there are `count`.
    [[nodiscard]] std::vector<std::string> scan_notices(std::size_t count) const {
        std::vector<std::string> result;
        for (const std::string& notice : bus.wait_requests(SCANDMOD, count))
            result.push_back(test_bus::member(notice, "command").value_or("?") + " " +
                             test_bus::member(notice, "interface").value_or("?"));
        return result;
    }
};

#endif
