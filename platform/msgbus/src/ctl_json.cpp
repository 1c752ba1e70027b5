#include "ctl_json.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

#include "tree.h"

namespace msgbusctl {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";

// The bytes of UTF-8's table: a first byte in [low, high], whose second is in [second_low,
// second_high] and all others in [0x80, 0xBF].
struct Form {
    std::uint8_t low, high;
    std::size_t length;
    std::uint8_t second_low, second_high;
};
constexpr std::array<Form, 8> kForms{{{0x00, 0x7F, 1, 0, 0},
                                      {0xC2, 0xDF, 2, 0x80, 0xBF},
                                      {0xE0, 0xE0, 3, 0xA0, 0xBF},
                                      {0xE1, 0xEC, 3, 0x80, 0xBF},
                                      {0xED, 0xED, 3, 0x80, 0x9F},
                                      {0xEE, 0xEF, 3, 0x80, 0xBF},
                                      {0xF0, 0xF0, 4, 0x90, 0xBF},
                                      {0xF1, 0xF4, 4, 0x80, 0xBF}}};
constexpr std::uint8_t kLastControl = 0x1F;
constexpr std::uint8_t kLastPlane = 0xF4;
constexpr std::uint8_t kLastPlaneEnd = 0x8F;  // U+10FFFF

std::uint8_t byte_at(std::string_view text, std::size_t index) {
    return static_cast<std::uint8_t>(text[index]);
}

bool is_within(std::uint8_t byte, std::uint8_t low, std::uint8_t high) {
    return low <= byte && byte <= high;
}

// Bytes of the character that `text` begins with; 0 when it is none.
std::size_t character_length(std::string_view text) {
    const std::uint8_t first = byte_at(text, 0);
    const auto form = std::find_if(kForms.begin(), kForms.end(), [&](const Form& candidate) {
        return is_within(first, candidate.low, candidate.high);
    });
    if (form == kForms.end() || text.size() < form->length)
        return 0;
    for (std::size_t i = 1; i < form->length; i++) {
        const std::uint8_t low = i == 1 ? form->second_low : 0x80;
        const std::uint8_t high = i == 1 ? form->second_high : 0xBF;
        if (!is_within(byte_at(text, i), low, high))
            return 0;
    }
    return first == kLastPlane && byte_at(text, 1) > kLastPlaneEnd ? 0 : form->length;
}

// The JSON text with blanks for its control characters; empty when one is within a string, which
// JSON forbids and a cfgtree takes.
std::string without_line_feeds(std::string_view json) {
    std::string line;
    bool is_string = false;
    bool is_escaped = false;
    for (const char byte : json) {
        const bool is_control = is_within(static_cast<std::uint8_t>(byte), 0, kLastControl);
        if (is_control && is_string)
            return "";
        line += is_control ? ' ' : byte;
        is_string = is_string != (byte == '"' && !is_escaped);
        is_escaped = byte == '\\' && !is_escaped;
    }
    return line;
}

}  // namespace

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = character_length(text);
        if (length == 0)
            return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string quote(std::string_view text) {
    std::string quoted{'"'};
    for (const char byte : text) {
        const auto value = static_cast<unsigned char>(byte);
        std::array<char, 8> escaped{byte, '\0'};
        if (byte == '"' || byte == '\\')
            escaped = {'\\', byte, '\0'};
        else if (value < ' ' || value == 0x7F)
            std::snprintf(escaped.data(), escaped.size(), "\\u%04x", value);
        quoted += escaped.data();
    }
    return quoted + '"';
}

std::string hexadecimal(std::string_view bytes) {
    constexpr const char* kDigits = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        text += kDigits[value >> 4];
        text += kDigits[value & 0x0F];
    }
    return text;
}

std::string json_line(std::string_view text) {
    text = text.substr(0, text.find_last_not_of('\0') + 1);
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos)
        return "";
    text = text.substr(first, text.find_last_not_of(kBlanks) + 1 - first);
    const msgbus::Tree tree{cfgtree_parse_buffer(text.data(), text.size())};
    if (!tree && text != "null")
        return "";
    return without_line_feeds(text);
}

}  // namespace msgbusctl
