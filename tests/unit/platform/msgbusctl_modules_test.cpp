#include <gmock/gmock.h>

#include <map>
#include <set>
#include <string>

#include "ctl_modules.h"
#include "ctl_table.h"
#include "ipc_module.h"

namespace {

using namespace msgbusctl;
using testing::Optional;

TEST(NamedModules, HaveTheNumbersThatTheAgentUses) {
    const std::map<std::string, int> expected{{"vaultd", VAULTDMOD},
                                              {"lumd", LUMDMOD},
                                              {"portal", PORTALMOD},
                                              {"hubd", HUBDMOD},
                                              {"orvanta", ORVANTAMOD},
                                              {"guardd", GUARDDMOD},
                                              {"orvanta-events", ORVANTAEVENTSMOD},
                                              {"scand", SCANDMOD}};
    for (const auto& [name, number] : expected)
        EXPECT_THAT(find_module(name), Optional(number)) << name;
}

TEST(NamedModules, HaveNamesOfTheirOwnThatAreNoNumbers) {
    std::set<std::string> names;
    for (const NamedModule& named : named_modules()) {
        EXPECT_TRUE(names.insert(named.name).second) << named.name;
        EXPECT_FALSE(find_module(named.name + std::string{"1"}));
        EXPECT_STREQ(name_of(named.number), named.name);
        EXPECT_THAT(find_module(named.name), Optional(named.number));
    }
}

TEST(Module, IsFoundByItsNumberFrom0To254) {
    EXPECT_THAT(find_module("0"), Optional(0));
    EXPECT_THAT(find_module("254"), Optional(254));
    for (const char* text : {"", "255", "-1", "1x", " 1", "0x1", "99999999999999999999", "VAULTD"})
        EXPECT_FALSE(find_module(text)) << text;
}

TEST(Module, IsDescribedByItsNumberAndItsName) {
    EXPECT_EQ(describe_module(6), "6 (hubd)");
    EXPECT_EQ(describe_module(200), "200");
    EXPECT_EQ(name_of(200), nullptr);
}

TEST(Table, HasColumnsAsWideAsTheirWidestText) {
    EXPECT_EQ(lay_out({{"id", "name", "n"}, {"7", "a", "100"}, {"254", "long", ""}}, {1}),
              " id  name    n\n"
              "  7  a     100\n"
              "254  long\n");
    EXPECT_EQ(lay_out({}, {}), "");
}

}  // namespace
