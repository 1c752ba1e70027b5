#include "hostapd_link.h"

#include <gmock/gmock.h>

#include <memory>
#include <thread>

#include "fake_hostapd.h"
#include "temporary_folder.h"

namespace apd {
namespace {

class ApdHostapdLink : public testing::Test {
  protected:
    TemporaryFolder folder;
    std::string path = folder / "global";
};

// The kernel may look for a cipher's modules then, and hostapd answers nobody.
TEST_F(ApdHostapdLink, HasATimeOfItsOwnForWhatSetsUpAnAccessPoint) {
    const FakeHostapd hostapd{path, [](const std::string& command) -> std::optional<std::string> {
                                  if (!command.ends_with("STATUS"))
                                      return std::nullopt;
                                  std::this_thread::sleep_for(3 * kShort);
                                  return "OK\n";
                              }};
    for (const char* command :
         {"ADD bss_config=phy0:/run/apd/wlan0-va0.conf", "IFNAME=wlan0-va0 RELOAD"}) {
        HostapdLink link{path, {kPatience, kShort}};
        ASSERT_TRUE(link.connect());
        EXPECT_TRUE(link.tell("wlan0-va0", "STATUS"));
        EXPECT_FALSE(link.tell(command));
        EXPECT_FALSE(link.is_connected());
    }
}

TEST_F(ApdHostapdLink, TellsAHostapdThatIsSilentFromOneThatHasGone) {
    auto hostapd =
        std::make_unique<FakeHostapd>(path, [](const std::string&) { return std::nullopt; });
    HostapdLink link{path, {kPatience, kShort}};
    ASSERT_TRUE(link.connect());
    EXPECT_FALSE(link.is_silent()) << "it may answer yet";
    EXPECT_FALSE(link.tell("ADD bss_config=phy0:/run/apd/wlan0-va0.conf"));
    EXPECT_TRUE(link.is_silent());
    hostapd.reset();
    EXPECT_FALSE(link.is_silent());
}

}  // namespace
}  // namespace apd
