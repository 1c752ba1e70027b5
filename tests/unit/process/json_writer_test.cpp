#include "json_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "json_memory.h"
#include "log_capture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

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

// The text as a service finds it in a message.
std::string as_received(const std::string& text) {
    json_writer writer{"", "", "", ""};
    writer.insert_string("", text);
    const std::string message = writer.serialize();
    return message.substr(5, message.size() - 7);  // without {"":" and "}
}

TEST(JsonWriter, KeepsTextsOfAnyScript) {
    // The first and the last character of each length, and the neighbours of the surrogates.
    for (const char* text : {"caf\u00e9", "\x7F", "\u0080", "\u07FF", "\u0800", "\uD7FF", "\uE000",
                             "\uFFFF", "\U00010000", "\U0010FFFF"})
        EXPECT_EQ(as_received(text), text);
}

TEST(JsonWriter, ReplacesEachByteThatIsNoUtf8) {
    EXPECT_EQ(as_received("caf\xE9 1"), "caf\uFFFD 1");
    EXPECT_EQ(as_received("\xC3\xA9\xA9"), "\u00e9\uFFFD");
    EXPECT_EQ(as_received("\xC3\x7F"), "\uFFFD\x7F");
    for (const char* one : {"\x80", "\xBF", "\xC2", "\xE2", "\xF0", "\xF5", "\xFF"}) {
        EXPECT_EQ(as_received(one), "\uFFFD");
        EXPECT_EQ(as_received(one + std::string("x")), "\uFFFDx");
    }
    for (const char* two : {"\xC0\x80", "\xC1\xBF", "\xE2\x82", "\xF0\x9F", "\xC3\xC0"})
        EXPECT_EQ(as_received(two), "\uFFFD\uFFFD");
    for (const char* three : {"\xE0\x9F\xBF", "\xED\xA0\x80", "\xF0\x9F\x98"})
        EXPECT_EQ(as_received(three), "\uFFFD\uFFFD\uFFFD");
    for (const char* four : {"\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80"})
        EXPECT_EQ(as_received(four), "\uFFFD\uFFFD\uFFFD\uFFFD");
}

TEST(JsonWriter, WhatIsAppendedToAnObjectHasTheEmptyName) {
    const json_writer message{"", "", "", ""};
    message.append_object().insert_int("a", 1);
    EXPECT_STREQ(message.serialize(), R"({"":{"a":1}})");
}

TEST(JsonWriter, WritesAKeyLikeAValue) {
    json_writer writer{"", "", "", ""};
    const char* names[] = {"caf\xE9", "\xE9t\xE9", "caf\u00e9 1"};
    writer.insert_int(names[0], 1);
    writer.make_subobject(names[1]).insert_string(names[2], names[2]);
    EXPECT_STREQ(writer.serialize(),
                 "{\"caf\uFFFD\":1,\"\uFFFDt\uFFFD\":{\"caf\u00e9 1\":\"caf\u00e9 1\"}}");
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

// As any JSON text may (RFC 8259, section 7); the service compares texts byte by byte.
TEST_F(JsonWriterTest, EscapesTheSolidus) {
    writer.insert_string("a/b", "/tmp/x");
    EXPECT_STREQ(writer.serialize(), R"({"a\/b":"\/tmp\/x"})");
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

TEST_F(JsonWriterTest, AnInsertedValueTakesTheSlotOfItsNumber) {
    json_writer list = writer.make_array("list");
    { const json_writer replaced = list.append_object(); }
    list.insert_int(nullptr, 1);
    list.insert_int(nullptr, 2);
    EXPECT_STREQ(writer.serialize(), R"({"list":[1,2]})");
}

TEST_F(JsonWriterTest, AnArrayTakesNestedObjectsAndArrays) {
    json_writer list = writer.make_array("list");
    {
        list.append_object().insert_int("a", 1);
        json_writer(false, list, "ignored").insert_int("a", 2);
        list.append_array().insert_int("", 3);
    }
    EXPECT_STREQ(writer.serialize(), R"({"list":[{"a":1},{"a":2},[3]]})");
}

TEST_F(JsonWriterTest, MovesItsOwnership) {
    json_writer list = writer.make_array("list");
    list.insert_int(nullptr, 1);
    json_writer moved_list{std::move(list)};
    moved_list.insert_int(nullptr, 2);
    const json_writer moved{std::move(writer)};
    EXPECT_STREQ(moved.serialize(), R"({"list":[1,2]})");
}

TEST_F(JsonWriterTest, ReleasesNoObjectOfItsParent) {
    const JsonReleases releases;
    { const json_writer nested = writer.make_subobject("a"); }
    EXPECT_EQ(releases.count(), 0);
}

TEST_F(JsonWriterTest, ReleasesAMessageOnce) {
    auto message = std::make_unique<json_writer>("", "", "", "");
    const JsonReleases releases;
    { const json_writer moved{std::move(*message)}; }
    EXPECT_EQ(releases.count(), 1);
    message.reset();
    EXPECT_EQ(releases.count(), 1);
}

TEST_F(JsonWriterTest, NestsDeeply) {
    json_writer radio = writer.make_subobject("radio");
    json_writer vaps = radio.make_array("vaps");
    json_writer vap = vaps.make_subobject(nullptr);
    vap.insert_string("ssid", "guest");
    EXPECT_STREQ(writer.serialize(), R"({"radio":{"vaps":[{"ssid":"guest"}]}})");
}

// --- Without memory ---

class JsonWriterShortageTest : public JsonWriterTest {
  protected:
    static std::string lost(const std::string& member) {
        return "error: not enough memory for '" + member + "' of a message";
    }
    LogCapture log;
};

TEST_F(JsonWriterShortageTest, SaysNothingWhileThereIsMemory) {
    json_writer message{"rrm", "rrm-info", "", "2.4"};
    message.make_subobject("a").insert_int("b", 1);
    message.make_array("c").append_object().insert_string("d", "e");
    EXPECT_STRNE(message.serialize(), "");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(JsonWriterShortageTest, AMessageWithoutMemoryIsNullAndTakesNothing) {
    const JsonShortage shortage{JsonShortage::OBJECT};
    json_writer message{"rrm", "rrm-info", "", "2.4"};
    EXPECT_TRUE(message.fail());
    message.insert_int("a", 1);
    EXPECT_TRUE(message.make_array("b").fail());
    EXPECT_STREQ(message.serialize(), "null");
    EXPECT_THAT(log.lines(), ElementsAre(lost("rrm-info")));
}

TEST_F(JsonWriterShortageTest, AValueWithoutMessageIsReleased) {
    const JsonShortage shortage{JsonShortage::OBJECT};
    json_writer message{"", "", "", ""};
    const JsonReleases releases;
    message.insert_int("a", 1);
    EXPECT_EQ(releases.count(), 1);
    { const json_writer nested = message.make_subobject("b"); }
    EXPECT_EQ(releases.count(), 2);
}

TEST_F(JsonWriterShortageTest, AMessageLacksTheMembersThatThereWasNoMemoryFor) {
    const auto without = [](JsonShortage::Kind kind) {
        const JsonShortage shortage{kind};
        json_writer message{"", "", "", "2.4"};
        message.insert_string("s", "text");
        message.insert_int("i", 1);
        message.make_array("a").insert_int(nullptr, 2);
        return std::string{message.serialize()};
    };
    EXPECT_EQ(without(JsonShortage::STRING), R"({"s":"text","i":1,"a":[2]})");
    EXPECT_EQ(without(JsonShortage::INT), R"({"version":"2.4","s":"text","a":[2]})");
    EXPECT_EQ(without(JsonShortage::ARRAY), R"({"version":"2.4","s":"text","i":1})");
    EXPECT_THAT(log.lines(), ElementsAre(lost("version"), lost("i"), lost("a")));
}

TEST_F(JsonWriterShortageTest, AnElementOfAnArrayHasNoNameToBeReportedBy) {
    json_writer list = writer.make_array("list");
    {
        const JsonShortage shortage{JsonShortage::OBJECT};
        EXPECT_TRUE(list.append_object().fail());
    }
    const JsonShortage shortage{JsonShortage::INT};
    list.insert_int(nullptr, 1);
    EXPECT_STREQ(writer.serialize(), R"({"list":[]})");
    EXPECT_THAT(log.lines(), ElementsAre(lost("[]"), lost("[]")));
}

TEST_F(JsonWriterShortageTest, ATextWithoutMemoryIsEmpty) {
    const JsonShortage shortage{JsonShortage::TEXT};
    EXPECT_STREQ(writer.serialize(), "");
    EXPECT_THAT(log.lines(), ElementsAre(lost("text")));
}

}  // namespace
