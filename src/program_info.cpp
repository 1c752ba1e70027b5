#include "program_info.h"

#include <cstdio>
#include <string_view>

namespace {

constexpr const char* usage =
    "usage: lumd [-f FILE] [-d HOST] [-p PATH] [-P PORT]\n"
    "       lumd --help | --version\n"
    "Radio-management agent of a Wi-Fi access point; stays in the foreground until\n"
    "SIGTERM or SIGINT.\n"
    "  -f FILE   read the configuration; the first service URL in it enables a mode\n"
    "  -d HOST   preset the services' host, which a URL in FILE overrides\n"
    "  -p PATH   preset their request path\n"
    "  -P PORT   preset their port\n"
    "See lumd(8) and lumd.conf(5).\n";

}  // namespace

bool print_program_info(int argc, const char* const* argv) {
    const std::string_view question = argc == 2 ? argv[1] : "";
    if (question == "--help")
        std::fputs(usage, stdout);
    else if (question == "--version")
        std::puts("lumd " LUMD_VERSION);
    else
        return false;
    return true;
}
