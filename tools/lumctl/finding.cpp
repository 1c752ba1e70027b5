#include "finding.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>

#include "json_writer.h"

namespace {

constexpr std::size_t severity_width = 9;
constexpr std::size_t check_width = 15;
constexpr std::size_t line_width = 79;
constexpr std::size_t indent = severity_width + check_width;

std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(text.size() + 1, width), ' ');
    return text;
}

// What comes from files and peers must not move a terminal's cursor.
std::string printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(),
        [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }, '?');
    return text;
}

std::string place_of(const finding& found) {
    if (found.file.empty())
        return {};
    return found.line > 0 ? found.file + ":" + std::to_string(found.line) + ": "
                          : found.file + ": ";
}

std::string text_of(const finding& found) {
    std::string text = place_of(found) + found.text;
    if (!found.advice.empty())
        text += " -> " + found.advice;
    return printable(std::move(text));
}

std::string head_of(const finding& found) {
    return padded(severity_name(found.how), severity_width) + padded(found.check, check_width);
}

// Where the first line of `text` ends: at the last blank that fits, or at the width.
std::size_t break_of(std::string_view text, std::size_t width) {
    if (text.size() <= width)
        return text.size();
    const std::size_t blank = text.rfind(' ', width);
    return blank == std::string_view::npos || blank == 0 ? width : blank;
}

std::string wrap(std::string_view text) {
    std::string lines;
    while (!text.empty()) {
        const std::size_t end = break_of(text, line_width - indent);
        if (!lines.empty())
            lines.append(indent, ' ');
        lines.append(text.substr(0, end)).append("\n");
        text.remove_prefix(end);
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    }
    return lines;
}

}  // namespace

const char* severity_name(severity how) {
    constexpr const char* names[] = {"ok", "warning", "broken"};
    return names[static_cast<std::size_t>(how)];
}

void report::ok(const char* check, std::string text) {
    add({severity::ok, check, std::move(text), {}, {}, 0});
}

void report::warning(const char* check, std::string text, std::string advice) {
    add({severity::warning, check, std::move(text), std::move(advice), {}, 0});
}

void report::broken(const char* check, std::string text, std::string advice) {
    add({severity::broken, check, std::move(text), std::move(advice), {}, 0});
}

severity report::worst() const {
    severity worst = severity::ok;
    for (const finding& found : findings_)
        worst = std::max(worst, found.how);
    return worst;
}

std::string report::lines() const {
    std::string text;
    for (const finding& found : findings_)
        text += head_of(found) + text_of(found) + "\n";
    return text;
}

std::string report::wrapped() const {
    std::string text;
    for (const finding& found : findings_)
        text += head_of(found) + wrap(text_of(found));
    return text;
}

void report::write(json_writer& object) const {
    object.insert_string("status", severity_name(worst()));
    const json_writer list = object.make_array("findings");
    for (const finding& found : findings_) {
        json_writer entry = list.append_object();
        entry.insert_string("check", found.check);
        entry.insert_string("status", severity_name(found.how));
        if (!found.file.empty())
            entry.insert_string("file", found.file);
        if (found.line > 0)
            entry.insert_int("line", found.line);
        entry.insert_string("text", found.text);
        if (!found.advice.empty())
            entry.insert_string("advice", found.advice);
    }
}
