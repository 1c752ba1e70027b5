#include "driver_io.h"

#include <algorithm>
#include <cstdarg>

#include "lum_trace.h"
#include "owned.h"

namespace {

constexpr std::string_view alphanumeric =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

bool consists_of(std::string_view text, std::string_view punctuation) {
    return std::all_of(text.begin(), text.end(), [&](char c) {
        return alphanumeric.find(c) != std::string_view::npos ||
               punctuation.find(c) != std::string_view::npos;
    });
}

}  // namespace

namespace driver_io {

bool is_interface_name(std::string_view name) {
    return !name.empty() && name.front() != '-' && name != "." &&
           name.find("..") == std::string_view::npos && consists_of(name, "._:-");
}

bool accepts(std::string_view ifname, const char* function, int line) {
    if (is_interface_name(ifname))
        return true;
    trace.error("<%s:%d> refused interface name '%.*s'\n", function, line,
                static_cast<int>(ifname.size()), ifname.data());
    return false;
}

bool is_plain_text(std::string_view text) {
    return consists_of(text, "._:,+=@%/-");
}

std::string format_cut(std::size_t size, const char* format, ...) {
    std::string text(size, '\0');
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(text.data(), size, format, args);
    va_end(args);
    text.resize(std::min(static_cast<std::size_t>(std::max(length, 0)), size - 1));
    return text;
}

bool write_entry(const std::string& path, std::string_view text) {
    file_ptr file{std::fopen(path.c_str(), "w+")};
    if (!file)
        return false;
    const bool taken = std::fwrite(text.data(), 1, text.size(), file.get()) == text.size();
    // What the kernel says of the text comes with the write, which may be as late as this.
    const bool closed = std::fclose(file.release()) == 0;
    if (!taken || !closed)
        trace.debug("<%s:%d> cannot write procfs entry(%s)\n", __func__, __LINE__, path.c_str());
    return true;
}

pipe_ptr open_read_pipe(const std::string& command) {
    return pipe_ptr{popen(command.c_str(), "re")};
}

pipe_ptr open_write_pipe(const std::string& command) {
    return pipe_ptr{popen(command.c_str(), "we")};
}

}  // namespace driver_io
