#include <gmock/gmock.h>

#include <string>

#include "ctl_json.h"

namespace {

using namespace msgbusctl;
using namespace std::string_literals;

TEST(Utf8, IsEveryCharacterInItsShortestForm) {
    for (const std::string& text :
         {""s, "abc\0"s, "\x7f"s, "\xc2\x80"s, "\xdf\xbf"s, "\xe0\xa0\x80"s, "\xed\x9f\xbf"s,
          "\xee\x80\x80"s, "\xef\xbf\xbf"s, "\xf0\x90\x80\x80"s, "\xf4\x8f\xbf\xbf"s})
        EXPECT_TRUE(is_utf8(text)) << hexadecimal(text);
}

TEST(Utf8, IsNothingElse) {
    for (const std::string& text :
         {"\x80"s, "a\xff"s, "\xc1\xbf"s, "\xc2"s, "\xc2g"s, "\xe0\x9f\xbf"s, "\xe2\x82"s,
          "\xe2\x82\x20"s, "\xed\xa0\x80"s, "\xf0\x8f\xbf\xbf"s, "\xf1\x80\x80\xc0"s,
          "\xf4\x90\x80\x80"s, "\xf5\x80\x80\x80"s})
        EXPECT_FALSE(is_utf8(text)) << hexadecimal(text);
}

TEST(JsonString, EscapesWhatMustNotStandInIt) {
    EXPECT_EQ(quote("a\"b\\c\n\x01\x7f\xc3\xa4/"s), R"("a\"b\\c\u000a\u0001\u007f)"
                                                    "\xc3\xa4/\"");
    EXPECT_EQ(quote("a\0b"s), R"("a\u0000b")");
    EXPECT_EQ(quote(""), R"("")");
}

TEST(JsonLine, KeepsTheValueAsItIsWritten) {
    EXPECT_EQ(json_line(R"({"b":1.50,"a":[1e3,"\u00e4"],"b":null})"),
              R"({"b":1.50,"a":[1e3,"\u00e4"],"b":null})");
    EXPECT_EQ(json_line("99999999999999999999"), "99999999999999999999");
    EXPECT_EQ(json_line("null"), "null");
    EXPECT_EQ(json_line(R"("a\"b\\")"), R"("a\"b\\")");
}

TEST(JsonLine, HasNoLineFeedAndNoNulAtItsEnd) {
    EXPECT_EQ(json_line("\r\n{\t\"a\":\n1 }\n\0\0"s), "{ \"a\": 1 }");
}

TEST(JsonLine, IsEmptyForWhatIsNoJson) {
    for (const std::string& text :
         {""s, " "s, "\0"s, "{"s, "{} {}"s, "{'a':1}"s, "nul"s, "a"s, "{\"a\":\"\n\"}"s, "{}\0{}"s})
        EXPECT_EQ(json_line(text), "") << text;
}

TEST(Hexadecimal, HasTwoDigitsAByte) {
    EXPECT_EQ(hexadecimal("\0\x0f\xff"s), "000fff");
}

}  // namespace
