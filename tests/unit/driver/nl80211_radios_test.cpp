// The ways to the kernel and to hostapd, and what is kept of stations that were asked to move.
#include "platform-specific/nl80211_radios.h"

#include <gmock/gmock.h>
#include <linux/nl80211.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

#include "fake_hostapd.h"
#include "fake_nl80211.h"
#include "log_capture.h"
#include "temporary_folder.h"
#include "test_clock.h"

namespace {

class Nl80211Radios : public testing::Test {
  protected:
    static constexpr char kVap[] = "wlan0-va0";
    static constexpr char kStation[] = "02:00:00:00:04:00";
    static constexpr int kRest = 6;  // seconds, more than a while

    TemporaryFolder folder;
    const std::string socket = folder / "global";
    std::unique_ptr<FakeNl80211> commands = std::make_unique<FakeNl80211>();
    std::unique_ptr<FakeNl80211> events = std::make_unique<FakeNl80211>();
    FakeNl80211* const kernel = commands.get();
    FakeNl80211* const event_side = events.get();
    nl80211_radios radios{std::move(commands), std::move(events), socket};
    LogCapture log;
    TestClock clock;
};

// A socket at which nobody answers.
class Silence {
  public:
    explicit Silence(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("no socket at " + path);
    }
    ~Silence() { close(fd_); }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

  private:
    int fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

TEST_F(Nl80211Radios, AnAnswerThatIsNeverWholeIsNamedInTheLog) {
    kernel->answers[NL80211_CMD_GET_INTERFACE] = FakeNl80211::recording("interfaces");
    kernel->results[NL80211_CMD_GET_INTERFACE] = {-EINTR, -EINTR, -EINTR};
    std::vector<interface_record> told;
    EXPECT_EQ(radios.interfaces(told), 0);
    EXPECT_FALSE(told.empty());
    EXPECT_TRUE(log.contains("nl80211 command " + std::to_string(NL80211_CMD_GET_INTERFACE) +
                             ": the answer is incomplete: Interrupted system call"));
}

TEST_F(Nl80211Radios, AnAnswerThatIsNoneToldNothing) {
    std::vector<interface_record> told(1);
    EXPECT_EQ(radios.interfaces(told), 0);
    EXPECT_TRUE(told.empty());
}

TEST_F(Nl80211Radios, OfARefusalTheFirstLineIsLogged) {
    const FakeHostapd hostapd{socket, [](const std::string&) { return "FAIL\nmore\n"; }};
    EXPECT_FALSE(radios.tell_hostapd(kVap, "ENABLE"));
    EXPECT_TRUE(log.contains("wlan0-va0: hostapd refuses 'ENABLE': FAIL"));
    EXPECT_FALSE(log.contains("more"));
}

TEST_F(Nl80211Radios, WhoDoesNotAnswerTookNothing) {
    EXPECT_FALSE(radios.tell_hostapd(kVap, "ENABLE"));
    EXPECT_TRUE(log.contains("wlan0-va0: hostapd does not answer"));
    EXPECT_FALSE(log.contains("refuses"));
}

TEST_F(Nl80211Radios, EventsOfTheKernelAreAskedForOnce) {
    event_side->descriptor = 0;  // of a daemon without standard input
    EXPECT_EQ(radios.kernel_events().fd(), 0);
    clock.advance(kRest);
    EXPECT_EQ(radios.kernel_events().fd(), 0);
    EXPECT_EQ(event_side->subscriptions, 1);
    EXPECT_FALSE(log.contains("no events of nl80211"));
}

TEST_F(Nl80211Radios, EventsThatTheKernelRefusesAreAskedForAgainAfterAWhile) {
    event_side->subscription = -ENODEV;
    radios.kernel_events();
    radios.kernel_events();
    EXPECT_EQ(log.count("no events of nl80211: No such device"), 1);
    clock.advance(kRest);
    radios.kernel_events();
    EXPECT_EQ(log.count("no events of nl80211: No such device"), 2);
}

TEST_F(Nl80211Radios, NobodyIsAskedForEventsWithoutHostapd) {
    EXPECT_EQ(radios.hostapd_events(), nullptr);
    EXPECT_FALSE(log.contains("no events of hostapd"));
}

TEST_F(Nl80211Radios, EventsOfHostapdComeFromTheFirstLookOn) {
    const FakeHostapd hostapd{socket};
    hostapd_control* const first = radios.hostapd_events();
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(radios.hostapd_events(), first);
}

TEST_F(Nl80211Radios, EventsOfHostapdEndWithIt) {
    auto hostapd = std::make_unique<FakeHostapd>(socket);
    EXPECT_NE(radios.hostapd_events(), nullptr);
    hostapd.reset();
    EXPECT_EQ(radios.hostapd_events(), nullptr);
    EXPECT_EQ(radios.hostapd_events(), nullptr);
}

TEST_F(Nl80211Radios, AHostapdThatGivesNoEventsIsAskedAgainAfterAWhile) {
    const Silence hostapd{socket};
    EXPECT_EQ(radios.hostapd_events(), nullptr);
    EXPECT_EQ(radios.hostapd_events(), nullptr);
    EXPECT_EQ(log.count("no events of hostapd: "), 1);
    clock.advance(kRest);
    EXPECT_EQ(radios.hostapd_events(), nullptr);
    EXPECT_EQ(log.count("no events of hostapd: "), 2);
}

TEST_F(Nl80211Radios, AStationCountsAsAskedToMoveForTheTimeOut) {
    EXPECT_EQ(radios.roam_timeout(kVap), 0);
    EXPECT_FALSE(radios.was_asked_to_roam(kVap, kStation));
    radios.set_roam_timeout(kVap, 1);
    EXPECT_EQ(radios.roam_timeout(kVap), 1);
    radios.note_roam_attempt(kVap, kStation);
    EXPECT_TRUE(radios.was_asked_to_roam(kVap, kStation));
    EXPECT_FALSE(radios.was_asked_to_roam(kVap, "02:00:00:00:05:00"));
    EXPECT_FALSE(radios.was_asked_to_roam("wlan1-va0", kStation));
    clock.advance(2);
    EXPECT_FALSE(radios.was_asked_to_roam(kVap, kStation));
    radios.note_roam_attempt(kVap, "02:00:00:00:05:00");
    EXPECT_FALSE(radios.was_asked_to_roam(kVap, kStation));
}

TEST_F(Nl80211Radios, WithoutATimeOutNobodyCountsAsAskedToMove) {
    radios.note_roam_attempt(kVap, kStation);
    EXPECT_EQ(radios.roam_timeout(kVap), 0);
    EXPECT_FALSE(radios.was_asked_to_roam(kVap, kStation));
}

}  // namespace
