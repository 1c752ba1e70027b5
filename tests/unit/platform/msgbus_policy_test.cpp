#include "msgbus_policy.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <initializer_list>

namespace {

using Modules = MsgbusPolicy::Modules;
using Rule = MsgbusPolicy::Rule;

Modules modules(std::initializer_list<std::size_t> ids) {
    Modules result;
    for (const std::size_t id : ids)
        result.set(id);
    return result;
}

Rule for_user(uid_t user, const Modules& as, const Modules& to) {
    return {user, std::nullopt, as, to};
}

TEST(MsgbusPolicy, RefusesWhatNoRuleNames) {
    const MsgbusPolicy policy{{for_user(10, modules({2, 3}), modules({1}))}};
    EXPECT_EQ(policy.receivers({10, {}}, 2), modules({1}));
    EXPECT_EQ(policy.receivers({10, {}}, 3), modules({1}));
    EXPECT_EQ(policy.receivers({10, {}}, 4), std::nullopt);
    EXPECT_EQ(policy.receivers({11, {}}, 2), std::nullopt);
    EXPECT_EQ(MsgbusPolicy{{}}.receivers({0, {}}, 2), std::nullopt);
}

TEST(MsgbusPolicy, TheFirstRuleThatNamesUserAndModuleDecides) {
    const MsgbusPolicy policy{{for_user(10, modules({2}), modules({1})),
                               for_user(10, modules({2, 3}), modules({5})),
                               {std::nullopt, std::nullopt, modules({2}), modules({7})}}};
    EXPECT_EQ(policy.receivers({10, {}}, 2), modules({1}));
    EXPECT_EQ(policy.receivers({10, {}}, 3), modules({5}));
    EXPECT_EQ(policy.receivers({11, {}}, 2), modules({7}));
}

TEST(MsgbusPolicy, AGroupsRuleNamesEachOfItsMembers) {
    const MsgbusPolicy policy{{{std::nullopt, 20, modules({2}), modules({1})}}};
    EXPECT_EQ(policy.receivers({10, {19, 20}}, 2), modules({1}));
    EXPECT_EQ(policy.receivers({20, {19}}, 2), std::nullopt);
}

TEST(MsgbusPolicy, ARuleForEverybodyNamesEverybody) {
    const MsgbusPolicy policy = MsgbusPolicy::for_everybody();
    EXPECT_EQ(policy.receivers({10, {}}, 0), Modules{}.set());
    EXPECT_EQ(policy.receivers({0, {}}, MSGBUS_MONITOR - 1), Modules{}.set());
}

TEST(MsgbusPolicy, TrustsRootAndTheBrokersUser) {
    const MsgbusPolicy policy = MsgbusPolicy::for_trusted_users();
    EXPECT_EQ(policy.receivers({0, {}}, 31), Modules{}.set());
    EXPECT_EQ(policy.receivers({geteuid(), {}}, 31), Modules{}.set());
    EXPECT_EQ(policy.receivers({geteuid() + 1, {0}}, 31), std::nullopt);
}

TEST(MsgbusPolicy, NobodyIsAModuleThatCannotBe) {
    EXPECT_EQ(MsgbusPolicy::for_everybody().receivers({0, {}}, MSGBUS_MONITOR), std::nullopt);
}

}  // namespace
