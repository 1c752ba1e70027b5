// RealtekTest: a Realtek driver with a bus, a configuration store, a network manager and a kernel
// of the test's own.
#ifndef TESTS_REALTEK_FIXTURE_H
#define TESTS_REALTEK_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "fake_kernel.h"
#include "krds.h"
#include "log_capture.h"
#include "platform-specific/driver_realtek.h"
#include "temporary_folder.h"
#include "test_bus.h"

class RealtekTest : public testing::Test {
  protected:
    static constexpr const char* two_radios = R"({"radios": [
        {"ifname": "wlan0", "driver": "rtl8192cd", "bands": ["2.4GHz"],
         "antenna-gain": {"type": "fixed", "value": 3}},
        {"ifname": "wlan1", "driver": "rtl8192cd", "bands": ["5GHz"],
         "antenna-gain": {"type": "configurable"}}]})";

    RealtekTest() {
        setenv("LUMD_PLATFORM_DIR", folder.path().c_str(), 1);
        set_radios(two_radios);
        write("factory.json", R"({"board": "AP-7", "hw": "rev-b", "serial": "S123",
                                           "mac": "00:11:22:33:44:50"})");
        write("antennas.json", R"({"antennas": []})");
    }
    ~RealtekTest() override {
        driver_.reset();
        unsetenv("LUMD_PLATFORM_DIR");
        KRDS::reload();
    }

    // The driver, made at the first use; hostapd is not up yet.
    driver_realtek& driver() {
        if (!driver_)
            driver_.emplace(run_flag);
        return *driver_;
    }

    // The driver with hostapd up and both radios up and read.
    driver_realtek& ready_driver() {
        set_up("wlan0");
        set_up("wlan1");
        kernel.set_mib("wlan0", "chanspec", LWLIO_CHANSPEC_BW_20 | 6);
        kernel.set_mib("wlan1", "chanspec", LWLIO_CHANSPEC_BAND_5G | LWLIO_CHANSPEC_BW_20 | 36);
        driver().set_hostapd_initialized(true);
        driver().set_vapcontext();
        bus.forget_requests();
        return driver();
    }

    // A file of the platform libraries.
    void write(const char* name, const std::string& text) const { folder.write(name, text); }
    void set_radios(const std::string& json) const {
        write("radios.json", json);
        KRDS::reload();
    }
    void set_up(const std::string& ifname) { kernel.add_interface(ifname); }
    void set_down(const std::string& ifname) { kernel.add_interface(ifname, false); }

    // A VAP that is up, switched on and has an SSID.
    void add_vap(const std::string& ifname, const std::string& ssid) {
        set_up(ifname);
        vaultd.set("/interface/" + ifname + "/common/enabled", "true");
        vaultd.set("/interface/" + ifname + "/vap/ssid", ssid);
    }

    const TemporaryFolder folder;
    FakeKernel kernel;
    TestBus bus;
    FakeVaultd vaultd{bus};
    FakeHubd hubd{bus};
    volatile bool run_flag = true;
    LogCapture log;

  private:
    std::optional<driver_realtek> driver_;
};

#endif
