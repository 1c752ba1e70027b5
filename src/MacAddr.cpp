#include "MacAddr.h"

#include <optional>
#include <string_view>

namespace libhubd {

namespace {

constexpr std::size_t separated_length = 17;  // 00:1a:2b:3c:4d:5e
constexpr std::size_t solid_length = 12;      // 001a2b3c4d5e
constexpr std::string_view digits = "0123456789abcdef";

std::optional<unsigned> hex_digit(char c) {
    if (c >= '0' && c <= '9')
        return static_cast<unsigned>(c - '0');
    if (c >= 'a' && c <= 'f')
        return static_cast<unsigned>(c - 'a') + 10;
    if (c >= 'A' && c <= 'F')
        return static_cast<unsigned>(c - 'A') + 10;
    return std::nullopt;
}

bool is_separator(char c) {
    return c == ':' || c == '-';
}

// Reads six pairs of digits that begin `step` characters apart; what lies between two pairs must
// be a separator.
std::optional<MacAddr::bytes_type> parse_pairs(std::string_view text, std::size_t step) {
    MacAddr::bytes_type bytes{};
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const std::size_t at = i * step;
        const auto high = hex_digit(text[at]);
        const auto low = hex_digit(text[at + 1]);
        if (!high || !low)
            return std::nullopt;
        if (step > 2 && i + 1 < bytes.size() && !is_separator(text[at + 2]))
            return std::nullopt;
        bytes[i] = static_cast<std::uint8_t>(*high << 4 | *low);
    }
    return bytes;
}

std::string format(const MacAddr::bytes_type& bytes, std::string_view separator) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        if (!text.empty())
            text += separator;
        text += digits[byte >> 4];
        text += digits[byte & 0x0f];
    }
    return text;
}

}  // namespace

MacAddr MacAddr::from_str(const char* text) {
    const std::string_view view = text == nullptr ? "" : text;
    std::size_t step = 0;
    if (view.size() == separated_length && is_separator(view[2]))
        step = 3;
    else if (view.size() == solid_length)
        step = 2;
    else
        return MacAddr(bytes_type{});
    const auto bytes = parse_pairs(view, step);
    return bytes ? MacAddr(*bytes) : MacAddr();
}

std::string MacAddr::str() const {
    return format(mac, ":");
}

std::string MacAddr::str_solid() const {
    return format(mac, "");
}

}  // namespace libhubd

std::size_t std::hash<libhubd::MacAddr>::operator()(
    const libhubd::MacAddr& address) const noexcept {
    std::uint64_t value = 0;
    for (const std::uint8_t byte : address.bytes())
        value = value << 8 | byte;
    return std::hash<std::uint64_t>{}(value);
}
