#include "json_reader.h"

#include <json-c/json.h>

#include "text.h"

namespace {

// The value of `key`, borrowed; null also for a JSON null. Sets `found` when there is such a key.
json_object* find(json_object* object, const char* key, bool& found) {
    json_object* value = nullptr;
    found = json_object_object_get_ex(object, key, &value) != 0;
    return value;
}

json_object* find(json_object* object, const char* key) {
    bool found = false;
    return find(object, key, found);
}

// Element `i`, borrowed; null when `array` is none or is shorter.
json_object* element(json_object* array, std::size_t i) {
    return json_object_is_type(array, json_type_array) ? json_object_array_get_idx(array, i)
                                                       : nullptr;
}

}  // namespace

json_reader::json_reader(const char* text)
    : msg(text == nullptr ? nullptr : json_tokener_parse(text)), clearable(true) {}

json_reader::json_reader(json_reader&& other) noexcept
    : msg(other.msg), clearable(other.clearable) {
    other.msg = nullptr;
}

json_reader::~json_reader() {
    if (clearable)
        json_object_put(msg);
}

const char* json_reader::get_string(const char* key) const {
    return json_object_get_string(find(msg, key));
}

int json_reader::get_int(const char* key) const {
    return json_object_get_int(find(msg, key));
}

std::optional<int> json_reader::get_opt_int(const char* key) const {
    bool found = false;
    json_object* value = find(msg, key, found);
    if (!found)
        return std::nullopt;
    return json_object_get_int(value);
}

json_reader json_reader::get_subobject(const char* key) const {
    return json_reader(find(msg, key));
}

json_reader json_reader::get_array_element(std::size_t i) const {
    return json_reader(element(msg, i));
}

int json_reader::get_array_element_int(std::size_t i) const {
    return json_object_get_int(element(msg, i));
}

std::size_t json_reader::array_length() const {
    return json_object_is_type(msg, json_type_array) ? json_object_array_length(msg) : 0;
}

bool json_reader::is_object() const {
    return json_object_is_type(msg, json_type_object);
}

const char* json_reader::serialize() const {
    return text_of(json_object_to_json_string_ext(msg, JSON_C_TO_STRING_PLAIN));
}
