#include "ft_config.h"

#include <gmock/gmock.h>

#include <map>

namespace apd {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

const std::string kKey(64, 'a');
const std::string kRemote =
    R"({"enabled":"true","mac":{"02:00:00:00:99:51":{"name":"x","index":"0","r0-kh-id":"ap2",)"
    R"("r1-kh-id":"02:00:00:00:99:51","r0-kh-key":")" +
    kKey + R"(","r1-kh-key":")" + kKey + R"("}}})";

std::optional<FtConfig> read(const std::string& text, std::string& reason) {
    const Json node = parse_json(text);
    return read_ft_config(node.get(), reason);
}

FtConfig read(const std::string& text) {
    std::string reason;
    const std::optional<FtConfig> ft = read(text, reason);
    EXPECT_TRUE(ft) << reason;
    return ft.value_or(FtConfig{});
}

std::string refusal(const std::string& text) {
    std::string reason;
    EXPECT_FALSE(read(text, reason)) << text;
    return reason;
}

std::map<std::string, std::string> lines_of(const FtConfig& ft) {
    std::map<std::string, std::string> result;
    for (const HostapdLine& line : ft_lines(ft, "office", "wlan0-va0", Mac{2, 0, 0, 0, 1, 0x51}))
        result[line.name] = line.value;
    return result;
}

TEST(ApdFtConfig, BecomesHostapdsLines) {
    auto lines = lines_of(read(
        R"({"enabled":"true","ft-over-ds":"true","ft-psk-generate-local":"false",)"
        R"("reassociation-deadline":20000,"mobility-domain":4660,"r0-key-holder-id":"ap1.example",)"
        R"("r1-key-holder-id":"02:aa:bb:cc:dd:51"})"));
    EXPECT_EQ(lines["mobility_domain"], "1234");
    EXPECT_EQ(lines["nas_identifier"], "ap1.example");
    EXPECT_EQ(lines["r1_key_holder"], "02aabbccdd51");
    EXPECT_EQ(lines["ft_over_ds"], "1");
    EXPECT_EQ(lines["ft_psk_generate_local"], "0");
    EXPECT_EQ(lines["reassociation_deadline"], "20000");
}

TEST(ApdFtConfig, HasADomainOfItsSsidAndTheInterfacesNamesWithoutOthers) {
    auto lines = lines_of(read(R"({"enabled":"true"})"));
    EXPECT_EQ(lines["mobility_domain"].size(), 4U);
    EXPECT_EQ(lines["nas_identifier"], "wlan0-va0");
    EXPECT_EQ(lines["r1_key_holder"], "020000000151");
    EXPECT_EQ(lines["ft_psk_generate_local"], "1");
}

TEST(ApdFtConfig, HasALineForEachKeyHolder) {
    const std::vector<HostapdLine> lines = key_holder_lines(read(kRemote).remotes);
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_EQ(lines[0].name, "r0kh");
    EXPECT_EQ(lines[0].value, "02:00:00:00:99:51 ap2 " + kKey);
    EXPECT_EQ(lines[1].name, "r1kh");
    EXPECT_EQ(lines[1].value, "02:00:00:00:99:51 02:00:00:00:99:51 " + kKey);
}

TEST(ApdFtConfig, LeavesOutAKeyThatIsNotKnown) {
    EXPECT_THAT(key_holder_lines(read(R"({"mac":{"02:00:00:00:99:51":{"name":"x"}}})").remotes),
                IsEmpty());
}

TEST(ApdFtConfig, TakesNothingThatCouldBecomeAnotherLine) {
    EXPECT_THAT(refusal(R"({"r0-key-holder-id":"a\nb"})"), HasSubstr("without blanks"));
    EXPECT_THAT(refusal(R"({"r0-key-holder-id":"a b"})"), HasSubstr("without blanks"));
    EXPECT_THAT(refusal(R"({"r1-key-holder-id":"x"})"), HasSubstr("no MAC address"));
    EXPECT_THAT(refusal(R"({"mobility-domain":70000})"), HasSubstr("0 to 65535"));
    EXPECT_THAT(refusal(R"({"reassociation-deadline":1})"), HasSubstr("1000 to 65535"));
    EXPECT_THAT(refusal(R"({"mac":{"x":{}}})"), HasSubstr("no MAC address"));
    EXPECT_THAT(refusal(R"({"mac":{"02:00:00:00:99:51":{"r0-kh-key":"12"}}})"),
                HasSubstr("hexadecimal digits"));
    EXPECT_THAT(refusal(R"({"mac":{"02:00:00:00:99:51":{"r0-kh-id":"a b"}}})"),
                HasSubstr("without blanks"));
}

TEST(ApdFtConfig, CanChangeItsKeyHoldersWithClientsConnected) {
    const FtConfig without = read(R"({"enabled":"true"})");
    EXPECT_TRUE(differ_in_key_holders_alone(without, read(kRemote)));
    EXPECT_FALSE(
        differ_in_key_holders_alone(without, read(R"({"enabled":"true","mobility-domain":1})")));
}

TEST(ApdFtConfig, WithdrawsAKeyHolderByAKeyThatNobodyHas) {
    const std::vector<KeyHolder> before = read(kRemote).remotes;
    EXPECT_THAT(withdrawn(before, before), IsEmpty());
    const std::vector<KeyHolder> gone = withdrawn(before, {});
    ASSERT_THAT(gone, SizeIs(1));
    EXPECT_EQ(gone[0].r0_id, "ap2");
    EXPECT_NE(gone[0].r0_key, kKey);
    EXPECT_EQ(gone[0].r0_key.size(), kKey.size());
    EXPECT_NE(withdrawn(before, {})[0].r0_key, gone[0].r0_key);
}

}  // namespace
}  // namespace apd
