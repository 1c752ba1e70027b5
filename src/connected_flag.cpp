#include "connected_flag.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "lum_trace.h"

namespace {

struct file_closer {
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): this is the owner
    void operator()(std::FILE* file) const { std::fclose(file); }
};

}  // namespace

void set_orvanta_connected_mode() {
    const std::unique_ptr<std::FILE, file_closer> file(std::fopen(orvanta_connected_file, "w+"));
    if (!file)
        trace.error("Cannot create %s: %s\n", orvanta_connected_file, std::strerror(errno));
}

void unset_orvanta_connected_mode() {
    unlink(orvanta_connected_file);
}
