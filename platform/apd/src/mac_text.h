// MAC addresses as texts.
#ifndef PLATFORM_APD_MAC_TEXT_H
#define PLATFORM_APD_MAC_TEXT_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace apd {

using Mac = std::array<std::uint8_t, 6>;

// "02:00:00:00:00:01", in either letter case; "-" may stand for ":".
[[nodiscard]] std::optional<Mac> parse_mac(std::string_view text);

// "020000000001".
[[nodiscard]] std::optional<Mac> parse_bare_mac(std::string_view text);

[[nodiscard]] std::string to_text(const Mac& mac);
[[nodiscard]] std::string to_bare_text(const Mac& mac);

// Two lower-case digits for each byte.
[[nodiscard]] std::string to_hex(std::string_view bytes);
[[nodiscard]] bool is_hex(std::string_view text);

}  // namespace apd

#endif
