// json_reader: typed questions about a JSON value (RFC 8259). Nothing throws; what is missing is
// zero, null or empty.
#ifndef LUMD_JSON_READER_H
#define LUMD_JSON_READER_H

#include <cstddef>
#include <optional>

struct json_object;

// A cheap value on the stack. Not thread-safe, like the json-c object it reads.
class json_reader {
  public:
    // Parses `text` (null: a failing reader) and owns the result.
    explicit json_reader(const char* text);

    // Borrows `object`, which must outlive the reader.
    explicit json_reader(json_object* object) : msg(object), clearable(false) {}

    json_reader(json_reader&& other) noexcept;
    json_reader(const json_reader&) = delete;
    json_reader& operator=(const json_reader&) = delete;
    json_reader& operator=(json_reader&&) = delete;
    ~json_reader();

    // True when nothing was parsed or the key was missing.
    [[nodiscard]] bool fail() const { return msg == nullptr; }

    // The text of `key`, json-c's text form of a value that is no string; null when the key is
    // missing or its value is null. Belongs to the value.
    [[nodiscard]] const char* get_string(const char* key) const;

    // json-c's integer value of `key`; 0 when missing or null.
    [[nodiscard]] int get_int(const char* key) const;

    // Empty when the key is missing, 0 for a null value.
    [[nodiscard]] std::optional<int> get_opt_int(const char* key) const;

    // Borrowing readers; failing ones when there is no such value.
    [[nodiscard]] json_reader get_subobject(const char* key) const;
    [[nodiscard]] json_reader get_array_element(std::size_t i) const;

    [[nodiscard]] int get_array_element_int(std::size_t i) const;

    // 0 unless the value is an array.
    [[nodiscard]] std::size_t array_length() const;
    [[nodiscard]] std::size_t length() const { return array_length(); }

    // Whether the value is an object.
    [[nodiscard]] bool is_object() const;

    // json-c's plain text form; belongs to the value.
    [[nodiscard]] const char* serialize() const;

  private:
    json_object* msg;
    bool clearable;
};

#endif
