#include "connected_flag.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "lum_trace.h"
#include "owned.h"

void set_orvanta_connected_mode() {
    const file_ptr file(std::fopen(orvanta_connected_file, "w+"));
    if (!file)
        trace.error("Cannot create %s: %s\n", orvanta_connected_file, std::strerror(errno));
}

void unset_orvanta_connected_mode() {
    unlink(orvanta_connected_file);
}
