// What both chip families do alike: everything that goes through the vendor command channel.
#include "platform-specific/realtek_ioctl_ops.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "driver_fixture.h"
#include "platform-specific/ioctl_ops_factory.h"
#include "platform-specific/realtek_ioctl_ops_g6.h"
#include "platform-specific/realtek_ioctl_ops_rtl8192cd.h"
#include "platform-specific/rrm_sta_realtek.h"

namespace {

using call_faults::NoMemory;
using call_faults::NoSocket;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr std::uint32_t far_beyond = 0xFFFFFFFF;
constexpr std::size_t fitting_neighbours = 4680;
constexpr std::size_t fitting_stations = 4680;
constexpr std::size_t fitting_channels = 32765;
constexpr std::size_t fitting_scan_channels = 65531;

// Bytes of a record in host byte order.
class Bytes {
  public:
    Bytes& word(std::uint32_t value) { return add(value); }
    Bytes& half(std::uint16_t value) { return add(value); }
    [[nodiscard]] const std::string& str() const { return text_; }

  private:
    template <typename T>
    Bytes& add(T value) {
        text_.append(reinterpret_cast<const char*>(&value), sizeof value);
        return *this;
    }
    std::string text_;
};

bool all_zero(const std::string& text) {
    return text.find_first_not_of('\0') == std::string::npos;
}

template <typename Ops>
struct Family;
template <>
struct Family<rtl8192cd_ioctl_ops> {
    static constexpr unsigned long vexor = FakeKernel::RTL8192CD_VEXOR;
    static constexpr unsigned long bsstrans = FakeKernel::RTL8192CD_BSSTRANS;
};
template <>
struct Family<g6_ioctl_ops> {
    static constexpr unsigned long vexor = FakeKernel::G6_VEXOR;
    static constexpr unsigned long bsstrans = FakeKernel::G6_BSSTRANS;
};

template <typename Ops>
class BothFamilies : public DriverTest {
  protected:
    BothFamilies() { kernel.add_interface("wlan0"); }

    FakeKernel::Interface& radio() { return kernel.interface("wlan0"); }

    // The one vendor command that was issued.
    FakeKernel::Call sent() {
        const std::vector<FakeKernel::Call> calls = kernel.calls();
        EXPECT_EQ(calls.size(), 1U);
        EXPECT_EQ(calls.at(0).request, Family<Ops>::vexor);
        EXPECT_EQ(calls.at(0).ifname, "wlan0");
        EXPECT_EQ(calls.at(0).length, 0xFFFE);
        return calls.at(0);
    }

    // The command carried these bytes and nothing behind them.
    void expect_record(const Bytes& bytes) {
        const std::string data = sent().data;
        EXPECT_EQ(data.substr(0, bytes.str().size()), bytes.str());
        EXPECT_TRUE(all_zero(data.substr(bytes.str().size())));
    }

    [[nodiscard]] static Ops without_socket(const driver_realtek& owner) {
        const NoSocket fault;
        return Ops{owner, "wlan0"};
    }

    Ops ops{this->driver(), "wlan0"};
};

using Families = ::testing::Types<rtl8192cd_ioctl_ops, g6_ioctl_ops>;
TYPED_TEST_SUITE(BothFamilies, Families);

// --- the socket ---

TYPED_TEST(BothFamilies, IsReadyWithASocket) {
    EXPECT_TRUE(this->ops.is_ready());
    this->ops.reset();
    EXPECT_FALSE(this->ops.is_ready());
    EXPECT_EQ(this->ops.assign(this->driver(), "wlan0"), 0);
    EXPECT_TRUE(this->ops.is_ready());
}

// For its duration the standard input is closed, so that the next descriptor is 0.
class WithoutStandardInput {
  public:
    WithoutStandardInput() : kept_(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)) { close(STDIN_FILENO); }
    ~WithoutStandardInput() {
        dup2(kept_, STDIN_FILENO);
        close(kept_);
    }
    WithoutStandardInput(const WithoutStandardInput&) = delete;
    WithoutStandardInput& operator=(const WithoutStandardInput&) = delete;
    [[nodiscard]] static bool is_free() { return fcntl(STDIN_FILENO, F_GETFD) == -1; }

  private:
    int kept_;
};

TYPED_TEST(BothFamilies, ASocketMayHaveTheDescriptor0) {
    const WithoutStandardInput closed;
    TypeParam other{this->driver(), "wlan0"};
    EXPECT_FALSE(closed.is_free());
    EXPECT_TRUE(other.is_ready());
    EXPECT_EQ(other.stop_scan(), 0);
    EXPECT_EQ(other.assign(this->driver(), "wlan0"), 0);
    EXPECT_EQ(this->errors(), 0);
    other.reset();
    EXPECT_TRUE(closed.is_free());
}

TYPED_TEST(BothFamilies, TheSocketOfAMoveMayHaveTheDescriptor0) {
    const WithoutStandardInput closed;
    EXPECT_EQ(this->ops.send_bsstrans_request("wlan0", "001a2b3c4d5e", 0), 0);
    EXPECT_EQ(this->kernel.calls().size(), 1U);
    EXPECT_TRUE(closed.is_free());
}

TYPED_TEST(BothFamilies, ReportsASocketThatCannotBeOpened) {
    const NoSocket fault;
    EXPECT_EQ(this->ops.assign(this->driver(), "wlan0"), -1);
    EXPECT_FALSE(this->ops.is_ready());
    EXPECT_EQ(this->logged(R"(error: <assign:\d+> cannot create socket for the ioctl )"
                           R"(call\(errno = Too many open files\))"),
              1);
}

TYPED_TEST(BothFamilies, ACommandWithoutSocketAnswersMinusTwoWithoutAllocating) {
    TypeParam other = this->without_socket(this->driver());
    const NoMemory fault;  // would turn the answer into -1
    EXPECT_EQ(other.stop_scan(), -2);
    EXPECT_EQ(this->logged(R"(warning: <execute:\d+> socket is not created for action by ioctl)"),
              1);
    EXPECT_THAT(this->kernel.calls(), IsEmpty());
}

// Domain, type and protocol of each socket that is open.
std::vector<std::array<int, 3>> open_sockets() {
    std::vector<std::array<int, 3>> result;
    for (const auto& entry : std::filesystem::directory_iterator{"/proc/self/fd"}) {
        const int fd = std::stoi(entry.path().filename());
        std::array<int, 3> kind{-1, -1, -1};
        std::size_t answers = 0;
        for (const int option : {SO_DOMAIN, SO_TYPE, SO_PROTOCOL}) {
            socklen_t length = sizeof kind[answers];
            if (getsockopt(fd, SOL_SOCKET, option, &kind[answers], &length) == 0)
                ++answers;
        }
        if (answers == kind.size())
            result.push_back(kind);
    }
    return result;
}

long open_datagram_sockets() {
    const std::vector<std::array<int, 3>> all = open_sockets();
    return std::count(all.begin(), all.end(), std::array<int, 3>{AF_INET, SOCK_DGRAM, IPPROTO_UDP});
}

TYPED_TEST(BothFamilies, ItsSocketIsADatagramSocket) {
    const auto before = open_datagram_sockets();
    const TypeParam other{this->driver(), "wlan0"};
    EXPECT_EQ(open_datagram_sockets(), before + 1);
}

TYPED_TEST(BothFamilies, AMoveHasADatagramSocketOfItsOwn) {
    const auto before = open_datagram_sockets();
    auto during = before;
    this->kernel.watch([&](const std::string&) { during = open_datagram_sockets(); });
    this->ops.send_bsstrans_request("wlan0", "001a2b3c4d5e", 0);
    this->kernel.watch({});
    EXPECT_EQ(during, before + 1);
    EXPECT_EQ(open_datagram_sockets(), before);
}

TYPED_TEST(BothFamilies, CanBePointedAtAnotherInterface) {
    this->kernel.add_interface("wlan0-va3");
    EXPECT_EQ(this->ops.assign(this->driver(), "wlan0-va3"), 0);
    EXPECT_EQ(this->ops.stop_scan(), 0);
    EXPECT_EQ(this->kernel.calls().at(0).ifname, "wlan0-va3");
}

TYPED_TEST(BothFamilies, CutsAnInterfaceNameThatIsTooLong) {
    this->ops.assign(this->driver(), std::string(300, 'w'));
    EXPECT_EQ(this->ops.stop_scan(), -1);
    EXPECT_EQ(this->kernel.calls().at(0).ifname, std::string(15, 'w'));
}

// --- execute ---

TYPED_TEST(BothFamilies, ReportsACommandThatFails) {
    this->kernel.fail(Family<TypeParam>::vexor, EPERM);
    EXPECT_EQ(this->ops.stop_scan(), -1);
    EXPECT_EQ(this->logged(R"(error: <execute:\d+> cannot execute command\(errno = Operation not )"
                           R"(permitted\)\(command = VEXOR_CMD_CUSTOM_SCAN_STOP\))"),
              1);
}

TYPED_TEST(BothFamilies, NamesACommandThatFailsAndCallsACodeBeyondTheLastUnknown) {
    const std::vector<std::string> names = {"VEXOR_CMD_CUSTOM_SCAN",
                                            "VEXOR_CMD_CUSTOM_SCAN_STOP",
                                            "VEXOR_CMD_CUSTOM_SCAN_RESULTS",
                                            "VEXOR_CMD_RRM_SCAN_RESULTS",
                                            "VEXOR_CMD_GET_ASSOC_STAS",
                                            "VEXOR_CMD_GET_AVAILABLE_CHANNELS",
                                            "VEXOR_CMD_GET_DETAILS_PMKID",
                                            "VEXOR_CMD_MAX",
                                            "UNKNOWN",
                                            "UNKNOWN"};
    this->kernel.fail(Family<TypeParam>::vexor, EINVAL);
    for (std::uint32_t code = 0; code < names.size(); ++code) {
        const LogCapture fresh;
        EXPECT_EQ(this->ops.execute(
                      static_cast<vexor_cmd_s>(code), [](vexor_command&, int, unsigned) {},
                      [] { FAIL() << "parsed a failure"; }),
                  -1);
        EXPECT_TRUE(fresh.contains("(command = " + names[code] + ")"));
    }
}

TYPED_TEST(BothFamilies, HandsTheFillerAZeroedRecord) {
    this->kernel.set_mib("wlan0", "x", 1);
    bool filled = false;
    bool parsed = false;
    const auto filler = [&](vexor_command& record, int factor, unsigned size) {
        filled = true;
        EXPECT_EQ(record.cmd, 1U);
        EXPECT_EQ(factor, 2);
        EXPECT_EQ(size, 131070U);
        EXPECT_EQ(record.array.size, 0U);
    };
    EXPECT_EQ(this->ops.execute(VEXOR_CMD_CUSTOM_SCAN_STOP, filler, [&] { parsed = true; }), 0);
    EXPECT_TRUE(filled);
    EXPECT_TRUE(parsed);
}

TYPED_TEST(BothFamilies, ReportsThatThereIsNoMemory) {
    const NoMemory fault;
    EXPECT_EQ(this->ops.stop_scan(), -1);
    EXPECT_EQ(this->logged(R"(error: <execute:\d+> cannot allocate memory for the Vexor command )"
                           R"(structure\(errno = Cannot allocate memory\))"),
              1);
    EXPECT_THAT(this->kernel.calls(), IsEmpty());
}

// --- scans ---

TYPED_TEST(BothFamilies, StartsAScanOfChannelsInAscendingOrder) {
    EXPECT_EQ(this->ops.start_scan({149, 1, 36, 6}), 0);
    this->expect_record(Bytes{}.word(0).word(4).half(1).half(6).half(36).half(149));
    EXPECT_THAT(this->radio().scanning, ElementsAre(1, 6, 36, 149));
}

TYPED_TEST(BothFamilies, StartsAScanOfAllChannelsByACountOfZero) {
    EXPECT_EQ(this->ops.start_scan({}), 0);
    this->expect_record(Bytes{}.word(0).word(0));
}

TYPED_TEST(BothFamilies, CarriesTheLow16BitsOfAChannelNumberInTheOrderOfTheNumbers) {
    EXPECT_EQ(this->ops.start_scan({11, 65535, 65536, 70000, 4000000000}), 0);
    this->expect_record(
        Bytes{}.word(0).word(5).half(11).half(65535).half(0).half(4464).half(10240));
    EXPECT_EQ(this->errors(), 0);
}

TYPED_TEST(BothFamilies, AChannelNumberBeyond16BitsNeverAsksForAllChannels) {
    EXPECT_EQ(this->ops.start_scan({70000}), 0);
    this->expect_record(Bytes{}.word(0).word(1).half(4464));
}

TYPED_TEST(BothFamilies, SendsAsManyChannelsAsTheCommandHolds) {
    std::set<unsigned> channels;
    for (unsigned channel = 0; channel <= 65535; ++channel)
        channels.insert(channel);
    EXPECT_EQ(this->ops.start_scan(channels), 0);
    EXPECT_EQ(this->radio().scanning.size(), fitting_scan_channels);
    EXPECT_EQ(this->radio().scanning.back(), fitting_scan_channels - 1);
    EXPECT_EQ(this->logged(R"(error: <start_scan:\d+> 5 of 65536 channels do not fit .*)"), 1);
}

TYPED_TEST(BothFamilies, SaysNothingWhenEveryChannelFits) {
    std::set<unsigned> channels;
    for (unsigned channel = 0; channel < fitting_scan_channels; ++channel)
        channels.insert(channel);
    EXPECT_EQ(this->ops.start_scan(channels), 0);
    EXPECT_EQ(this->radio().scanning.size(), fitting_scan_channels);
    EXPECT_EQ(this->errors(), 0);
}

TYPED_TEST(BothFamilies, StopsAScan) {
    this->radio().scan_runs = true;
    EXPECT_EQ(this->ops.stop_scan(), 0);
    EXPECT_FALSE(this->radio().scan_runs);
    this->expect_record(Bytes{}.word(1));
}

TYPED_TEST(BothFamilies, AnnouncesTwiceTheRoomForResults) {
    ap_table table;
    this->ops.get_scan_result(table);
    this->expect_record(Bytes{}.word(2).word(9360));
    this->kernel.forget();
    this->ops.get_rrm_scan_result(table);
    this->expect_record(Bytes{}.word(3).word(9360));
    this->kernel.forget();
    std::vector<rrm_sta_realtek> stations;
    this->ops.get_assoc_sta(stations);
    this->expect_record(Bytes{}.word(4).word(0).word(9360));
    this->kernel.forget();
    std::set<unsigned> channels;
    this->ops.get_available_channels(channels);
    this->expect_record(Bytes{}.word(5).word(65526));
}

TYPED_TEST(BothFamilies, AppendsWhatTheGenericScanHeard) {
    this->radio().heard = {{{0, 0x1a, 2, 3, 4, 5}, -61, 6, 40, 80, 0x1906},
                           {{6, 7, 8, 9, 10, 11}, -90, 11, 20, 0, 0x100B}};
    ap_table table(1);
    EXPECT_EQ(this->ops.get_scan_result(table), 0);
    ASSERT_EQ(table.size(), 3U);
    EXPECT_THAT(table[1].bssid, ElementsAre(0, 0x1a, 2, 3, 4, 5));
    EXPECT_EQ(table[1].signal, -61);
    EXPECT_EQ(table[1].channel, 6);
    EXPECT_EQ(table[1].bw, 40);
    EXPECT_EQ(table[1].tx_power, 0);
    EXPECT_EQ(table[1].primary_channel, 0x100);
    EXPECT_EQ(table[2].channel, 11);
    EXPECT_THAT(table[2].bssid, ElementsAre(6, 7, 8, 9, 10, 11));
}

TYPED_TEST(BothFamilies, KeepsTheThreeBitsOfTheControlSubBand) {
    for (const int bits : {0x100, 0x200, 0x400, 0x700}) {
        const auto chanspec = static_cast<std::uint16_t>(0xF8FF | bits);
        this->radio().heard = {{{}, -50, 6, 20, 0, chanspec}};
        this->radio().rrm_heard = this->radio().heard;
        ap_table table;
        this->ops.get_scan_result(table);
        this->ops.get_rrm_scan_result(table);
        ASSERT_EQ(table.size(), 2U);
        EXPECT_EQ(table[0].primary_channel, bits);
        EXPECT_EQ(table[1].primary_channel, bits);
    }
}

TYPED_TEST(BothFamilies, TakesChannelAndBandwidthOfAnRrmScanFromTheChanspec) {
    this->radio().rrm_heard = {{{0, 1, 2, 3, 4, 5}, -50, 1, 2, -7, 0xC000 | 0x2000 | 0x300 | 42}};
    ap_table table;
    EXPECT_EQ(this->ops.get_rrm_scan_result(table), 0);
    ASSERT_EQ(table.size(), 1U);
    EXPECT_THAT(table[0].bssid, ElementsAre(0, 1, 2, 3, 4, 5));
    EXPECT_EQ(table[0].signal, -50);
    EXPECT_EQ(table[0].channel, 48);
    EXPECT_EQ(table[0].bw, 80);
    EXPECT_EQ(table[0].tx_power, -1);  // quarter dB, truncated toward zero
    EXPECT_EQ(table[0].primary_channel, 0x300);
}

TYPED_TEST(BothFamilies, KeepsTheTableWhenAScanHeardNobody) {
    ap_table table(2);
    EXPECT_EQ(this->ops.get_scan_result(table), 0);
    EXPECT_EQ(this->ops.get_rrm_scan_result(table), 0);
    EXPECT_EQ(table.size(), 2U);
    EXPECT_EQ(this->logged(R"(info: <parse_scan_result:\d+> scanning result are absent)"), 1);
    EXPECT_EQ(this->logged(R"(info: <parse_rrm_scan_result:\d+> rrm scanning result are absent)"),
              1);
}

TYPED_TEST(BothFamilies, KeepsTheTableWhenTheResultCannotBeRead) {
    this->kernel.fail(Family<TypeParam>::vexor, ETIMEDOUT);
    this->radio().heard.resize(3);
    ap_table table(2);
    EXPECT_EQ(this->ops.get_scan_result(table), -1);
    EXPECT_EQ(this->ops.get_rrm_scan_result(table), -1);
    EXPECT_EQ(table.size(), 2U);
}

TYPED_TEST(BothFamilies, ReadsAsManyNeighboursAsTheBufferHolds) {
    this->radio().heard.resize(10000);
    this->radio().heard[fitting_neighbours - 1].signal = -77;
    ap_table table;
    EXPECT_EQ(this->ops.get_scan_result(table), 0);
    ASSERT_EQ(table.size(), fitting_neighbours);
    EXPECT_EQ(table.back().signal, -77);
    EXPECT_EQ(this->errors(), 0);
}

TYPED_TEST(BothFamilies, ClampsACountOfNeighboursThatTheBufferCannotHold) {
    for (const std::uint32_t count : {4681U, 9360U, 65536U, 65535U, far_beyond}) {
        const LogCapture fresh{1};
        this->kernel.claim_count(FakeKernel::CUSTOM_SCAN_RESULTS, count);
        this->kernel.claim_count(FakeKernel::RRM_SCAN_RESULTS, count);
        ap_table table;
        EXPECT_EQ(this->ops.get_scan_result(table), 0);
        EXPECT_EQ(table.size(), fitting_neighbours);
        EXPECT_EQ(fresh.count("error: <parse_scan_result:"), 1);
        this->ops.get_rrm_scan_result(table);
        EXPECT_EQ(table.size(), 2 * fitting_neighbours);
        EXPECT_EQ(fresh.count("error: <parse_rrm_scan_result:"), 1);
        EXPECT_EQ(fresh.count("> " + std::to_string(count) +
                              " entries are reported, the command buffer holds 4680"),
                  2);
    }
}

// --- RRM scans ---

TYPED_TEST(BothFamilies, AnRrmScanWithoutSocketAnswersMinusTwo) {
    TypeParam other = this->without_socket(this->driver());
    EXPECT_EQ(other.start_rrm_scan(6, "wlan0"), -2);
    EXPECT_EQ(
        this->logged(R"(warning: <start_rrm_scan:\d+> socket is not created for action by ioctl)"),
        1);
    const LogCapture fresh;
    EXPECT_EQ(other.stop_rrm_scan("wlan0"), -2);
    EXPECT_THAT(fresh.lines(), IsEmpty());
    EXPECT_THAT(this->kernel.calls(), IsEmpty());
    EXPECT_THAT(this->tools.lines(), IsEmpty());
}

TYPED_TEST(BothFamilies, TriggersAnRrmScanWithNoData) {
    EXPECT_EQ(this->ops.start_rrm_scan(6, "wlan0"), 0);
    const FakeKernel::Call last = this->kernel.calls().back();
    EXPECT_EQ(last.request, FakeKernel::SCAN_TRIGGER);
    EXPECT_EQ(last.ifname, "wlan0");
    EXPECT_TRUE(last.without_data);
    EXPECT_EQ(last.length, 0);
}

TYPED_TEST(BothFamilies, ReportsAnRrmScanThatCannotBeStarted) {
    this->kernel.fail(FakeKernel::SCAN_TRIGGER, EBUSY);
    EXPECT_EQ(this->ops.start_rrm_scan(6, "wlan0"), -1);
    EXPECT_EQ(this->logged(R"(error: <start_rrm_scan:\d+> cannot start RRM scanning)"
                           R"(\(errno = Device or resource busy\))"),
              1);
}

// --- channels ---

TYPED_TEST(BothFamilies, InsertsTheAvailableChannels) {
    this->radio().channels = {36, 1, 6, 36};
    std::set<unsigned> channels = {165};
    EXPECT_EQ(this->ops.get_available_channels(channels), 0);
    EXPECT_THAT(channels, ElementsAre(1, 6, 36, 165));
}

TYPED_TEST(BothFamilies, ReportsThatThereAreNoAvailableChannels) {
    std::set<unsigned> channels;
    EXPECT_EQ(this->ops.get_available_channels(channels), 0);
    EXPECT_THAT(channels, IsEmpty());
    EXPECT_EQ(this->logged(R"(error: <parse_available_channels:\d+> available channels data are )"
                           R"(absent)"),
              1);
}

TYPED_TEST(BothFamilies, ReadsAsManyChannelsAsTheBufferHolds) {
    for (std::int32_t channel = 0; channel < 70000; ++channel)
        this->radio().channels.push_back(channel);
    std::set<unsigned> channels;
    EXPECT_EQ(this->ops.get_available_channels(channels), 0);
    EXPECT_EQ(channels.size(), fitting_channels);
    EXPECT_EQ(*channels.rbegin(), fitting_channels - 1);
    EXPECT_EQ(this->errors(), 0);
}

TYPED_TEST(BothFamilies, ClampsACountOfChannelsThatTheBufferCannotHold) {
    for (std::int32_t channel = 0; channel < 70000; ++channel)
        this->radio().channels.push_back(channel);
    for (const std::uint32_t count : {32766U, 65526U, 65536U, far_beyond}) {
        const LogCapture fresh;
        this->kernel.claim_count(FakeKernel::GET_AVAILABLE_CHANNELS, count);
        std::set<unsigned> channels;
        EXPECT_EQ(this->ops.get_available_channels(channels), 0);
        EXPECT_EQ(channels.size(), fitting_channels);
        EXPECT_EQ(fresh.count("error: <parse_available_channels:"), 1);
        EXPECT_EQ(fresh.count("error: "), 1);
    }
}

// --- stations ---

TYPED_TEST(BothFamilies, AppendsTheAssociatedStations) {
    this->radio().stations = {{{0, 0x1A, 2, 3, 4, 0xFF}, {40, 0, 55, 0}, 1, 0},
                              {{6, 7, 8, 9, 10, 11}, {1, 2, 3, 4}, 0, 7}};
    std::vector<rrm_sta_realtek> stations;
    EXPECT_EQ(this->ops.get_assoc_sta(stations), 0);
    ASSERT_EQ(stations.size(), 2U);
    EXPECT_EQ(stations[0].mac, "00:1a:02:03:04:ff");
    EXPECT_THAT(stations[0].rssi, ElementsAre(-60, -100, -45, -100));
    EXPECT_EQ(stations[0].max_rssi, -45);
    EXPECT_TRUE(stations[0].roam_attempt);
    EXPECT_FALSE(stations[0].is_no_balance);
    EXPECT_FALSE(stations[1].roam_attempt);
    EXPECT_TRUE(stations[1].is_no_balance);
    EXPECT_EQ(stations[1].ifname + stations[1].ssid + stations[1].target_roaming_mac, "");
    EXPECT_EQ(this->logged("debug: mac == 00:1a:02:03:04:ff"), 1);
}

TEST(StationEntryTest, SignalsAre100BelowTheReportedOnesAndTheLargestOfAllFourCounts) {
    const auto sta_of = [](std::int32_t a, std::int32_t b, std::int32_t c, std::int32_t d) {
        return rrm_sta_realtek{sta_info_s{{}, {}, {a, b, c, d}, 0, 0, {}}};
    };
    EXPECT_THAT(sta_of(40, 0, 55, 0).rssi, ElementsAre(-60, -100, -45, -100));
    EXPECT_EQ(sta_of(40, 0, 55, 0).max_rssi, -45);
    EXPECT_EQ(sta_of(-5, -7, -3, 0).max_rssi, -100) << "a chain that reports 0 counts as well";
}

TEST(StationEntryTest, WhatAnEntryDoesNotTellIsEmptyZeroOrFalse) {
    const rrm_sta_realtek station{sta_info_s{{}, {}, {1, 2, 3, 4}, 1, 1, {}}};
    EXPECT_EQ(station.target_roaming_mac + station.ssid + station.ifname, "");
    EXPECT_EQ(station.tx_rate, 0);
    EXPECT_EQ(station.rx_rate, 0);
    EXPECT_FALSE(station.need_ack || station.is_enterprise || station.is_rrm_stable);
}

TYPED_TEST(BothFamilies, ReportsThatNoStationIsAssociated) {
    std::vector<rrm_sta_realtek> stations;
    EXPECT_EQ(this->ops.get_assoc_sta(stations), 0);
    EXPECT_THAT(stations, IsEmpty());
    EXPECT_EQ(this->logged(R"(info: <parse_assoc_sta:\d+> associated clients are absent)"), 1);
}

TYPED_TEST(BothFamilies, ClampsACountOfStationsThatTheBufferCannotHold) {
    for (const std::uint32_t count : {4681U, 9360U, 65536U, far_beyond}) {
        const LogCapture fresh{1};
        this->kernel.claim_count(FakeKernel::GET_ASSOC_STAS, count);
        std::vector<rrm_sta_realtek> stations;
        EXPECT_EQ(this->ops.get_assoc_sta(stations), 0);
        EXPECT_EQ(stations.size(), fitting_stations);
        EXPECT_EQ(fresh.count("error: <parse_assoc_sta:"), 1);
        EXPECT_EQ(fresh.count("error: "), 1);
    }
}

TYPED_TEST(BothFamilies, SurvivesSignalsBeyondAnyRange) {
    this->radio().stations = {{{}, {INT32_MIN, INT32_MAX, 0, 0}, 255, 255}};
    std::vector<rrm_sta_realtek> stations;
    EXPECT_EQ(this->ops.get_assoc_sta(stations), 0);
    ASSERT_EQ(stations.size(), 1U);
    EXPECT_EQ(stations[0].rssi[1], INT32_MAX - 100);
    EXPECT_TRUE(stations[0].roam_attempt);
}

// --- BSS transition ---

TEST(StationEntryTest, OneWithoutAnEntryHasNoSignal) {
    EXPECT_EQ(rrm_sta_s{}.max_rssi, 0);
}

TEST(NeighbourEntryTest, OneThatNothingToldIsAllZero) {
    const ap_info fresh;
    EXPECT_EQ(fresh.bssid, (std::array<std::uint8_t, 6>{}));
    EXPECT_EQ(fresh.signal, 0);
    EXPECT_EQ(fresh.channel, 0);
    EXPECT_EQ(fresh.bw, 0);
    EXPECT_EQ(fresh.tx_power, 0);
    EXPECT_EQ(fresh.primary_channel, 0);
}

TYPED_TEST(BothFamilies, AsksAStationToMove) {
    EXPECT_EQ(this->ops.send_bsstrans_request("wlan0", "00:1A:2b:3c:4d:5e", 30), 0);
    const FakeKernel::Call call = this->kernel.calls().at(0);
    EXPECT_EQ(call.request, Family<TypeParam>::bsstrans);
    EXPECT_EQ(call.ifname, "wlan0");
    EXPECT_EQ(call.length, 6);
    EXPECT_EQ(call.data, (std::string{"\x00\x1a\x2b\x3c\x4d\x5e", 6}));
    EXPECT_EQ(this->kernel.calls().size(), 1U);
}

TYPED_TEST(BothFamilies, SendsNothingForAMalformedStationAddress) {
    for (const char* mac : {"00:1a:2b:3c:4d5e0", "00:1a:2b:3c:4d:5x", "001a2b3c4dxx"}) {
        const LogCapture fresh;
        EXPECT_EQ(this->ops.send_bsstrans_request("wlan0", mac, 0), -1);
        EXPECT_TRUE(fresh.contains("error: Error: Could not read sta_mac at iface wlan0"));
    }
    EXPECT_THAT(this->kernel.calls(), IsEmpty());
}

TYPED_TEST(BothFamilies, AMissingSocketForAMoveIsNoFailure) {
    const NoSocket fault;
    EXPECT_EQ(this->ops.send_bsstrans_request("wlan0", "00:1a:2b:3c:4d:5e", 0), 0);
    EXPECT_EQ(this->logged("error: Cannot open sock for ifname wlan0"), 1);
    EXPECT_THAT(this->kernel.calls(), IsEmpty());
}

TYPED_TEST(BothFamilies, ReportsAStationThatTheDriverDoesNotKnow) {
    this->kernel.fail(Family<TypeParam>::bsstrans, ENOENT);
    EXPECT_EQ(this->ops.send_bsstrans_request("wlan0", "00:1a:2b:3c:4d:5e", 0), -1);
    EXPECT_EQ(this->logged("error: Error: 00:1a:2b:3c:4d:5e not found on wlan0"), 1);
}

TYPED_TEST(BothFamilies, AMoveOnAnEndlessInterfaceNameCarries16Characters) {
    EXPECT_EQ(this->ops.send_bsstrans_request(std::string(300, 'w'), "00:1a:2b:3c:4d:5e", 0), -1);
    EXPECT_EQ(this->kernel.calls().at(0).ifname, std::string(16, 'w'));
}

TYPED_TEST(BothFamilies, AMoveNeedsNoSocketOfTheBackEnd) {
    TypeParam other = this->without_socket(this->driver());
    EXPECT_EQ(other.send_bsstrans_request("wlan0", "001a2b3c4d5e", 0), 0);
    EXPECT_EQ(this->radio().asked_to_move.size(), 1U);
}

TYPED_TEST(BothFamilies, ClosesEverySocketItOpens) {
    const auto open_files = [] {
        const std::filesystem::directory_iterator all{"/proc/self/fd"};
        return std::distance(begin(all), end(all));
    };
    const auto use_once = [this] {
        TypeParam other{this->driver(), "wlan0"};
        other.assign(this->driver(), "wlan0");
        other.stop_scan();
        other.send_bsstrans_request("wlan0", "001a2b3c4d5e", 0);
        std::int32_t value = 0;
        other.get_actual_tx_power(std::as_writable_bytes(std::span{&value, 1}), "wlan0");
    };
    use_once();  // the log opens its file at its first line
    const auto before = open_files();
    for (int i = 0; i < 20; ++i)
        use_once();
    EXPECT_EQ(open_files(), before);
}

// --- the factory ---

class FactoryTest : public DriverTest {};

TEST_F(FactoryTest, MakesTheBackEndOfAFamily) {
    const auto first = ioctl_ops_factory::get(RTL8192CD, driver(), "wlan0");
    EXPECT_NE(dynamic_cast<rtl8192cd_ioctl_ops*>(first.get()), nullptr);
    const auto second = ioctl_ops_factory::get(G6, driver(), "wlan0");
    EXPECT_NE(dynamic_cast<g6_ioctl_ops*>(second.get()), nullptr);
}

TEST_F(FactoryTest, MakesNothingForAnUnknownFamily) {
    EXPECT_EQ(ioctl_ops_factory::get(static_cast<ioctl_ops_type>(3), driver(), "wlan0"), nullptr);
    EXPECT_EQ(ioctl_ops_factory::get(static_cast<ioctl_ops_type>(-1), driver(), "wlan0"), nullptr);
}

TEST_F(FactoryTest, KnowsTheFamilyByTheNameBeforeTheDash) {
    EXPECT_EQ(driver().get_ioctl_type("wlan1-va3"), G6);
    EXPECT_EQ(driver().get_ioctl_type("wlan0-va3"), RTL8192CD);
}

TEST_F(FactoryTest, TakesTheNameBeforeTheFirstOfSeveralDashes) {
    EXPECT_EQ(driver().get_ioctl_type("wlan1-va3-x"), G6);
    platform.radios(R"({"ifname":"wlan1-va3","driver":"g6","bands":["5GHz"]})");
    EXPECT_EQ(driver().get_ioctl_type("wlan1-va3-x"), RTL8192CD);
}

TEST_F(FactoryTest, TakesANameWithoutADashWhole) {
    EXPECT_EQ(driver().get_ioctl_type("wlan1"), G6);
    EXPECT_EQ(driver().get_ioctl_type("wlan1x"), RTL8192CD);
}

TEST_F(FactoryTest, TakesTheOlderFamilyWithoutAName) {
    EXPECT_EQ(driver().get_ioctl_type(""), RTL8192CD);
    EXPECT_EQ(driver().get_ioctl_type(nullptr), RTL8192CD);
}

}  // namespace
