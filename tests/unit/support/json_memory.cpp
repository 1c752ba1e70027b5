#include "json_memory.h"

#include <json-c/json.h>

#include "hidden.h"

namespace {

thread_local JsonShortage::Kind next_to_fail = JsonShortage::NONE;
thread_local int still_given = 0;
thread_local int releases = 0;

bool strikes(JsonShortage::Kind kind) {
    if (next_to_fail != kind || still_given-- > 0)
        return false;
    next_to_fail = JsonShortage::NONE;
    return true;
}

}  // namespace

extern "C" json_object* json_object_new_object() {
    if (strikes(JsonShortage::OBJECT))
        return nullptr;
    return hidden<json_object* (*)()>("json_object_new_object")();
}

extern "C" json_object* json_object_new_array() {
    if (strikes(JsonShortage::ARRAY))
        return nullptr;
    return hidden<json_object* (*)()>("json_object_new_array")();
}

extern "C" json_object* json_object_new_string_len(const char* text, const int length) {
    if (strikes(JsonShortage::STRING))
        return nullptr;
    return hidden<json_object* (*)(const char*, int)>("json_object_new_string_len")(text, length);
}

extern "C" json_object* json_object_new_int(int32_t value) {
    if (strikes(JsonShortage::INT))
        return nullptr;
    return hidden<json_object* (*)(int32_t)>("json_object_new_int")(value);
}

extern "C" const char* json_object_to_json_string_ext(json_object* value, int flags) {
    if (strikes(JsonShortage::TEXT))
        return nullptr;
    return hidden<const char* (*)(json_object*, int)>("json_object_to_json_string_ext")(value,
                                                                                        flags);
}

extern "C" int json_object_put(json_object* value) {
    releases += value != nullptr ? 1 : 0;
    return hidden<int (*)(json_object*)>("json_object_put")(value);
}

JsonShortage::JsonShortage(Kind kind, int given) {
    next_to_fail = kind;
    still_given = given;
}

JsonShortage::~JsonShortage() {
    next_to_fail = NONE;
}

bool JsonShortage::has_struck() const {
    return next_to_fail == NONE;
}

JsonReleases::JsonReleases() : before_(releases) {}

int JsonReleases::count() const {
    return releases - before_;
}
