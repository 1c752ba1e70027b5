#include "json_writer.h"

#include <json-c/json.h>

#include <utility>

json_writer::json_writer(const std::string& service, const std::string& cmd,
                         const std::string& ap_mac, const std::string& version)
    : obj(json_object_new_object()), is_array(false), parent(nullptr) {
    const std::pair<const char*, const std::string&> header[] = {
        {"version", version}, {"service", service}, {"cmd", cmd}, {"ap-mac", ap_mac}};
    for (const auto& [key, value] : header) {
        if (!value.empty())
            insert_string(key, value);
    }
}

json_writer::json_writer(bool array, const json_writer& parent_writer, const char* key)
    : obj(array ? json_object_new_array() : json_object_new_object()),
      is_array(array),
      parent(&parent_writer) {
    const int result = parent_writer.fail() ? -1
                       : parent_writer.is_array
                           ? json_object_array_add(parent_writer.obj, obj)
                           : json_object_object_add(parent_writer.obj, key, obj);
    if (result != 0)
        json_object_put(std::exchange(obj, nullptr));
}

json_writer::~json_writer() {
    if (parent == nullptr)
        json_object_put(obj);
}

json_writer json_writer::make_subobject(const char* key) const {
    return json_writer(false, *this, key);
}

json_writer json_writer::make_array(const char* key) const {
    return json_writer(true, *this, key);
}

void json_writer::insert_string(const char* key, const char* value) {
    if (value != nullptr)
        insert(key, json_object_new_string(value));
}

void json_writer::insert_string(const char* key, const std::string& value) {
    insert(key, json_object_new_string_len(value.data(), static_cast<int>(value.size())));
}

void json_writer::insert_int(const char* key, int value) {
    insert(key, json_object_new_int(value));
}

void json_writer::insert(const char* key, json_object* value) {
    if (fail() || value == nullptr) {
        json_object_put(value);
        return;
    }
    const int result = is_array
                           ? json_object_array_put_idx(obj, static_cast<std::size_t>(idx++), value)
                           : json_object_object_add(obj, key, value);
    if (result != 0)
        json_object_put(value);
}

const char* json_writer::serialize() const {
    return json_object_to_json_string_ext(obj, JSON_C_TO_STRING_PLAIN);
}
