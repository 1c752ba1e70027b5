#include "hostapd_control.h"

#include <gmock/gmock.h>

#include "fake_hostapd.h"
#include "temporary_folder.h"

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;

class HostapdControl : public testing::Test {
  protected:
    TemporaryFolder folder;
    std::string path = folder / "wlan0-va0";
};

TEST_F(HostapdControl, HandsOverTheAnswerAsItCame) {
    const FakeHostapd hostapd{path, [](const std::string& command) { return command + "!\n"; }};
    hostapd_control control{path, kPatience};
    ASSERT_TRUE(control.is_open());
    EXPECT_EQ(control.request("STATUS"), "STATUS!\n");
    EXPECT_EQ(control.request(""), "!\n");
    EXPECT_THAT(hostapd.commands(), ElementsAre("STATUS", ""));
}

TEST_F(HostapdControl, NobodyAtTheSocketIsToldWithItsPath) {
    hostapd_control control{path};
    EXPECT_FALSE(control.is_open());
    EXPECT_EQ(control.request("PING"), std::nullopt);
    EXPECT_FALSE(control.attach());
    EXPECT_EQ(control.next_event(), std::nullopt);
    EXPECT_EQ(control.fd(), -1);
    EXPECT_THAT(control.why(), HasSubstr(path));
}

TEST_F(HostapdControl, APathLongerThanAnAddressIsRefused) {
    hostapd_control control{folder / std::string(200, 'x')};
    EXPECT_FALSE(control.is_open());
}

TEST_F(HostapdControl, ASilentHostapdEndsTheConnection) {
    const FakeHostapd hostapd{path, [](const std::string&) { return std::nullopt; }};
    hostapd_control control{path, kShort};
    EXPECT_EQ(control.request("PING"), std::nullopt);
    EXPECT_FALSE(control.is_open());
    EXPECT_EQ(control.why(), path + ": no answer within 20 ms");
}

TEST_F(HostapdControl, IsNotAwaitedAfterItsEnd) {
    const FakeHostapd hostapd{path, [](const std::string&) { return std::nullopt; }};
    hostapd_control control{path};
    EXPECT_EQ(control.request("PING", kPatience, [] { return false; }), std::nullopt);
    EXPECT_EQ(control.why(), path + ": has ended");
}

TEST_F(HostapdControl, ACommandThatTakesLongHasATimeOfItsOwn) {
    const FakeHostapd hostapd{path, [](const std::string&) {
                                  std::this_thread::sleep_for(3 * kShort);
                                  return "OK\n";
                              }};
    hostapd_control control{path, kShort};
    EXPECT_EQ(control.request("ADD", kPatience), "OK\n");
}

TEST_F(HostapdControl, AHostapdThatReadsNothingIsLeft) {
    const int server = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    // Each fills its own part of the queue, until one finds no place.
    std::string why;
    for (int i = 0; i < 1000 && why.find("takes no command") == std::string::npos; ++i) {
        hostapd_control control{path, milliseconds{1}};
        EXPECT_EQ(control.request("PING"), std::nullopt);
        why = control.why();
    }
    EXPECT_THAT(why, HasSubstr("takes no command"));
    close(server);
}

TEST_F(HostapdControl, AVanishedHostapdIsAFailure) {
    auto hostapd = std::make_unique<FakeHostapd>(path);
    hostapd_control control{path, kPatience};
    EXPECT_TRUE(control.command("PING"));
    hostapd.reset();
    EXPECT_FALSE(control.command("PING"));
    EXPECT_FALSE(control.is_open());
}

TEST_F(HostapdControl, ARefusalIsTheReason) {
    const FakeHostapd hostapd{path, [](const std::string&) { return "FAIL\n"; }};
    hostapd_control control{path, kPatience};
    EXPECT_FALSE(control.command("SET_NEIGHBOR"));
    EXPECT_EQ(control.why(), path + ": FAIL");
    EXPECT_TRUE(control.is_open());
}

TEST_F(HostapdControl, EventsComeWithoutTheirLevel) {
    const FakeHostapd hostapd{path};
    hostapd_control control{path, kPatience};
    ASSERT_TRUE(control.attach());
    EXPECT_EQ(control.next_event(), std::nullopt);
    hostapd.tell("<3>AP-STA-CONNECTED 02:00:00:00:01:00");
    hostapd.tell("IFNAME=wlan0-va0 <2>AP-ENABLED");
    EXPECT_EQ(control.next_event(), "AP-STA-CONNECTED 02:00:00:00:01:00");
    EXPECT_EQ(control.next_event(), "IFNAME=wlan0-va0 AP-ENABLED");
    EXPECT_EQ(control.next_event(), std::nullopt);
}

TEST_F(HostapdControl, EventsBeforeAnAnswerAreKept) {
    const FakeHostapd hostapd{path};
    hostapd_control control{path, kPatience};
    ASSERT_TRUE(control.attach());
    hostapd.tell("<3>AP-CSA-FINISHED freq=2462 dfs=0");
    EXPECT_EQ(control.request("PING"), "OK\n");
    EXPECT_EQ(control.next_event(), "AP-CSA-FINISHED freq=2462 dfs=0");
}

TEST_F(HostapdControl, OfTooManyEventsTheOldestAreLost) {
    const FakeHostapd hostapd{path};
    hostapd_control control{path, kPatience};
    ASSERT_TRUE(control.attach());
    for (std::size_t i = 0; i < hostapd_control::events_kept + 5; ++i) {
        hostapd.tell("<3>" + std::to_string(i));
        ASSERT_TRUE(control.command("PING"));
    }
    EXPECT_EQ(control.next_event(), "5");
}

TEST_F(HostapdControl, GarbageIsAnAnswerAndNoEvent) {
    const std::string garbage{"\0\xff<\n\x01", 5};
    const FakeHostapd hostapd{path, [&](const std::string&) { return garbage; }};
    hostapd_control control{path, kPatience};
    ASSERT_TRUE(control.attach());
    EXPECT_EQ(control.request("STATUS"), garbage);
    for (const char* const broken : {"<3", "IFNAME=", "IFNAME=x<3>", "<>", ""})
        hostapd.tell(broken);
    EXPECT_EQ(control.next_event(), "<3");
    EXPECT_EQ(control.next_event(), "IFNAME=");
    EXPECT_EQ(control.next_event(), "IFNAME=x<3>");
    EXPECT_EQ(control.next_event(), "");
    EXPECT_EQ(control.next_event(), std::nullopt);
}

}  // namespace
