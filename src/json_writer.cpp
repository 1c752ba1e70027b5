#include "json_writer.h"

#include <json-c/json.h>

#include <utility>

#include "lum_trace.h"
#include "text.h"

namespace {

// Only memory can be missing. A message without the member goes its way, for what it lacks the
// receiver takes as not told. An element of an array has no name.
void report_lost(const char* member) {
    trace.error("not enough memory for '%s' of a message\n", member != nullptr ? member : "[]");
}

}  // namespace

json_writer::json_writer(const std::string& service, const std::string& cmd,
                         const std::string& ap_mac, const std::string& version)
    : obj(json_object_new_object()), is_array(false), parent(nullptr) {
    if (fail())
        report_lost(cmd.c_str());
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
    if (obj != nullptr && !parent_writer.fail() && parent_writer.adopt(key, obj) == 0)
        return;
    if (!parent_writer.fail())
        report_lost(key);
    json_object_put(std::exchange(obj, nullptr));
}

int json_writer::adopt(const char* key, json_object* child) const {
    return is_array ? json_object_array_add(obj, child) : json_object_object_add(obj, key, child);
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
    if (!fail() && value != nullptr && put(key, value) == 0)
        return;
    if (!fail())
        report_lost(key);
    json_object_put(value);
}

int json_writer::put(const char* key, json_object* value) {
    return is_array ? json_object_array_put_idx(obj, static_cast<std::size_t>(idx++), value)
                    : json_object_object_add(obj, key, value);
}

const char* json_writer::serialize() const {
    if (fail())
        return "";
    const char* text = json_object_to_json_string_ext(obj, JSON_C_TO_STRING_PLAIN);
    if (text == nullptr)
        report_lost("text");
    return text_of(text);
}
