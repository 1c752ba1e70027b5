#include "cfgtree.h"

#include <gtest/gtest.h>

#include <string>

#include "owned.h"

namespace {

cfgtree_ptr parse(const char* text) {
    return cfgtree_ptr{cfgtree_parse(text)};
}

TEST(Cfgtree, NewTreeIsAnEmptyObject) {
    const cfgtree_ptr tree{cfgtree_new()};
    EXPECT_EQ(cfgtree_get_type(tree.get()), CFGTREE_OBJECT);
    EXPECT_STREQ(cfgtree_serialize_compact(tree.get()), "{}");
}

TEST(Cfgtree, ReportsTheTypeOfEveryKindOfNode) {
    EXPECT_EQ(cfgtree_get_type(parse(R"("text")").get()), CFGTREE_STRING);
    EXPECT_EQ(cfgtree_get_type(parse("12").get()), CFGTREE_VALUE);
    EXPECT_EQ(cfgtree_get_type(parse("1.5").get()), CFGTREE_VALUE);
    EXPECT_EQ(cfgtree_get_type(parse("true").get()), CFGTREE_VALUE);
    EXPECT_EQ(cfgtree_get_type(parse("{}").get()), CFGTREE_OBJECT);
    EXPECT_EQ(cfgtree_get_type(parse("[]").get()), CFGTREE_ARRAY);
    EXPECT_EQ(cfgtree_get_type(nullptr), CFGTREE_NONE);
}

TEST(Cfgtree, RefusesTextThatIsNotExactlyOneValue) {
    EXPECT_EQ(cfgtree_parse(nullptr), nullptr);
    for (const char* text :
         {"", " ", "{", R"({"a":})", "{} {}", "{}x", "[1,]", "{} // end", "12 13", "nul"})
        EXPECT_EQ(parse(text), nullptr) << text;
}

TEST(Cfgtree, RefusesWhatIsNearlyJson) {
    for (const char* text : {"'a'",   "{'a':1}",    "{a:1}", "[1,]",    R"({"a":1,})", "[,]",
                             "[1 2]", "/**/1",      "tRue",  "nulls",   "NaN",         "-Infinity",
                             "-",     "+1",         "01",    "-01",     ".5",          "1.",
                             "1e",    "1e+",        "0x10",  R"("\x")", R"("\u12g4")", "\"",
                             R"("\)", R"({"a" 1})", "{1:1}", "[}",      R"({"a":1)"})
        EXPECT_EQ(parse(text), nullptr) << text;
}

TEST(Cfgtree, ReadsEveryFormOfANumberAndOfAString) {
    for (const char* text : {"0", "-0", "10", "-12.50", "1e5", "1E-5", "0.5e+3"})
        EXPECT_EQ(cfgtree_get_type(parse(text).get()), CFGTREE_VALUE) << text;
    EXPECT_STREQ(cfgtree_serialize(parse(R"("\"\\\/\b\f\n\r\t\u00e9\u00AF")").get()),
                 "\"\\/\b\f\n\r\t\u00e9\u00af");
}

TEST(Cfgtree, AStringMayHoldAnyBytes) {
    for (const char* text : {"caf\xc3\xa9", "\xff\xfe", "tab\there", "\x01\x7f\x80"})
        EXPECT_STREQ(cfgtree_serialize(parse(('"' + std::string{text} + '"').c_str()).get()), text);
}

TEST(Cfgtree, HoldsIntegersBeyond64BitsAtTheLimit) {
    EXPECT_STREQ(cfgtree_serialize(parse("99999999999999999999").get()), "18446744073709551615");
    EXPECT_STREQ(cfgtree_serialize(parse("-99999999999999999999").get()), "-9223372036854775808");
}

TEST(Cfgtree, AcceptsWhiteSpaceAroundTheValue) {
    EXPECT_NE(parse(" \t\r\n{ } \n\t "), nullptr);
    EXPECT_STREQ(cfgtree_serialize(parse(" 12 ").get()), "12");
    EXPECT_STREQ(cfgtree_serialize_compact(parse("{ \"a\" : [ 1 , [ ] ] }").get()),
                 R"({"a":[1,[]]})");
}

TEST(Cfgtree, RefusesNestingWithoutEnd) {
    EXPECT_EQ(parse(std::string(100000, '[').c_str()), nullptr);
}

TEST(Cfgtree, ParsesABufferWithoutANulBehindIt) {
    const std::string text = R"({"a":"b"}garbage)";
    const cfgtree_ptr tree{cfgtree_parse_buffer(text.data(), 9)};
    EXPECT_STREQ(cfgtree_get_param(tree.get(), "a"), "b");
    EXPECT_EQ(cfgtree_ptr{cfgtree_parse_buffer(text.data(), 10)}, nullptr);
    EXPECT_EQ(cfgtree_ptr{cfgtree_parse_buffer(text.data(), 8)}, nullptr);
    EXPECT_EQ(cfgtree_ptr{cfgtree_parse_buffer(nullptr, 9)}, nullptr);
    EXPECT_EQ(cfgtree_ptr{cfgtree_parse_buffer(text.data(), 0)}, nullptr);
}

TEST(Cfgtree, ParsesANumberThatEndsWithItsBuffer) {
    const cfgtree_ptr tree{cfgtree_parse_buffer("1234", 2)};
    EXPECT_STREQ(cfgtree_serialize(tree.get()), "12");
}

TEST(Cfgtree, IgnoresNulsAtTheEndOfABufferButNotInside) {
    EXPECT_NE(cfgtree_ptr{cfgtree_parse_buffer("{}\0", 4)}, nullptr);
    EXPECT_EQ(cfgtree_ptr{cfgtree_parse_buffer("{}\0{}", 5)}, nullptr);
}

TEST(Cfgtree, SetParamReplacesAndKeepsTheOrderOfInsertion) {
    const cfgtree_ptr tree{cfgtree_new()};
    EXPECT_EQ(cfgtree_set_param(tree.get(), "command", "get"), 0);
    EXPECT_EQ(cfgtree_set_param(tree.get(), "path", "/a/b"), 0);
    EXPECT_EQ(cfgtree_set_param(tree.get(), "command", "put"), 0);
    EXPECT_STREQ(cfgtree_serialize_compact(tree.get()), R"({"command":"put","path":"/a/b"})");
}

TEST(Cfgtree, SetParamRefusesWhatIsNoObjectOrNoText) {
    const cfgtree_ptr array = parse("[]");
    const cfgtree_ptr object{cfgtree_new()};
    EXPECT_EQ(cfgtree_set_param(nullptr, "a", "b"), -1);
    EXPECT_EQ(cfgtree_set_param(array.get(), "a", "b"), -1);
    EXPECT_EQ(cfgtree_set_param(object.get(), nullptr, "b"), -1);
    EXPECT_EQ(cfgtree_set_param(object.get(), "a", nullptr), -1);
    EXPECT_STREQ(cfgtree_serialize_compact(object.get()), "{}");
}

TEST(Cfgtree, GetParamGivesTheTextOfScalarsOnly) {
    const cfgtree_ptr tree = parse(R"({"s":"x/y","n":-7,"b":true,"o":{},"a":[],"z":null})");
    EXPECT_STREQ(cfgtree_get_param(tree.get(), "s"), "x/y");
    EXPECT_STREQ(cfgtree_get_param(tree.get(), "n"), "-7");
    EXPECT_STREQ(cfgtree_get_param(tree.get(), "b"), "true");
    for (const char* name : {"o", "a", "z", "missing"})
        EXPECT_EQ(cfgtree_get_param(tree.get(), name), nullptr) << name;
    EXPECT_EQ(cfgtree_get_param(nullptr, "s"), nullptr);
    EXPECT_EQ(cfgtree_get_param(tree.get(), nullptr), nullptr);
    EXPECT_EQ(cfgtree_get_param(parse("[1]").get(), "s"), nullptr);
}

TEST(Cfgtree, TellsAMissingMemberFromTheValueNull) {
    const cfgtree_ptr tree = parse(R"({"z":null})");
    EXPECT_TRUE(cfgtree_has_param(tree.get(), "z"));
    EXPECT_EQ(cfgtree_get_child(tree.get(), "z"), nullptr);
    EXPECT_EQ(cfgtree_get_type(cfgtree_get_child(tree.get(), "z")), CFGTREE_NONE);
    EXPECT_FALSE(cfgtree_has_param(tree.get(), "missing"));
    EXPECT_EQ(cfgtree_get_child(tree.get(), "missing"), nullptr);
}

TEST(Cfgtree, LooksUpNothingInWhatIsNoObject) {
    const cfgtree_ptr array = parse("[1]");
    for (const cfgtree_node* node : {static_cast<const cfgtree_node*>(nullptr),
                                     static_cast<const cfgtree_node*>(array.get())}) {
        EXPECT_FALSE(cfgtree_has_param(node, "a"));
        EXPECT_EQ(cfgtree_get_child(node, "a"), nullptr);
    }
    EXPECT_FALSE(cfgtree_has_param(parse("{}").get(), nullptr));
    EXPECT_EQ(cfgtree_get_child(parse("{}").get(), nullptr), nullptr);
}

TEST(Cfgtree, AddsSubtreesThatCanBeFilled) {
    const cfgtree_ptr tree{cfgtree_new()};
    cfgtree_node* params = cfgtree_add_subtree(tree.get(), "params");
    ASSERT_NE(params, nullptr);
    EXPECT_EQ(cfgtree_add_string(params, "channel", "36"), 0);
    EXPECT_EQ(cfgtree_get_child(tree.get(), "params"), params);
    EXPECT_STREQ(cfgtree_serialize_compact(tree.get()), R"({"params":{"channel":"36"}})");
    EXPECT_EQ(cfgtree_add_subtree(nullptr, "params"), nullptr);
    EXPECT_EQ(cfgtree_add_subtree(tree.get(), nullptr), nullptr);
    EXPECT_EQ(cfgtree_add_subtree(parse("1").get(), "params"), nullptr);
    EXPECT_EQ(cfgtree_add_string(nullptr, "a", "b"), -1);
}

TEST(Cfgtree, InsertTakesAReferenceOfItsOwn) {
    cfgtree_ptr tree{cfgtree_new()};
    cfgtree_ptr child = parse(R"({"a":1})");
    EXPECT_EQ(cfgtree_insert(tree.get(), "child", child.get()), 0);
    tree.reset();
    EXPECT_STREQ(cfgtree_serialize_compact(child.get()), R"({"a":1})");
}

TEST(Cfgtree, InsertedChildOutlivesTheCallersReference) {
    const cfgtree_ptr tree{cfgtree_new()};
    cfgtree_ptr child = parse(R"({"a":1})");
    EXPECT_EQ(cfgtree_insert(tree.get(), "child", child.get()), 0);
    child.reset();
    EXPECT_STREQ(cfgtree_serialize_compact(tree.get()), R"({"child":{"a":1}})");
}

TEST(Cfgtree, InsertOfNullPutsTheValueNull) {
    const cfgtree_ptr tree{cfgtree_new()};
    EXPECT_EQ(cfgtree_insert(tree.get(), "z", nullptr), 0);
    EXPECT_STREQ(cfgtree_serialize_compact(tree.get()), R"({"z":null})");
}

TEST(Cfgtree, FailedInsertLeavesTheChildToTheCaller) {
    const cfgtree_ptr child = parse("{}");
    EXPECT_EQ(cfgtree_insert(nullptr, "a", child.get()), -1);
    EXPECT_EQ(cfgtree_insert(parse("[]").get(), "a", child.get()), -1);
    EXPECT_STREQ(cfgtree_serialize_compact(child.get()), "{}");
}

TEST(Cfgtree, WalksArrays) {
    const cfgtree_ptr tree = parse(R"([10,"x",null])");
    ASSERT_EQ(cfgtree_array_length(tree.get()), 3u);
    EXPECT_STREQ(cfgtree_serialize(cfgtree_array_at(tree.get(), 1)), "x");
    EXPECT_EQ(cfgtree_array_at(tree.get(), 2), nullptr);
    EXPECT_EQ(cfgtree_array_at(tree.get(), 3), nullptr);
    EXPECT_EQ(cfgtree_array_length(parse("{}").get()), 0u);
    EXPECT_EQ(cfgtree_array_length(nullptr), 0u);
    EXPECT_EQ(cfgtree_array_at(nullptr, 0), nullptr);
}

TEST(Cfgtree, SerializesAStringAsItsBareTextAndOthersAsIndentedJson) {
    EXPECT_STREQ(cfgtree_serialize(parse(R"("a/\"b\"")").get()), "a/\"b\"");
    EXPECT_STREQ(cfgtree_serialize(parse("36").get()), "36");
    EXPECT_STREQ(cfgtree_serialize(parse("true").get()), "true");
    EXPECT_STREQ(cfgtree_serialize(nullptr), "null");
    EXPECT_STREQ(cfgtree_serialize(parse(R"({"a":"/b"})").get()), "{\n  \"a\": \"/b\"\n}");
}

TEST(Cfgtree, SerializesCompactly) {
    EXPECT_STREQ(cfgtree_serialize_compact(parse(R"({ "b" : [1, {"a" : "/x"}] })").get()),
                 R"({"b":[1,{"a":"/x"}]})");
    EXPECT_STREQ(cfgtree_serialize_compact(parse(R"("t")").get()), R"("t")");
    EXPECT_STREQ(cfgtree_serialize_compact(nullptr), "null");
}

TEST(Cfgtree, OnlyAnObjectHasAnObjectText) {
    EXPECT_STREQ(cfgtree_object_to_string(parse(R"({"a": 1})").get()), R"({"a":1})");
    EXPECT_STREQ(cfgtree_object_to_string(parse("[1]").get()), "");
    EXPECT_STREQ(cfgtree_object_to_string(nullptr), "");
}

TEST(Cfgtree, ReleaseAcceptsNull) {
    cfgtree_release(nullptr);
    EXPECT_EQ(cfgtree_get_type(nullptr), CFGTREE_NONE);
}

}  // namespace
