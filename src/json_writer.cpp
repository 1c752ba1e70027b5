#include "json_writer.h"

#include <json-c/json.h>

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>

#include "lum_trace.h"
#include "text.h"

namespace {

// Only memory can be missing. A message without the member goes its way, for what it lacks the
// receiver takes as not told. An element of an array has no name.
void report_lost(const char* member) {
    trace.error("not enough memory for '%s' of a message\n", member != nullptr ? member : "[]");
}

// The bytes of the character that `text` begins with, 0 where none begins (RFC 3629, section 4).
std::size_t utf8_length(std::string_view text) {
    const auto byte = [text](std::size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    const unsigned lead = byte(0);
    if (lead < 0x80)
        return 1;
    if (lead < 0xC2 || lead > 0xF4)
        return 0;
    // Neither longer than needed nor a surrogate nor beyond U+10FFFF.
    const unsigned least = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned most = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (byte(1) < least || byte(1) > most)
        return 0;
    const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    for (std::size_t i = 2; i < length; i++)
        if ((byte(i) & 0xC0U) != 0x80)
            return 0;
    return length;
}

std::string to_utf8(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        result += length == 0 ? "\uFFFD" : text.substr(0, length);
        text.remove_prefix(std::max(length, std::size_t{1}));
    }
    return result;
}

bool is_ascii(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

json_object* new_string(std::string_view text) {
    std::string utf8;
    if (!is_ascii(text))
        text = utf8 = to_utf8(text);
    return json_object_new_string_len(text.data(), static_cast<int>(text.size()));
}

// `key`, or what it is well-formed, which then lives in `utf8`. Null is the empty text.
const char* well_formed(const char* key, std::string& utf8) {
    const char* const name = text_of(key);
    return is_ascii(name) ? name : (utf8 = to_utf8(name)).c_str();
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

json_writer::json_writer(json_writer&& other) noexcept
    : obj(std::exchange(other.obj, nullptr)),
      is_array(other.is_array),
      parent(other.parent),
      idx(other.idx) {}

int json_writer::adopt(const char* key, json_object* child) const {
    std::string utf8;
    return is_array ? json_object_array_add(obj, child)
                    : json_object_object_add(obj, well_formed(key, utf8), child);
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

json_writer json_writer::append_object() const {
    return json_writer(false, *this, nullptr);
}

json_writer json_writer::append_array() const {
    return json_writer(true, *this, nullptr);
}

void json_writer::insert_string(const char* key, const char* value) {
    if (value != nullptr)
        insert(key, new_string(value));
}

void json_writer::insert_string(const char* key, const std::string& value) {
    insert(key, new_string(value));
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
    std::string utf8;
    return is_array ? json_object_array_put_idx(obj, static_cast<std::size_t>(idx++), value)
                    : json_object_object_add(obj, well_formed(key, utf8), value);
}

const char* json_writer::serialize() const {
    const char* text = json_object_to_json_string_ext(obj, JSON_C_TO_STRING_PLAIN);
    if (text == nullptr)
        report_lost("text");
    return text_of(text);
}
