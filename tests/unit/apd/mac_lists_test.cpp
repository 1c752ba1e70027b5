#include "mac_lists.h"

#include <gmock/gmock.h>

namespace apd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> listed(const std::string& text) {
    const Json lists = parse_json(text);
    std::vector<std::string> result;
    for (const Mac& mac : black_list(lists.get()))
        result.push_back(to_text(mac));
    return result;
}

TEST(ApdMacLists, HasEachFormOfABlackList) {
    EXPECT_THAT(listed(R"({"Name": "x", "black-list": ["02:00:00:00:00:02", "02-00-00-00-00-01"],
                           "white-list": ["02:00:00:00:00:09"]})"),
                ElementsAre("02:00:00:00:00:01", "02:00:00:00:00:02"));
    EXPECT_THAT(listed(R"({"lists": {"BlackList": [{"mac": "02:00:00:00:00:0A", "note": "x"}]}})"),
                ElementsAre("02:00:00:00:00:0a"));
    EXPECT_THAT(listed(R"({"blacklist": {"02:00:00:00:00:01": {}}})"),
                ElementsAre("02:00:00:00:00:01"));
}

TEST(ApdMacLists, IsEmptyWithoutOne) {
    EXPECT_THAT(listed(R"({"mac": ["02:00:00:00:00:01"]})"), IsEmpty());
    EXPECT_THAT(listed(R"({"black": ["02:00:00:00:00", 5, null, true, "x"]})"), IsEmpty());
    EXPECT_THAT(listed("[]"), IsEmpty());
    EXPECT_THAT(listed("null"), IsEmpty());
}

TEST(ApdMacLists, IsOneLineEachForHostapd) {
    EXPECT_EQ(deny_file_text({*parse_mac("02:00:00:00:00:01"), *parse_mac("02:00:00:00:00:02")}),
              "02:00:00:00:00:01\n02:00:00:00:00:02\n");
}

}  // namespace
}  // namespace apd
