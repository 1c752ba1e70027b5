// Files as an operator's tool meets them: of any kind, any length, and not always to be read.
#ifndef LUMCTL_FILES_H
#define LUMCTL_FILES_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

// At most `limit` bytes of the file, from the beginning. Nothing, with errno set, when it cannot be
// read; never waits for a named pipe.
[[nodiscard]] std::optional<std::string> read_file(const std::string& path, std::size_t limit);

// At most `limit` bytes of its end.
[[nodiscard]] std::optional<std::string> read_end_of_file(const std::string& path,
                                                          std::size_t limit);

// Names in the folder but "." and ".."; nothing, with errno set, when it cannot be listed.
[[nodiscard]] std::optional<std::vector<std::string>> list_folder(const std::string& path);

// Seconds since the file was written last, not below 0; nothing, with errno set, without the file.
[[nodiscard]] std::optional<long> age_of_file(const std::string& path);

// "12 s", "4 min", "3 h", "5 d".
[[nodiscard]] std::string duration_text(long seconds);

// strerror(3), with plain words for what an operator meets most: "not allowed to look",
// "is not there".
[[nodiscard]] std::string reason_text(int error);

#endif
