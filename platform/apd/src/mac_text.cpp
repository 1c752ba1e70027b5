#include "mac_text.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace apd {

namespace {

constexpr char kDigits[] = "0123456789abcdef";

// Bytes at every `step` characters.
std::optional<Mac> parse(std::string_view text, std::size_t step) {
    Mac mac{};
    for (std::size_t i = 0; i < mac.size(); i++) {
        const std::string_view digits = text.substr(i * step, 2);
        if (!is_hex(digits))
            return std::nullopt;
        std::from_chars(digits.data(), digits.data() + digits.size(), mac[i], 16);
    }
    return mac;
}

std::string join(const Mac& mac, std::string_view between) {
    std::string text;
    for (const std::uint8_t byte : mac) {
        if (!text.empty())
            text += between;
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xF];
    }
    return text;
}

}  // namespace

std::optional<Mac> parse_mac(std::string_view text) {
    constexpr std::size_t length = 17;
    if (text.size() != length)
        return std::nullopt;
    for (std::size_t i = 2; i < length; i += 3)
        if (text[i] != ':' && text[i] != '-')
            return std::nullopt;
    return parse(text, 3);
}

std::optional<Mac> parse_bare_mac(std::string_view text) {
    constexpr std::size_t length = 12;
    return text.size() == length ? parse(text, 2) : std::nullopt;
}

std::string to_text(const Mac& mac) {
    return join(mac, ":");
}

std::string to_bare_text(const Mac& mac) {
    return join(mac, "");
}

std::string to_hex(std::string_view bytes) {
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xF];
    }
    return text;
}

bool is_hex(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; });
}

}  // namespace apd
