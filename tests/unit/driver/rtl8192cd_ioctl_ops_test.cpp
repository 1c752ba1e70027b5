#include "driver_fixture.h"
#include "platform-specific/realtek_ioctl_ops_rtl8192cd.h"
#include "unsafe_texts.h"

namespace {

using call_faults::NoRoom;
using call_faults::NoSocket;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class Rtl8192cdTest : public DriverTest {
  protected:
    Rtl8192cdTest() { kernel.add_interface("wlan0"); }

    // The value read into `room` bytes that held 0xEE before.
    std::string read_mib(const std::string& name, std::size_t room = 4) {
        std::string out(room, '\xEE');
        EXPECT_EQ(ops.get_mib(name, std::as_writable_bytes(std::span{out}), "wlan0"), 0);
        return out;
    }
    int add_neighbour(int channel, int custom, const std::string& ssid = "net") {
        return ops.set_rrm_nbr_ap("wlan0", bssid, ssid, channel, 3, 4, 255, 77, custom);
    }

    const libhubd::MacAddr bssid = libhubd::MacAddr::from_str("00:1A:2b:3c:4d:5e");
    rtl8192cd_ioctl_ops ops{driver(), "wlan0"};
};

// --- MIBs ---

TEST_F(Rtl8192cdTest, SetsAMibAsOneText) {
    EXPECT_EQ(ops.set_mib("roam_attempt_timeout", "30", "ignored"), 0);
    const FakeKernel::Call call = kernel.calls().at(0);
    EXPECT_EQ(call.request, 0x89F1U);
    EXPECT_EQ(call.ifname, "wlan0");
    EXPECT_EQ(call.length, 24);
    EXPECT_EQ(call.data, (std::string{"roam_attempt_timeout=30\0", 24}));
    EXPECT_EQ(kernel.mib_text("wlan0", "roam_attempt_timeout"), "30");
}

TEST_F(Rtl8192cdTest, ReportsAMibThatCannotBeSet) {
    kernel.fail(FakeKernel::RTL8192CD_SET_MIB, EINVAL);
    EXPECT_EQ(ops.set_mib("name", "5", "wlan0"), -1);
    EXPECT_EQ(logged(R"(error: <set_mib:\d+> cannot set MIB parametr 'name=5')"
                     R"(\(errno = Invalid argument\)\(\))"),
              1);
}

TEST_F(Rtl8192cdTest, RefusesAMibTextThatTheRequestCannotMeasure) {
    EXPECT_EQ(ops.set_mib("n", std::string(65532, '1'), "wlan0"), 0);
    EXPECT_EQ(ops.set_mib("n", std::string(65533, '1'), "wlan0"), -1);
    EXPECT_EQ(kernel.calls().size(), 1U);
    EXPECT_TRUE(log.contains("Argument list too long"));
}

TEST_F(Rtl8192cdTest, WithoutASocketNoMibIsSetOrRead) {
    const NoSocket fault;
    ops.assign(driver(), "wlan0");
    std::int32_t value = 16;
    EXPECT_EQ(ops.set_mib("n", "1", "wlan0"), -1);
    EXPECT_EQ(ops.get_mib("n", std::as_writable_bytes(std::span{&value, 1}), "wlan0"), -1);
    EXPECT_EQ(value, 16);
    EXPECT_EQ(log.count("Bad file descriptor"), 2);
}

TEST_F(Rtl8192cdTest, ReadsAMibByItsName) {
    kernel.set_mib("wlan0", "chanspec", 0x1806);
    EXPECT_EQ(read_mib("chanspec"), kernel.interface("wlan0").mibs["chanspec"]);
    const FakeKernel::Call call = kernel.calls().at(0);
    EXPECT_EQ(call.request, 0x89F2U);
    EXPECT_EQ(call.length, 9);
    EXPECT_EQ(call.data, (std::string{"chanspec\0", 9}));
}

TEST_F(Rtl8192cdTest, ReadsAMibOfItsOwnInterfaceWhateverNameIsGiven) {
    kernel.set_mib("wlan0", "chanspec", 7);
    std::int32_t value = 0;
    EXPECT_EQ(ops.get_mib("chanspec", std::as_writable_bytes(std::span{&value, 1}), "wlan5"), 0);
    EXPECT_EQ(value, 7);
}

TEST_F(Rtl8192cdTest, CopiesNoMoreThanTheCallerTakes) {
    kernel.interface("wlan0").mibs["long"] = "abcdefgh";
    EXPECT_EQ(read_mib("long", 4), "abcd");
    EXPECT_EQ(read_mib("long", 0), "");
    EXPECT_EQ(read_mib("long", 10), "abcdefgh\xEE\xEE");
}

TEST_F(Rtl8192cdTest, ReadsNothingPastTheMibBufferForALengthBeyondIt) {
    kernel.interface("wlan0").mibs["x"] = "abcd";
    kernel.claim_mib_length(65535);
    const std::string value = read_mib("x", 70000);
    EXPECT_THAT(value, StartsWith("abcd"));
    EXPECT_EQ(value.substr(2048), std::string(70000 - 2048, '\xEE'));
}

TEST_F(Rtl8192cdTest, RefusesAnEndlessMibNameBeforeAnyRequest) {
    std::int32_t value = 1;
    const auto out = std::as_writable_bytes(std::span{&value, 1});
    EXPECT_EQ(ops.get_mib(std::string(2048, 'n'), out, "wlan0"), -1);
    EXPECT_THAT(kernel.calls(), IsEmpty());
    EXPECT_EQ(logged(R"(error: <get_mib:\d+> invalid parameter name: n{100}.*)"), 1);
    EXPECT_EQ(ops.get_mib(std::string(2047, 'n'), out, "wlan0"), -1);
    EXPECT_EQ(kernel.calls().at(0).length, 2048);
}

TEST_F(Rtl8192cdTest, ReportsAMibThatCannotBeRead) {
    std::int32_t value = 16;
    EXPECT_EQ(ops.get_mib("none", std::as_writable_bytes(std::span{&value, 1}), "wlan0"), -1);
    EXPECT_EQ(value, 16);
    EXPECT_EQ(logged(R"(error: <get_mib:\d+> cannot get MIB parametr 'none')"
                     R"(\(errno = \(22\)Invalid argument\)\(rc == -1\))"),
              1);
}

TEST_F(Rtl8192cdTest, ReadsTheTransmitPowerInUse) {
    kernel.set_mib("wlan0", "actual_tx_power", 21);
    std::int32_t value = 0;
    EXPECT_EQ(ops.get_actual_tx_power(std::as_writable_bytes(std::span{&value, 1}), "wlan0"), 0);
    EXPECT_EQ(value, 21);
}

TEST_F(Rtl8192cdTest, StartsAndStopsAnRrmScanThroughItsMib) {
    EXPECT_EQ(ops.start_rrm_scan(6, "wlan0"), 0);
    EXPECT_EQ(ops.stop_rrm_scan("wlan0"), 0);
    EXPECT_THAT(kernel.history(), ElementsAre("wlan0 set rrm_scan_chan=6", "wlan0 trigger",
                                              "wlan0 set rrm_scan_chan=0"));
}

TEST_F(Rtl8192cdTest, AnRrmScanThatStartsAndStopsLeavesNoLine) {
    const LogCapture fresh;
    EXPECT_EQ(ops.start_rrm_scan(6, "wlan0"), 0);
    EXPECT_EQ(ops.stop_rrm_scan("wlan0"), 0);
    EXPECT_THAT(fresh.lines(), IsEmpty());
}

TEST_F(Rtl8192cdTest, AnRrmScanWhoseChannelIsRefusedIsNoFailure) {
    kernel.fail(FakeKernel::RTL8192CD_SET_MIB, EINVAL);
    EXPECT_EQ(ops.start_rrm_scan(6, "wlan0"), 0);
    EXPECT_THAT(kernel.history(), ElementsAre("wlan0 set rrm_scan_chan=6"));
}

TEST_F(Rtl8192cdTest, TakesTheChannelBackWhenAnRrmScanCannotBeStarted) {
    kernel.fail(FakeKernel::SCAN_TRIGGER, EBUSY);
    EXPECT_EQ(ops.start_rrm_scan(6, "wlan0"), -1);
    EXPECT_EQ(kernel.mib_text("wlan0", "rrm_scan_chan"), "0");
    EXPECT_TRUE(log.contains("Device or resource busy"));
}

TEST_F(Rtl8192cdTest, ReportsAnRrmScanThatCannotBeStopped) {
    kernel.fail(FakeKernel::RTL8192CD_SET_MIB, EIO);
    EXPECT_EQ(ops.stop_rrm_scan("wlan0"), -1);
    EXPECT_EQ(logged(R"(error: <stop_rrm_scan:\d+> cannot stop RRM scanning)"), 1);
}

TEST_F(Rtl8192cdTest, SetsTheRoamAttemptTimeout) {
    EXPECT_EQ(ops.set_vexor_roam_attempt_timeout("wlan0", -5), 0);
    EXPECT_EQ(kernel.mib_text("wlan0", "roam_attempt_timeout"), "-5");
    kernel.fail(FakeKernel::RTL8192CD_SET_MIB, EIO);
    EXPECT_EQ(ops.set_vexor_roam_attempt_timeout("wlan0", 5), -1);
    EXPECT_EQ(logged(R"(error: <set_vexor_roam_attempt_timeout:\d+> cannot setup roam attempt )"
                     R"(timeout for iface wlan0)"),
              1);
}

// --- coexistence ---

TEST_F(Rtl8192cdTest, ReadsCoexistenceFromTheFirstLineThatTellsIt) {
    const std::vector<std::pair<std::string, bool>> entries = {
        {"  Make info about 11n\n    use40M: 1\n    coexist: 1\n", true},
        {"    coexist: 0\n", false},
        {"coexist: 0\ncoexist: 1\n", false},
        {"coexist 1\ncoexist: 1\n", true},  // the first has no ": "
        {"coexist:1\n", false},
        {"coexist: \n", false},
        {"coexist: -1", true},
        {"coexist: 99999999999999999999\n", true},
        {"coexist: on\n", false},
        {"other: 1\n", false},
        {"", false},
    };
    for (const auto& [text, on] : entries) {
        kernel.put_file("/proc/wlan0/mib_11n", text);
        EXPECT_EQ(ops.get_obss_coex("wlan0"), on) << text;
    }
    EXPECT_EQ(logged(R"(debug: <get_obss_coex:\d+> coexist == 1)"), 2);
}

TEST_F(Rtl8192cdTest, TheCoexistenceEntryOfAnotherFolderIsNotRead) {
    kernel.put_file("/proc/other/mib_11n", "    coexist: 1\n");
    EXPECT_FALSE(ops.get_obss_coex("wlan0/../other"));
    EXPECT_EQ(logged("(error|debug): <get_obss_coex:.*"), 1);
}

TEST_F(Rtl8192cdTest, ReportsAMissingCoexistenceEntry) {
    EXPECT_FALSE(ops.get_obss_coex("wlan0"));
    EXPECT_EQ(logged(R"(error: <get_obss_coex:\d+> cannot open procfs entry)"
                     R"(\(/proc/wlan0/mib_11n\))"),
              1);
    EXPECT_EQ(logged(R"(debug: <get_obss_coex:\d+> coexist == )"), 1);
}

// --- neighbours ---

TEST_F(Rtl8192cdTest, AddsANeighbourOfTheLowerBandAsHt) {
    EXPECT_EQ(add_neighbour(6, 0), 0);
    EXPECT_THAT(kernel.writes(), ElementsAre(FakeKernel::Written{
                                     "/proc/wlan0/rm_neighbor_report",
                                     "add 001a2b3c4d5e 0x0867 255 6 7 ssid \"net\" bssload 3 4"}));
}

TEST_F(Rtl8192cdTest, AddsANeighbourOfTheUpperBandAsVht) {
    EXPECT_EQ(add_neighbour(36, 0), 0);
    EXPECT_EQ(kernel.writes().at(0).content,
              "add 001a2b3c4d5e 0x1867 255 36 9 ssid \"net\" bssload 3 4");
}

TEST_F(Rtl8192cdTest, TheUpperBandBeginsAtChannel30) {
    add_neighbour(29, 0);
    add_neighbour(30, 0);
    EXPECT_THAT(kernel.writes().at(0).content, StartsWith("add 001a2b3c4d5e 0x0867 255 29 7"));
    EXPECT_THAT(kernel.writes().at(1).content, StartsWith("add 001a2b3c4d5e 0x1867 255 30 9"));
}

TEST_F(Rtl8192cdTest, AddsANeighbourToTheCustomList) {
    EXPECT_EQ(add_neighbour(6, 1), 0);
    EXPECT_EQ(kernel.writes().at(0).path, "/proc/wlan0/rm_neighbor_report_custom");
}

TEST_F(Rtl8192cdTest, AnyNumberButZeroMeansTheCustomList) {
    for (const int custom : {2, -1, 256}) {
        kernel.forget();
        EXPECT_EQ(add_neighbour(6, custom), 0);
        EXPECT_EQ(kernel.writes().at(0).path, "/proc/wlan0/rm_neighbor_report_custom");
    }
}

TEST_F(Rtl8192cdTest, CutsThePathOfANeighbourListAt63Characters) {
    const std::string ifname = "wlan0" + std::string(40, 'x');
    const std::string cut = ("/proc/" + ifname + "/rm_neighbor_report").substr(0, 63);
    kernel.add_interface(ifname);
    for (const int custom : {0, 1})
        EXPECT_EQ(ops.set_rrm_nbr_ap(ifname, bssid, "net", 6, 0, 0, 255, 0, custom), 0);
    EXPECT_EQ(ops.clear_rrm_nbr_ap_list(ifname), 0);
    EXPECT_EQ(ops.clear_vexor_nbr_ap_list(ifname), 0);
    EXPECT_EQ(kernel.writes().size(), 4U);
    for (const FakeKernel::Written& written : kernel.writes())
        EXPECT_EQ(written.path, cut);
}

TEST_F(Rtl8192cdTest, WritesTheWholeSsidOfANeighbour) {
    const std::string ssid = std::string(300, 's') + " $x `y` \"z\"";
    EXPECT_EQ(add_neighbour(6, 0, ssid), 0);
    EXPECT_EQ(kernel.writes().at(0).content,
              "add 001a2b3c4d5e 0x0867 255 6 7 ssid \"" + ssid + "\" bssload 3 4");
}

TEST_F(Rtl8192cdTest, RefusesAnSsidThatWouldBeginAnotherCommand) {
    EXPECT_EQ(add_neighbour(6, 0, "net\ndelall"), -1);
    EXPECT_EQ(add_neighbour(6, 0, "net\rdelall"), -1);
    EXPECT_THAT(kernel.writes(), IsEmpty());
    EXPECT_EQ(logged(R"(error: <set_rrm_nbr_ap:\d+> refused SSID with a line end on wlan0)"), 2);
}

TEST_F(Rtl8192cdTest, AnEntryThatDoesNotTakeANeighbourIsADebugLineAndNoFailure) {
    const NoRoom no_room;
    EXPECT_EQ(add_neighbour(6, 0), 0);
    EXPECT_EQ(errors(), 0);
    EXPECT_EQ(logged(R"(debug: <write_entry:\d+> cannot write procfs entry)"
                     R"(\(/proc/wlan0/rm_neighbor_report\))"),
              1);
    EXPECT_EQ(logged("Error rrm_nbr_add_nbr"), 0);
}

TEST_F(Rtl8192cdTest, MentionsALostNeighbourAtDebugLevel) {
    kernel.remove_interface("wlan0");
    EXPECT_EQ(add_neighbour(6, 0), -1);
    EXPECT_EQ(logged("debug: Error rrm_nbr_add_nbr"), 1);
    EXPECT_EQ(errors(), 0);
}

TEST_F(Rtl8192cdTest, ClearsEachNeighbourList) {
    EXPECT_EQ(ops.clear_rrm_nbr_ap_list("wlan0"), 0);
    EXPECT_EQ(ops.clear_vexor_nbr_ap_list("wlan0"), 0);
    EXPECT_THAT(
        kernel.writes(),
        ElementsAre(FakeKernel::Written{"/proc/wlan0/rm_neighbor_report", "delall"},
                    FakeKernel::Written{"/proc/wlan0/rm_neighbor_report_custom", "delall"}));
}

TEST_F(Rtl8192cdTest, MentionsAListThatCannotBeClearedAtDebugLevel) {
    kernel.remove_interface("wlan0");
    EXPECT_EQ(ops.clear_rrm_nbr_ap_list("wlan0"), -1);
    EXPECT_EQ(ops.clear_vexor_nbr_ap_list("wlan0"), -1);
    EXPECT_EQ(logged("debug: Error rrm_nbr_del_nbr"), 2);
}

TEST_F(Rtl8192cdTest, NeverLeavesTheInterfacesFolder) {
    for (const std::string& ifname : unsafe_texts::interface_names()) {
        const LogCapture fresh;
        EXPECT_EQ(ops.set_rrm_nbr_ap(ifname, bssid, "net", 6, 0, 0, 255, 0, 0), -1) << ifname;
        EXPECT_EQ(ops.clear_rrm_nbr_ap_list(ifname), -1) << ifname;
        EXPECT_EQ(ops.clear_vexor_nbr_ap_list(ifname), -1) << ifname;
        EXPECT_FALSE(ops.get_obss_coex(ifname)) << ifname;
        EXPECT_EQ(fresh.count("refused interface name"), 4) << ifname;
    }
    EXPECT_THAT(kernel.writes(), IsEmpty());
}

}  // namespace
