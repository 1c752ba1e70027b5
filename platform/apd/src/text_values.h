// Values in texts.
#ifndef PLATFORM_APD_TEXT_VALUES_H
#define PLATFORM_APD_TEXT_VALUES_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace apd {

// The whole text as a decimal number.
[[nodiscard]] std::optional<int> parse_number(std::string_view text);

// The words between blanks, none of them empty.
[[nodiscard]] std::vector<std::string> split_words(std::string_view text);

// The lines, without their ends.
[[nodiscard]] std::vector<std::string> split_lines(std::string_view text);

// What stands behind "name=" at the beginning of a line or word; nothing when none begins so.
[[nodiscard]] std::optional<std::string> value_of(const std::vector<std::string>& lines,
                                                  std::string_view name);

// With "?" for control characters, which could tear a line of the log or upset a terminal.
[[nodiscard]] std::string without_controls(std::string text);

// The same, and not endlessly long.
[[nodiscard]] std::string for_log(std::string_view text);

}  // namespace apd

#endif
