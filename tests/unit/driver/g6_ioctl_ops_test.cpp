#include "driver_fixture.h"
#include "platform-specific/driver_io.h"
#include "platform-specific/realtek_ioctl_ops_g6.h"
#include "unsafe_texts.h"

namespace {

using call_faults::NoPipe;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class G6Test : public DriverTest {
  protected:
    G6Test() { kernel.add_interface("wlan1"); }

    int get_mib(const std::string& name, std::int32_t& value) {
        return ops.get_mib(name, std::as_writable_bytes(std::span{&value, 1}), "wlan1");
    }
    // get_mib() fails and leaves the value alone.
    void expect_refused(const std::string& output) {
        tools.print("wlan1", "x", output);
        std::int32_t value = 16;
        EXPECT_EQ(get_mib("x", value), -1) << output;
        EXPECT_EQ(value, 16) << output;
    }
    int add_neighbour(int channel, int custom, const std::string& ssid = "net") {
        return ops.set_rrm_nbr_ap("wlan1", bssid, ssid, channel, 0, 0, 255, 77, custom);
    }

    const libhubd::MacAddr bssid = libhubd::MacAddr::from_str("00:1A:2b:3c:4d:5e");
    g6_ioctl_ops ops{driver(), "wlan1"};
};

// --- MIBs ---

TEST_F(G6Test, SetsAMibThroughTheTool) {
    EXPECT_EQ(ops.set_mib("rrm_scan_chan", "36", "wlan1"), 0);
    EXPECT_THAT(tools.lines(), ElementsAre("iwpriv wlan1 set_mib rrm_scan_chan=36"));
    EXPECT_THAT(kernel.calls(), IsEmpty());
}

TEST_F(G6Test, SettingAMibSucceedsWhateverHappened) {
    tools.remove_all();
    EXPECT_EQ(ops.set_mib("n", "1", "wlan1"), 0);
    const NoPipe fault;
    EXPECT_EQ(ops.set_mib("n", "1", "wlan1"), 0);
    EXPECT_EQ(errors(), 0);
}

TEST_F(G6Test, CutsACommandAt255Characters) {
    EXPECT_EQ(ops.set_mib("name", std::string(300, '7'), "wlan1"), 0);
    ASSERT_EQ(tools.lines().size(), 1U);
    EXPECT_EQ(tools.lines()[0].size(), 255U);
}

TEST_F(G6Test, NoUnsafeTextReachesAShellWhenAMibIsSet) {
    for (const std::string& text : unsafe_texts::shell_words()) {
        const LogCapture fresh;
        EXPECT_EQ(ops.set_mib(text, "1", "wlan1"), 0);
        EXPECT_EQ(ops.set_mib("n", text, "wlan1"), 0);
        EXPECT_EQ(fresh.count("error: <set_mib:"), 2) << text;
        EXPECT_EQ(fresh.count("> refused MIB parametr '"), 2) << text;
    }
    for (const std::string& ifname : unsafe_texts::interface_names()) {
        const LogCapture fresh;
        EXPECT_EQ(ops.set_mib("n", "1", ifname), 0);
        EXPECT_EQ(fresh.count("error: <set_mib:"), 1) << ifname;
    }
    EXPECT_THAT(tools.lines(), IsEmpty());
}

TEST_F(G6Test, ReadsAMibThroughTheTool) {
    tools.set_mib("wlan1", "chanspec", 0xd024);
    std::int32_t value = 0;
    EXPECT_EQ(get_mib("chanspec", value), 0);
    EXPECT_EQ(value, 0xd024);
    EXPECT_THAT(tools.lines(), ElementsAre("iwpriv wlan1 get_mib chanspec"));
}

TEST_F(G6Test, TakesZeroAndAWordThatOnlyBeginsWithTheName) {
    std::int32_t value = 16;
    tools.print("wlan1", "x", "wlan1: get_mib:0");
    EXPECT_EQ(get_mib("x", value), 0);
    EXPECT_EQ(value, 0);
    tools.print("wlan1", "x", "wlan1-va2\tget_mib:  7\n");
    EXPECT_EQ(get_mib("x", value), 0);
    EXPECT_EQ(value, 7);
}

TEST_F(G6Test, RefusesANegativeValue) {
    expect_refused("wlan1     get_mib:-1\n");
    EXPECT_EQ(logged(R"(error: <get_mib:\d+> cannot get MIB parametr 'x'\(errno = \(0\)Success\))"
                     R"(\(ret == 2\), mib_value -1)"),
              1);
}

TEST_F(G6Test, RefusesTheAnswerOfAnotherInterface) {
    expect_refused("wlan0     get_mib:5\n");
    EXPECT_EQ(logged(R"(error: <get_mib:\d+> .*\(ret == 2\), mib_value 5)"), 1);
    expect_refused("xwlan1    get_mib:5\n");
    expect_refused("wla       get_mib:5\n");
}

TEST_F(G6Test, RefusesATruncatedAnswer) {
    expect_refused("");
    EXPECT_EQ(logged(R"(error: <get_mib:\d+> .*\(ret == -1\), mib_value -1)"), 1);
    expect_refused("wlan1");
    expect_refused("wlan1     get_mi");
    expect_refused("wlan1     get_mib:");
    EXPECT_EQ(logged(R"(error: <get_mib:\d+> .*\(ret == 1\), mib_value -1)"), 3);
}

TEST_F(G6Test, RefusesGarbage) {
    expect_refused("wlan1     Interface doesn't accept private ioctl...\n");
    expect_refused("wlan1     get_mib:abc\n");
    expect_refused(std::string(5000, 'w'));
    expect_refused("wlan1" + std::string(500, 'x') + " get_mib:5");
    expect_refused(std::string(100000, '\0'));
    EXPECT_EQ(errors(), 5);
}

TEST_F(G6Test, AMissingToolMeansNoMib) {
    tools.remove_all();
    std::int32_t value = 16;
    EXPECT_EQ(get_mib("x", value), -1);
    EXPECT_EQ(value, 16);
    EXPECT_EQ(errors(), 1);
}

TEST_F(G6Test, APipeThatCannotBeOpenedMeansNoMib) {
    const NoPipe fault;
    std::int32_t value = 16;
    EXPECT_EQ(get_mib("x", value), -1);
    EXPECT_EQ(logged(R"(error: <get_mib:\d+> cannot get MIB parametr 'x'\(errno = )"
                     R"(\(24\)Too many open files\)\(ret == 0\), mib_value -1)"),
              1);
}

TEST_F(G6Test, NoUnsafeTextReachesAShellWhenAMibIsRead) {
    std::int32_t value = 16;
    const auto out = std::as_writable_bytes(std::span{&value, 1});
    for (const std::string& text : unsafe_texts::shell_words()) {
        const LogCapture fresh;
        EXPECT_EQ(ops.get_mib(text, out, "wlan1"), -1);
        EXPECT_EQ(fresh.count("error: <get_mib:"), 1) << text;
    }
    for (const std::string& ifname : unsafe_texts::interface_names())
        EXPECT_EQ(ops.get_mib("x", out, ifname), -1) << ifname;
    EXPECT_THAT(tools.lines(), IsEmpty());
    EXPECT_EQ(value, 16);
}

TEST_F(G6Test, CopiesNoMoreThanTheCallerTakes) {
    tools.set_mib("wlan1", "x", 5);
    std::array<std::byte, 8> out{};
    EXPECT_EQ(ops.get_mib("x", std::span{out}.first(0), "wlan1"), 0);
    EXPECT_EQ(ops.get_mib("x", std::span{out}.first(2), "wlan1"), 0);
    EXPECT_EQ(out[4], std::byte{0});
}

TEST_F(G6Test, AnEmptyAnswerBufferTakesNothing) {
    tools.set_mib("wlan1", "x", 5);
    EXPECT_EQ(ops.get_mib("x", {}, "wlan1"), 0);
}

TEST_F(G6Test, ReadsThePowerTarget) {
    tools.set_mib("wlan1", "power_target", 23);
    std::int32_t value = 0;
    EXPECT_EQ(ops.get_actual_tx_power(std::as_writable_bytes(std::span{&value, 1}), "wlan1"), 0);
    EXPECT_EQ(value, 23);
}

TEST_F(G6Test, StartsAndStopsAnRrmScanThroughTheTool) {
    EXPECT_EQ(ops.start_rrm_scan(36, "wlan1"), 0);
    EXPECT_EQ(ops.stop_rrm_scan("wlan1"), 0);
    EXPECT_THAT(tools.lines(), ElementsAre("iwpriv wlan1 set_mib rrm_scan_chan=36",
                                           "iwpriv wlan1 set_mib rrm_scan_chan=0"));
    EXPECT_THAT(kernel.history(), ElementsAre("wlan1 trigger"));
}

TEST_F(G6Test, TakesTheChannelBackWhenAnRrmScanCannotBeStarted) {
    kernel.fail(FakeKernel::SCAN_TRIGGER, EBUSY);
    EXPECT_EQ(ops.start_rrm_scan(36, "wlan1"), -1);
    EXPECT_THAT(tools.lines(), ElementsAre("iwpriv wlan1 set_mib rrm_scan_chan=36",
                                           "iwpriv wlan1 set_mib rrm_scan_chan=0"));
}

TEST_F(G6Test, SetsTheRoamAttemptTimeout) {
    EXPECT_EQ(ops.set_vexor_roam_attempt_timeout("wlan1-va2", 30), 0);
    EXPECT_THAT(tools.lines(), ElementsAre("iwpriv wlan1-va2 set_mib roam_attempt_timeout=30"));
}

// --- coexistence ---

TEST_F(G6Test, ReadsCoexistenceFromItsEntry) {
    const std::vector<std::pair<std::string, bool>> entries = {
        {"1\n", true}, {"0\n", false}, {" 2", true}, {"-1\n", false}};
    for (const auto& [text, on] : entries) {
        kernel.put_file("/proc/net/rtk_wifi6/wlan1/coex_2g_40m", text);
        EXPECT_EQ(ops.get_obss_coex("wlan1"), on) << text;
    }
    EXPECT_EQ(logged(R"(debug: <get_obss_coex:\d+> get OBSS parametr, obss_value 2)"), 1);
}

TEST_F(G6Test, NamesTheErrorOfACoexistenceEntryThatOpensButDoesNotRead) {
    kernel.put_file("/proc/net/rtk_wifi6/wlan1/coex_2g_40m/inner", "");
    EXPECT_FALSE(ops.get_obss_coex("wlan1"));
    EXPECT_EQ(logged(R"(error: <get_obss_coex:\d+> cannot get OBSS parametr \(errno = )"
                     R"(\(21\)Is a directory\)\(ret == -1\), obss_value -1)"),
              1);
}

TEST_F(G6Test, ReportsACoexistenceEntryThatCannotBeRead) {
    EXPECT_FALSE(ops.get_obss_coex("wlan1"));
    EXPECT_EQ(logged(R"(error: <get_obss_coex:\d+> cannot get OBSS parametr \(errno = )"
                     R"(\(2\)No such file or directory\)\(ret == 0\), obss_value -1)"),
              1);
    kernel.put_file("/proc/net/rtk_wifi6/wlan1/coex_2g_40m", "on");
    EXPECT_FALSE(ops.get_obss_coex("wlan1"));
    kernel.put_file("/proc/net/rtk_wifi6/wlan1/coex_2g_40m", "");
    EXPECT_FALSE(ops.get_obss_coex("wlan1"));
    EXPECT_EQ(logged(R"(error: <get_obss_coex:\d+> .*\(ret == -1\), obss_value -1)"), 1);
    EXPECT_EQ(log.count("debug: "), 0);
}

TEST_F(G6Test, ACoexistenceEntryWithoutANumberIsNoErrorOfTheKernel) {
    kernel.put_file("/proc/net/rtk_wifi6/wlan1/coex_2g_40m", "on");
    errno = EIO;
    EXPECT_FALSE(ops.get_obss_coex("wlan1"));
    EXPECT_EQ(logged(R"(error: <get_obss_coex:\d+> cannot get OBSS parametr \(errno = )"
                     R"(\(0\)Success\)\(ret == 0\), obss_value -1)"),
              1);
}

TEST_F(G6Test, ANeighbourThatIsAddedLeavesNoLine) {
    tools.set_mib("wlan1", "use40M", 1);
    tools.set_mib("wlan1", "2ndchoffset", 2);
    const LogCapture fresh;
    EXPECT_EQ(add_neighbour(6, 0), 0);
    EXPECT_THAT(fresh.lines(), IsEmpty());
}

TEST_F(G6Test, EveryLetterAndDigitMayStandInAnInterfaceName) {
    for (const char c :
         std::string{"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"})
        EXPECT_TRUE(driver_io::is_interface_name(std::string{c})) << c;
}

TEST_F(G6Test, TheCoexistenceEntryOfAnotherFolderIsNotRead) {
    kernel.put_file("/proc/net/coex_2g_40m", "1");
    EXPECT_FALSE(ops.get_obss_coex(".."));
    EXPECT_EQ(logged("error: .*"), 1);
}

// --- neighbours ---

TEST_F(G6Test, AddsANeighbourOfTheLowerBand) {
    tools.set_mib("wlan1", "use40M", 1);
    tools.set_mib("wlan1", "2ndchoffset", 2);
    EXPECT_EQ(add_neighbour(6, 0), 0);
    EXPECT_THAT(tools.lines(),
                ElementsAre("iwpriv wlan1 get_mib use40M", "iwpriv wlan1 get_mib 2ndchoffset",
                            "wpa_cli -g /var/run/hostapd/global raw IFNAME=wlan1 SET_NEIGHBOR "
                            "00:1a:2b:3c:4d:5e ssid=6e6574 "
                            "nr=001a2b3c4d5eaf490000ff06070603010602"));
    EXPECT_THAT(kernel.writes(),
                ElementsAre(FakeKernel::Written{"/proc/net/rtk_wifi6/wlan1/nb_report",
                                                "add 00:1a:2b:3c:4d:5e 1728577536 0 6 0 77"}));
}

TEST_F(G6Test, AddsANeighbourOfTheUpperBand) {
    EXPECT_EQ(add_neighbour(36, 0), 0);
    EXPECT_EQ(tools.lines().back(),
              "wpa_cli -g /var/run/hostapd/global raw IFNAME=wlan1 SET_NEIGHBOR "
              "00:1a:2b:3c:4d:5e ssid=6e6574 nr=001a2b3c4d5eaf590000ff24090603002400");
    EXPECT_EQ(kernel.writes().at(0).content, "add 00:1a:2b:3c:4d:5e 1728577536 0 36 0 77");
}

TEST_F(G6Test, AddsANeighbourToTheCustomList) {
    EXPECT_EQ(add_neighbour(36, 1), 0);
    EXPECT_EQ(kernel.writes().at(0).path, "/proc/net/rtk_wifi6/wlan1/nb_report_custom");
}

TEST_F(G6Test, AnyNumberButZeroMeansTheCustomList) {
    for (const int custom : {2, -1, 256}) {
        kernel.forget();
        EXPECT_EQ(add_neighbour(36, custom), 0);
        EXPECT_EQ(kernel.writes().at(0).path, "/proc/net/rtk_wifi6/wlan1/nb_report_custom");
    }
}

TEST_F(G6Test, CutsThePathOfANeighbourListAt63Characters) {
    const std::string ifname = "wlan1" + std::string(33, 'x');
    const std::string cut = ("/proc/net/rtk_wifi6/" + ifname + "/nb_report").substr(0, 63);
    kernel.add_interface(ifname);
    for (const int custom : {0, 1})
        EXPECT_EQ(ops.set_rrm_nbr_ap(ifname, bssid, "net", 36, 0, 0, 255, 0, custom), 0);
    EXPECT_EQ(ops.clear_rrm_nbr_ap_list(ifname), 0);
    EXPECT_EQ(ops.clear_vexor_nbr_ap_list(ifname), 0);
    EXPECT_EQ(kernel.writes().size(), 4U);
    for (const FakeKernel::Written& written : kernel.writes())
        EXPECT_EQ(written.path, cut);
}

TEST_F(G6Test, GivesAnySsidToTheToolAsHex) {
    const std::string ssid = "a b\"'`$(x);|&\n\xc3\xa9";
    EXPECT_EQ(add_neighbour(36, 0, ssid), 0);
    EXPECT_THAT(tools.lines().back(),
                ::testing::HasSubstr(" ssid=612062222760242878293b7c260ac3a9 "));
}

TEST_F(G6Test, CutsTheToolsCommandAt1023Characters) {
    EXPECT_EQ(add_neighbour(36, 0, std::string(600, 's')), 0);
    EXPECT_EQ(tools.lines().back().size(), 1023U);
}

TEST_F(G6Test, AMissingToolDoesNotEndTheProcess) {
    tools.remove_all();
    EXPECT_EQ(add_neighbour(36, 0), 0);
    EXPECT_EQ(kernel.writes().size(), 1U);
    EXPECT_EQ(ops.clear_rrm_nbr_ap_list("wlan1"), 0);
}

TEST_F(G6Test, WithoutAPipeNothingIsAdded) {
    const NoPipe fault;
    EXPECT_EQ(add_neighbour(36, 0), -1);
    EXPECT_EQ(logged("debug: Error rrm_nbr_add_nbr"), 1);
    EXPECT_THAT(kernel.writes(), IsEmpty());
}

TEST_F(G6Test, MentionsALostNeighbourAtDebugLevel) {
    kernel.remove_interface("wlan1");
    EXPECT_EQ(add_neighbour(36, 0), -1);
    EXPECT_EQ(logged("debug: Error rrm_nbr_add_nbr"), 1);
}

TEST_F(G6Test, ClearsTheNeighbourListOfHostapdAndDriver) {
    EXPECT_EQ(ops.clear_rrm_nbr_ap_list("wlan1-va1"), -1);  // no such entry
    kernel.add_interface("wlan1-va1");
    EXPECT_EQ(ops.clear_rrm_nbr_ap_list("wlan1-va1"), 0);
    EXPECT_EQ(tools.lines().back(),
              "wpa_cli -g /var/run/hostapd/global raw IFNAME=wlan1-va1 REMOVE_ALL_NEIGHBOR");
    EXPECT_THAT(kernel.writes(), ElementsAre(FakeKernel::Written{
                                     "/proc/net/rtk_wifi6/wlan1-va1/nb_report", "delall"}));
    EXPECT_EQ(logged("debug: Error rrm_nbr_del_nbr"), 1);
}

TEST_F(G6Test, WithoutAPipeNothingIsCleared) {
    const NoPipe fault;
    EXPECT_EQ(ops.clear_rrm_nbr_ap_list("wlan1"), -1);
    EXPECT_EQ(logged("debug: Error rrm_nbr_add_nbr"), 1);
    EXPECT_THAT(kernel.writes(), IsEmpty());
}

TEST_F(G6Test, ClearsTheCustomListInTheDriverAlone) {
    EXPECT_EQ(ops.clear_vexor_nbr_ap_list("wlan1"), 0);
    EXPECT_THAT(kernel.writes(), ElementsAre(FakeKernel::Written{
                                     "/proc/net/rtk_wifi6/wlan1/nb_report_custom", "delall"}));
    EXPECT_THAT(tools.lines(), IsEmpty());
    kernel.remove_interface("wlan1");
    EXPECT_EQ(ops.clear_vexor_nbr_ap_list("wlan1"), -1);
    EXPECT_EQ(logged("debug: Error rrm_nbr_del_nbr"), 1);
}

TEST_F(G6Test, NoUnsafeInterfaceNameReachesAShellOrAPath) {
    for (const std::string& ifname : unsafe_texts::interface_names()) {
        const LogCapture fresh;
        EXPECT_EQ(ops.set_rrm_nbr_ap(ifname, bssid, "net", 36, 0, 0, 255, 0, 0), -1) << ifname;
        EXPECT_EQ(ops.clear_rrm_nbr_ap_list(ifname), -1) << ifname;
        EXPECT_EQ(ops.clear_vexor_nbr_ap_list(ifname), -1) << ifname;
        EXPECT_FALSE(ops.get_obss_coex(ifname)) << ifname;
        EXPECT_EQ(fresh.count("refused interface name"), 4) << ifname;
    }
    EXPECT_THAT(tools.lines(), IsEmpty());
    EXPECT_THAT(kernel.writes(), IsEmpty());
}

}  // namespace
