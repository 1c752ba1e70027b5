#include "msgbus_settings.h"

#include <gmock/gmock.h>

#include <fstream>
#include <sstream>
#include <string>

namespace {

using testing::HasSubstr;
using testing::StartsWith;
using Modules = MsgbusPolicy::Modules;

class MsgbusSettingsTest : public testing::Test {
  protected:
    // What such a user may send to as that module, as "1 6 34"; "refused" when it may not be it.
    [[nodiscard]] std::string receivers(const MsgbusUser& user, int module) const {
        const std::optional<Modules> found =
            settings.policy.receivers(user, static_cast<std::uint8_t>(module));
        if (!found)
            return "refused";
        std::string text;
        for (std::size_t id = 0; id < found->size(); id++)
            if ((*found)[id])
                text += (text.empty() ? "" : " ") + std::to_string(id);
        return text;
    }

    MsgbusSettings settings;
};

TEST_F(MsgbusSettingsTest, WithoutAFileTheSocketAndTheBusAreRootsAndTheBrokersUsers) {
    EXPECT_EQ(settings.group, std::nullopt);
    EXPECT_EQ(settings.mode, 0660u);
    EXPECT_NE(receivers({0, {}}, 31), "refused");
    EXPECT_EQ(receivers({4711, {}}, 31), "refused");
}

TEST_F(MsgbusSettingsTest, TakesGroupAndModeOfTheSocket) {
    EXPECT_EQ(settings.take("group=root\nmode=0640\n"), "");
    EXPECT_EQ(settings.group, gid_t{0});
    EXPECT_EQ(settings.mode, 0640u);
    EXPECT_EQ(settings.take("group=4711"), "");
    EXPECT_EQ(settings.group, gid_t{4711});
    EXPECT_EQ(settings.mode, 0640u);
}

TEST_F(MsgbusSettingsTest, AGroupThatIsNotThereIsNotedAndOpensTheSocketToNobody) {
    EXPECT_EQ(settings.take("group=root\ngroup=no-such-group"), "");
    EXPECT_EQ(settings.group, std::nullopt);
    EXPECT_EQ(settings.missing_group, "no-such-group");
    EXPECT_EQ(settings.take("group=root"), "");
    EXPECT_EQ(settings.missing_group, "");
    // chown(2) would leave the group as it is.
    EXPECT_EQ(settings.take("group=4294967295"), "");
    EXPECT_EQ(settings.missing_group, "4294967295");
}

TEST_F(MsgbusSettingsTest, LimitsNobodysRateAndKeeps8MiBWithoutAWord) {
    EXPECT_EQ(settings.take(""), "");
    EXPECT_EQ(settings.limits.rate, 0u);
    EXPECT_EQ(settings.limits.waiting, std::uint32_t{MSGBUS_MAX_WAITING});
}

TEST_F(MsgbusSettingsTest, TakesTheLimitsOfAConnection) {
    EXPECT_EQ(settings.take("waiting=65536\nrate=20000"), "");
    EXPECT_EQ(settings.limits.waiting, 65536u);
    EXPECT_EQ(settings.limits.rate, 20000u);
}

TEST_F(MsgbusSettingsTest, ATextThatItDoesNotUnderstandChangesNothing) {
    EXPECT_NE(settings.take("group=root\nmode=0600\nrate=1\nallow=any"), "");
    EXPECT_EQ(settings.group, std::nullopt);
    EXPECT_EQ(settings.mode, 0660u);
    EXPECT_EQ(settings.limits.rate, 0u);
}

TEST_F(MsgbusSettingsTest, TakesTheRulesInTheirOrder) {
    EXPECT_EQ(settings.take("allow=root as 28 to 1,6,34\n"
                            "allow=4711 as 2-4,9 to 3\n"
                            "allow=root as any to 7\n"),
              "");
    EXPECT_EQ(receivers({0, {}}, 28), "1 6 34");
    EXPECT_EQ(receivers({0, {}}, 2), "7");
    for (const int module : {2, 3, 4, 9})
        EXPECT_EQ(receivers({4711, {}}, module), "3");
    for (const int module : {1, 5, 8, 10})
        EXPECT_EQ(receivers({4711, {}}, module), "refused");
}

TEST_F(MsgbusSettingsTest, ARuleMayNameAGroupOrEverybody) {
    EXPECT_EQ(settings.take("allow=@root as 5 to 6\nallow=@4711 as 5 to 7\nallow=any as 5 to 8"),
              "");
    EXPECT_EQ(receivers({10, {0}}, 5), "6");
    EXPECT_EQ(receivers({10, {20, 4711}}, 5), "7");
    EXPECT_EQ(receivers({10, {}}, 5), "8");
}

TEST_F(MsgbusSettingsTest, AnyIsEveryModuleThatCanBe) {
    EXPECT_EQ(settings.take("allow=root as any to any"), "");
    EXPECT_EQ(settings.policy.receivers({0, {}}, 0), Modules{}.set());
    EXPECT_EQ(settings.policy.receivers({0, {}}, MSGBUS_MONITOR - 1), Modules{}.set());
}

TEST_F(MsgbusSettingsTest, ThePackagedFileHoldsTheAgentsModulesToTheirReceivers) {
    std::ostringstream text;
    text << std::ifstream{PACKAGED_POLICY}.rdbuf();
    EXPECT_EQ(settings.take(text.str()), "");
    EXPECT_TRUE(settings.group || settings.missing_group == "lumd");
    EXPECT_EQ(settings.mode, 0660u);
    EXPECT_EQ(receivers({0, {}}, 2), "3");
    EXPECT_EQ(receivers({0, {}}, 28), "1 6 34");
    EXPECT_EQ(receivers({0, {}}, 31), "3");
    EXPECT_EQ(settings.policy.receivers({0, {}}, 1), Modules{}.set());
    EXPECT_EQ(receivers({65534, {}}, 31), "refused");
}

TEST_F(MsgbusSettingsTest, AFileWithoutRulesAllowsNothing) {
    EXPECT_EQ(settings.take(""), "");
    EXPECT_EQ(receivers({0, {}}, 31), "refused");
}

TEST_F(MsgbusSettingsTest, PassesOverCommentsAndBlanks) {
    EXPECT_EQ(settings.take("# a comment\n\n \t\r\n  mode = 0600 \r\n"
                            "allow =  root   as 5 to\t6\n# allow=any as any to any"),
              "");
    EXPECT_EQ(settings.mode, 0600u);
    EXPECT_EQ(receivers({0, {}}, 5), "6");
    EXPECT_EQ(receivers({10, {}}, 5), "refused");
}

TEST_F(MsgbusSettingsTest, TellsTheLineThatItDoesNotUnderstand) {
    struct Case {
        const char* line;
        const char* error;
    };
    for (const auto& [line, error] :
         {Case{"colour=red", "'colour' is no key"},
          Case{"allow", "a rule reads"},
          Case{"group=", "'' is no group"},
          Case{"group=lumd adm", "'lumd adm' is no group"},
          Case{"waiting=8M", "'8M' is no number"},
          Case{"waiting=-1", "'-1' is no number"},
          Case{"rate=", "'' is no number"},
          Case{"rate=4294967296", "'4294967296' is no number"},
          Case{"allow=4294967295 as 5 to 6", "there is no user 4294967295"},
          Case{"allow=@4294967295 as 5 to 6", "there is no group 4294967295"},
          Case{"allow=root as 5, to 7", "'5,' names no modules"},
          Case{"mode=0999", "'0999' is no mode"},
          Case{"mode=01777", "'01777' is no mode"},
          Case{"mode=", "'' is no mode"},
          Case{"allow=root", "a rule reads"},
          Case{"allow=root as 5", "a rule reads"},
          Case{"allow=root as 5 to 6 7", "a rule reads"},
          Case{"allow=root to 5 as 6", "a rule reads"},
          Case{"allow=no-such-user as 5 to 6", "there is no user no-such-user"},
          Case{"allow=@no-such-group as 5 to 6", "there is no group no-such-group"},
          Case{"allow=-1 as 5 to 6", "there is no user -1"},
          Case{"allow=root as x to 6", "'x' names no modules"},
          Case{"allow=root as 5 to 255", "'255' names no modules"},
          Case{"allow=root as 5 to 6-5", "'6-5' names no modules"},
          Case{"allow=root as 5,,6 to 7", "'5,,6' names no modules"},
          Case{"allow=root as -5 to 7", "'-5' names no modules"},
          Case{"allow=root as 5- to 7", "'5-' names no modules"}}) {
        const std::string answer = settings.take(std::string{"# first\n"} + line + "\nmode=0600");
        EXPECT_THAT(answer, StartsWith("line 2: ")) << line;
        EXPECT_THAT(answer, HasSubstr(error)) << line;
    }
    EXPECT_NE(receivers({0, {}}, 31), "refused") << "the policy is still the one before";
}

}  // namespace
