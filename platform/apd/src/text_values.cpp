#include "text_values.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace apd {

namespace {

std::vector<std::string> split(std::string_view text, std::string_view between) {
    std::vector<std::string> pieces;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find_first_of(between, begin), text.size());
        if (end > begin)
            pieces.emplace_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return pieces;
}

}  // namespace

std::optional<int> parse_number(std::string_view text) {
    int value = 0;
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, value);
    return error == std::errc{} && end == last ? std::optional{value} : std::nullopt;
}

std::vector<std::string> split_words(std::string_view text) {
    return split(text, " ");
}

std::vector<std::string> split_lines(std::string_view text) {
    return split(text, "\r\n");
}

std::optional<std::string> value_of(const std::vector<std::string>& lines, std::string_view name) {
    const std::string begin = std::string{name} + '=';
    for (const std::string& line : lines)
        if (line.starts_with(begin))
            return line.substr(begin.size());
    return std::nullopt;
}

std::string without_controls(std::string text) {
    for (char& c : text)
        if (std::iscntrl(static_cast<unsigned char>(c)) != 0)
            c = '?';
    return text;
}

std::string for_log(std::string_view text) {
    constexpr std::size_t enough = 200;
    return without_controls(std::string{text.substr(0, enough)});
}

}  // namespace apd
