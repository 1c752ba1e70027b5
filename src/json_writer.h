// json_writer: builds a JSON object or array (RFC 8259), members in insertion order.
#ifndef LUMD_JSON_WRITER_H
#define LUMD_JSON_WRITER_H

#include <string>

struct json_object;

// What every message of this agent begins with.
inline constexpr const char* protocol_version = "2.4";

// Service of the messages between the link and its partner; no other machine sees them.
inline constexpr const char* internal_service = "internal-ipc";

// A cheap value on the stack. A top-level writer releases its object; a nested one leaves it to
// its parent, which must outlive it. Not thread-safe.
class json_writer {
  public:
    // A new object that begins with "version", "service", "cmd" and "ap-mac", in this order and
    // each only when its text is not empty.
    json_writer(const std::string& service, const std::string& cmd, const std::string& ap_mac,
                const std::string& version);

    // A new object or array, added at once to `parent_writer`: under `key` in an object, at the
    // end of an array.
    json_writer(bool array, const json_writer& parent_writer, const char* key);

    // The other one fails from then on. Not while it has nested writers.
    json_writer(json_writer&& other) noexcept;
    json_writer(const json_writer&) = delete;
    json_writer& operator=(const json_writer&) = delete;
    json_writer& operator=(json_writer&&) = delete;
    ~json_writer();

    // A nested writer under `key` of this object.
    [[nodiscard]] json_writer make_subobject(const char* key) const;
    [[nodiscard]] json_writer make_array(const char* key) const;

    // The same at the end of this array.
    [[nodiscard]] json_writer append_object() const;
    [[nodiscard]] json_writer append_array() const;

    // Adds a member; the last value of a key stands. In an array puts the value behind those that
    // this writer inserted before and ignores the key: an array holds either inserted values or
    // nested writers' objects, not both. A null text adds nothing. An SSID may be any bytes (IEEE
    // 802.11, 9.4.2.2), a text frame may not (RFC 6455, 8.1): what is no UTF-8 becomes U+FFFD, each
    // byte of it. That holds for every key too, so that a name that a text gives is the same text
    // as a value.
    void insert_string(const char* key, const char* value);
    void insert_string(const char* key, const std::string& value);
    void insert_int(const char* key, int value);

    // json-c's plain text form: no blanks; "null" after fail(). Belongs to the writer. Empty
    // without memory for it.
    [[nodiscard]] const char* serialize() const;

    // True when json-c had no memory for the object.
    [[nodiscard]] bool fail() const { return obj == nullptr; }

  private:
    // Takes over `value`.
    void insert(const char* key, json_object* value);
    // 0, and the child is this object's; otherwise it is still the caller's.
    [[nodiscard]] int adopt(const char* key, json_object* child) const;
    [[nodiscard]] int put(const char* key, json_object* value);

    json_object* obj;
    bool is_array;
    const json_writer* parent;
    int idx = 0;  // next index of an array
};

#endif
