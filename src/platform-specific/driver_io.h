// The driver layer's doors to procfs and to command-line tools, which take interface names, MIB
// names and values as text: nothing passes that would change the meaning of a path or shell line.
#ifndef LUMD_DRIVER_IO_H
#define LUMD_DRIVER_IO_H

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

namespace driver_io {

// Sizes that texts are cut to, with their terminating zero.
inline constexpr std::size_t path_size = 64;
inline constexpr std::size_t iwpriv_command_size = 256;
inline constexpr std::size_t wpa_cli_command_size = 1024;

// Letters, digits and "._:-", not beginning with "-" and without "..": one element of a path and
// one word of a shell line.
[[nodiscard]] bool is_interface_name(std::string_view name);

// As above; logs an error line "<function:line> ..." for any other name.
[[nodiscard]] bool accepts(std::string_view ifname, const char* function, int line);

// Only characters without a meaning to the shell; the empty text is fine.
[[nodiscard]] bool is_plain_text(std::string_view text);

// printf(3) into `size` bytes, the terminating zero included.
[[nodiscard, gnu::format(printf, 2, 3)]] std::string format_cut(std::size_t size,
                                                                const char* format, ...);

// Writes one text to a procfs entry; false when it cannot be opened. One that does not take the
// text is a debug line and no failure: a driver may take a command and say otherwise.
[[nodiscard]] bool write_entry(const std::string& path, std::string_view text);

// A child of popen(3); closing waits for its end.
struct pipe_closer {
    void operator()(FILE* pipe) const { pclose(pipe); }
};
using pipe_ptr = std::unique_ptr<FILE, pipe_closer>;

[[nodiscard]] pipe_ptr open_read_pipe(const std::string& command);
// For tools that are given nothing but their command line.
[[nodiscard]] pipe_ptr open_write_pipe(const std::string& command);

}  // namespace driver_io

#endif
