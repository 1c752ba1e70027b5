// Texts as messages, files and interfaces give them. Nothing here throws.
#ifndef LUMD_TEXT_H
#define LUMD_TEXT_H

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>

// `text`, or the empty text for null.
[[nodiscard]] inline const char* text_of(const char* text) {
    return text != nullptr ? text : "";
}

// Null equals nothing.
[[nodiscard]] inline bool equals_ignoring_case(const char* text, const char* expected) {
    return text != nullptr && strcasecmp(text, expected) == 0;
}

[[nodiscard]] inline bool contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

// From outside, for a log line: "?" for each control character.
[[nodiscard]] inline std::string printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(),
        [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }, '?');
    return text;
}

// Reads a number as the conversion %d of scanf(3) does and moves `text` behind it; without a number
// `text` stays. What does not fit is the nearest int; scanf(3) leaves that case undefined.
[[nodiscard]] inline std::optional<int> scan_int(const char*& text) {
    constexpr long long least = std::numeric_limits<int>::min();
    constexpr long long most = std::numeric_limits<int>::max();
    char* end = nullptr;
    const long long number = std::strtoll(text, &end, 10);
    if (end == text)
        return std::nullopt;
    text = end;
    return static_cast<int>(std::clamp(number, least, most));
}

// As atoi(3), 0 without a number included; a number beyond int's range reads as the nearest one.
[[nodiscard]] inline int to_int(const char* text) {
    return scan_int(text).value_or(0);
}

#endif
