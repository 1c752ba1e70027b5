// Pieces of JSON lines (RFC 8259).
#ifndef PLATFORM_MSGBUS_CTL_JSON_H
#define PLATFORM_MSGBUS_CTL_JSON_H

#include <string>
#include <string_view>

namespace msgbusctl {

// RFC 3629: no surrogates, nothing beyond U+10FFFF, no character longer than it need be.
[[nodiscard]] bool is_utf8(std::string_view text);

// The string with these characters, which are UTF-8.
[[nodiscard]] std::string quote(std::string_view text);

// Two digits a byte.
[[nodiscard]] std::string hexadecimal(std::string_view bytes);

// The JSON value on one line; empty when the text is no JSON. Numbers and strings stay as they are
// written; line feeds and tabulators between them become blanks, NULs at the end are left out.
[[nodiscard]] std::string json_line(std::string_view text);

}  // namespace msgbusctl

#endif
