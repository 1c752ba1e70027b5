// Files that are replaced as a whole.
#ifndef PLATFORM_APD_STORED_FILE_H
#define PLATFORM_APD_STORED_FILE_H

#include <cstddef>
#include <optional>
#include <string>

namespace apd {

inline constexpr std::size_t kMaxFileBytes = std::size_t{1024} * 1024;

// Nothing, with errno set, when it cannot be read; EFBIG when it is longer than kMaxFileBytes.
[[nodiscard]] std::optional<std::string> read_file(const std::string& path);

// The text in a new file beside it, on the disk, then under its name; with these
// access bits, by default for its owner alone.
// False, with errno set, when it could not be done: the old file is then as it was.
[[nodiscard]] bool replace_file(const std::string& path, const std::string& text,
                                unsigned mode = 0600);

}  // namespace apd

#endif
