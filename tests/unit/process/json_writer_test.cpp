#include "json_writer.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(JsonWriter, BeginsWithTheHeaderInOrder) {
    const json_writer writer("rrm", "rrm-update", "00:1a:2b:3c:4d:5e", "2.4");
    EXPECT_STREQ(
        writer.serialize(),
        R"({"version":"2.4","service":"rrm","cmd":"rrm-update","ap-mac":"00:1a:2b:3c:4d:5e"})");
    EXPECT_FALSE(writer.fail());
}

TEST(JsonWriter, LeavesEmptyHeaderTextsOut) {
    EXPECT_STREQ(json_writer("internal-ipc", "connected", "", "2.4").serialize(),
                 R"({"version":"2.4","service":"internal-ipc","cmd":"connected"})");
    EXPECT_STREQ(json_writer("", "status", "", "").serialize(), R"({"cmd":"status"})");
    EXPECT_STREQ(json_writer("", "", "", "").serialize(), "{}");
}

class JsonWriterTest : public testing::Test {
  protected:
    json_writer writer{"", "", "", ""};
};

TEST_F(JsonWriterTest, KeepsMembersInTheOrderOfTheirInsertion) {
    writer.insert_string("z", "last letter");
    writer.insert_int("a", -1);
    writer.insert_string("m", std::string("middle"));
    EXPECT_STREQ(writer.serialize(), R"({"z":"last letter","a":-1,"m":"middle"})");
}

TEST_F(JsonWriterTest, TheLaterValueOfAKeyReplacesTheEarlier) {
    writer.insert_int("a", 1);
    writer.insert_int("b", 2);
    writer.insert_string("a", "three");
    EXPECT_STREQ(writer.serialize(), R"({"a":"three","b":2})");
}

TEST_F(JsonWriterTest, EscapesTexts) {
    writer.insert_string("a", "quote \" and \n");
    writer.insert_string("b", std::string("nul\0inside", 10));
    EXPECT_STREQ(writer.serialize(), R"({"a":"quote \" and \n","b":"nul\u0000inside"})");
}

TEST_F(JsonWriterTest, ANullTextAddsNothing) {
    writer.insert_string("a", static_cast<const char*>(nullptr));
    EXPECT_STREQ(writer.serialize(), "{}");
}

TEST_F(JsonWriterTest, DestroyingANestedWriterLeavesItsObjectInTheParent) {
    { writer.make_subobject("sub").insert_int("a", 1); }
    EXPECT_STREQ(writer.serialize(), R"({"sub":{"a":1}})");
}

TEST_F(JsonWriterTest, NestedWritersAreInTheParentAtOnce) {
    json_writer sub = writer.make_subobject("sub");
    EXPECT_STREQ(writer.serialize(), R"({"sub":{}})");
    sub.insert_int("a", 1);
    EXPECT_STREQ(writer.serialize(), R"({"sub":{"a":1}})");
}

TEST_F(JsonWriterTest, AnArrayAppendsAndIgnoresKeys) {
    json_writer list = writer.make_array("list");
    list.insert_string("ignored", "one");
    list.insert_int("ignored", 2);
    list.insert_int(nullptr, 3);
    EXPECT_STREQ(writer.serialize(), R"({"list":["one",2,3]})");
}

TEST_F(JsonWriterTest, AnArrayTakesNestedObjectsAndArrays) {
    json_writer list = writer.make_array("list");
    {
        json_writer(false, list, nullptr).insert_int("a", 1);
        json_writer(false, list, "ignored").insert_int("a", 2);
        json_writer(true, list, nullptr).insert_int("", 3);
    }
    EXPECT_STREQ(writer.serialize(), R"({"list":[{"a":1},{"a":2},[3]]})");
}

TEST_F(JsonWriterTest, NestsDeeply) {
    json_writer radio = writer.make_subobject("radio");
    json_writer vaps = radio.make_array("vaps");
    json_writer vap = vaps.make_subobject(nullptr);
    vap.insert_string("ssid", "guest");
    EXPECT_STREQ(writer.serialize(), R"({"radio":{"vaps":[{"ssid":"guest"}]}})");
}

}  // namespace
