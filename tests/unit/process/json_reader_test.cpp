#include "json_reader.h"

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <memory>
#include <string>
#include <utility>

#include "json_memory.h"

namespace {

const json_reader& document() {
    static const json_reader reader(R"({
        "text": "abc", "number": 42, "negative": -7, "big": 5000000000, "real": 2.75,
        "digits": "17", "true": true, "nothing": null,
        "object": {"inner": "deep"}, "list": [1, "2", null, {"inner": "far"}, [5]], "empty": []
    })");
    return reader;
}

void expect_failing(const json_reader& reader) {
    EXPECT_TRUE(reader.fail());
    EXPECT_EQ(reader.get_string("text"), nullptr);
    EXPECT_EQ(reader.get_int("number"), 0);
    EXPECT_EQ(reader.get_opt_int("number"), std::nullopt);
    EXPECT_TRUE(reader.get_subobject("object").fail());
    EXPECT_TRUE(reader.get_array_element(0).fail());
    EXPECT_EQ(reader.get_array_element_int(0), 0);
    EXPECT_EQ(reader.array_length(), 0u);
    EXPECT_EQ(reader.length(), 0u);
    EXPECT_FALSE(reader.is_object());
}

TEST(JsonReader, OfInvalidTextFailsAndAnswersNothing) {
    for (const char* text : {"", "{", "{\"number\":", "nonsense", "\xff\xfe", "}"})
        expect_failing(json_reader(text));
}

TEST(JsonReader, OfNullTextFailsAndAnswersNothing) {
    expect_failing(json_reader(static_cast<const char*>(nullptr)));
}

TEST(JsonReader, OfNullObjectFailsAndAnswersNothing) {
    expect_failing(json_reader(static_cast<json_object*>(nullptr)));
}

TEST(JsonReader, OfTooDeepANestingFails) {
    expect_failing(json_reader(std::string(100000, '[').c_str()));
}

TEST(JsonReader, GetsStrings) {
    EXPECT_STREQ(document().get_string("text"), "abc");
}

TEST(JsonReader, GetStringOnANumberYieldsTheNumbersText) {
    EXPECT_STREQ(document().get_string("number"), "42");
    EXPECT_STREQ(document().get_string("true"), "true");
}

TEST(JsonReader, GetStringIsNullForAMissingKeyAndANullValue) {
    EXPECT_EQ(document().get_string("missing"), nullptr);
    EXPECT_EQ(document().get_string("nothing"), nullptr);
}

TEST(JsonReader, GetsIntegers) {
    EXPECT_EQ(document().get_int("number"), 42);
    EXPECT_EQ(document().get_int("negative"), -7);
}

TEST(JsonReader, ConvertsToIntegersAsTheLibraryDoes) {
    EXPECT_EQ(document().get_int("digits"), 17);
    EXPECT_EQ(document().get_int("true"), 1);
    EXPECT_EQ(document().get_int("real"), 2);
    EXPECT_EQ(document().get_int("big"), INT32_MAX);
    EXPECT_EQ(document().get_int("text"), 0);
    EXPECT_EQ(document().get_int("object"), 0);
}

TEST(JsonReader, GetIntIsZeroForAMissingKeyAndANullValue) {
    EXPECT_EQ(document().get_int("missing"), 0);
    EXPECT_EQ(document().get_int("nothing"), 0);
}

TEST(JsonReader, GetOptIntTellsMissingFromNull) {
    EXPECT_EQ(document().get_opt_int("missing"), std::nullopt);
    EXPECT_EQ(document().get_opt_int("nothing"), 0);
    EXPECT_EQ(document().get_opt_int("number"), 42);
}

TEST(JsonReader, SubobjectsBorrow) {
    EXPECT_STREQ(document().get_subobject("object").get_string("inner"), "deep");
    EXPECT_TRUE(document().get_subobject("missing").fail());
    EXPECT_TRUE(document().get_subobject("nothing").fail());
    EXPECT_STREQ(document().get_subobject("object").get_string("inner"), "deep");
}

TEST(JsonReader, ReadsArraysByIndex) {
    const json_reader list = document().get_subobject("list");
    EXPECT_EQ(list.array_length(), 5u);
    EXPECT_EQ(list.length(), 5u);
    EXPECT_EQ(list.get_array_element_int(0), 1);
    EXPECT_EQ(list.get_array_element_int(1), 2);
    EXPECT_EQ(list.get_array_element_int(2), 0);
    EXPECT_STREQ(list.get_array_element(3).get_string("inner"), "far");
    EXPECT_EQ(list.get_array_element(4).get_array_element_int(0), 5);
}

TEST(JsonReader, BeyondAnArraysEndThereIsNothing) {
    const json_reader list = document().get_subobject("list");
    EXPECT_TRUE(list.get_array_element(5).fail());
    EXPECT_TRUE(list.get_array_element(static_cast<std::size_t>(-1)).fail());
    EXPECT_EQ(list.get_array_element_int(5), 0);
    EXPECT_TRUE(document().get_subobject("empty").get_array_element(0).fail());
}

TEST(JsonReader, WhatIsNoArrayHasNoElements) {
    EXPECT_EQ(document().array_length(), 0u);
    EXPECT_TRUE(document().get_array_element(0).fail());
    EXPECT_EQ(document().get_array_element_int(0), 0);
    EXPECT_EQ(document().get_subobject("text").length(), 0u);
}

TEST(JsonReader, WhatIsNoObjectHasNoKeys) {
    const json_reader list = document().get_subobject("list");
    EXPECT_FALSE(list.is_object());
    EXPECT_EQ(list.get_string("inner"), nullptr);
    EXPECT_EQ(list.get_opt_int("inner"), std::nullopt);
    EXPECT_TRUE(document().is_object());
}

TEST(JsonReader, SerialisesPlainly) {
    EXPECT_STREQ(document().get_subobject("object").serialize(), R"({"inner":"deep"})");
    EXPECT_STREQ(json_reader(R"( [ 1 , 2 ] )").serialize(), "[1,2]");
}

TEST(JsonReader, MovesItsOwnership) {
    json_reader first(R"({"number":42})");
    const json_reader second(std::move(first));
    EXPECT_EQ(second.get_int("number"), 42);
}

TEST(JsonReader, ReleasesOnceWhatItParsed) {
    auto first = std::make_unique<json_reader>("{}");
    const JsonReleases releases;
    { const json_reader second(std::move(*first)); }
    EXPECT_EQ(releases.count(), 1);
    first.reset();
    EXPECT_EQ(releases.count(), 1);
}

TEST(JsonReader, ReleasesNothingThatItBorrows) {
    const std::unique_ptr<json_object, decltype(&json_object_put)> object(
        json_tokener_parse(R"({"number":42})"), &json_object_put);
    { EXPECT_EQ(json_reader(object.get()).get_int("number"), 42); }
    EXPECT_EQ(json_reader(object.get()).get_int("number"), 42);
}

}  // namespace
