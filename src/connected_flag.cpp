#include "connected_flag.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "lum_trace.h"

void set_orvanta_connected_mode() {
    std::FILE* const file = std::fopen(orvanta_connected_file, "w+");
    if (file != nullptr)
        std::fclose(file);
    else
        trace.error("Cannot create %s: %s\n", orvanta_connected_file, std::strerror(errno));
}

void unset_orvanta_connected_mode() {
    unlink(orvanta_connected_file);
}
