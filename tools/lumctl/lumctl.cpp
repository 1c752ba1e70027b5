// lumctl: tells an operator what an agent lacks, and how it does.

#include <getopt.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "check.h"
#include "json_writer.h"
#include "status.h"

namespace {

constexpr int exit_usage = 64;  // EX_USAGE of sysexits.h: no finding has it
constexpr int default_seconds = 5;
constexpr int most_seconds = 60;
constexpr int watch_seconds = 2;
constexpr const char* clear_screen = "\x1b[H\x1b[2J";
constexpr const char* default_config = "/etc/lumd/lumd.conf";

constexpr const char* usage =
    "usage: lumctl check [-f FILE] [-t SECONDS] [--json]\n"
    "       lumctl status [-f FILE] [--watch] [--json]\n"
    "       lumctl --help | --version\n"
    "check   looks at everything that lumd needs, and says what to do\n"
    "status  tells how the running lumd does\n"
    "  -f FILE     lumd's configuration (default: the running lumd's for status,\n"
    "              or %s)\n"
    "  -t SECONDS  each step ends within this time (default: %d)\n"
    "  --watch     again every %d seconds, until a signal\n"
    "  --json      one JSON object on one line\n"
    "Exit status: 0 all is well, 1 warnings, 2 something is broken, 64 wrong use.\n";

struct options {
    std::string config;
    int seconds = default_seconds;
    bool json = false;
    bool watch = false;
    bool seconds_given = false;
};

void print_usage(std::FILE* out) {
    std::fprintf(out, usage, default_config, default_seconds, watch_seconds);
}

[[noreturn]] void wrong_use(const std::string& what) {
    std::fprintf(stderr, "lumctl: %s\n", what.c_str());
    print_usage(stderr);
    std::exit(exit_usage);
}

int seconds_of(std::string_view text) {
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || value < 1 ||
        value > most_seconds)
        wrong_use("'" + std::string(text) + "' is not a number of seconds from 1 to " +
                  std::to_string(most_seconds));
    return value;
}

void print_json(const json_writer& object) {
    std::puts(object.serialize());
    std::fflush(stdout);
}

int print_check(const options& chosen) {
    const std::string config = chosen.config.empty() ? default_config : chosen.config;
    const report found = run_check(config, std::chrono::seconds(chosen.seconds));
    if (chosen.json) {
        json_writer object("", "", "", "");
        found.write(object);
        print_json(object);
    } else {
        std::fputs(found.lines().c_str(), stdout);
    }
    return static_cast<int>(found.worst());
}

int print_status(const options& chosen) {
    const agent_status status(chosen.config, default_config);
    if (chosen.json) {
        json_writer object("", "", "", "");
        status.write(object);
        print_json(object);
    } else {
        if (chosen.watch && isatty(STDOUT_FILENO) != 0)
            std::fputs(clear_screen, stdout);
        std::fputs(status.judge().wrapped().c_str(), stdout);
        std::fflush(stdout);
    }
    return static_cast<int>(status.judge().worst());
}

int watch_status(const options& chosen) {
    for (;;) {
        print_status(chosen);
        if (std::ferror(stdout) != 0)
            return EXIT_FAILURE;
        sleep(watch_seconds);
    }
}

options parse_options(int argc, char** argv) {
    constexpr option long_options[] = {
        {"help", no_argument, nullptr, 'h'}, {"version", no_argument, nullptr, 'V'},
        {"json", no_argument, nullptr, 'j'}, {"watch", no_argument, nullptr, 'w'},
        {nullptr, no_argument, nullptr, 0},
    };
    options chosen;
    for (int given = 0; (given = getopt_long(argc, argv, "f:t:h", long_options, nullptr)) != -1;) {
        switch (given) {
            case 'f':
                chosen.config = optarg;
                break;
            case 't':
                chosen.seconds = seconds_of(optarg);
                chosen.seconds_given = true;
                break;
            case 'j':
                chosen.json = true;
                break;
            case 'w':
                chosen.watch = true;
                break;
            case 'h':
                print_usage(stdout);
                std::exit(EXIT_SUCCESS);
            case 'V':
                std::puts("lumctl " LUMD_VERSION);
                std::exit(EXIT_SUCCESS);
            default:
                print_usage(stderr);
                std::exit(exit_usage);
        }
    }
    return chosen;
}

}  // namespace

int main(int argc, char** argv) {
    const options chosen = parse_options(argc, argv);
    if (argc - optind != 1)
        wrong_use(argc == optind ? "say what to do" : "too many words");
    const std::string_view verb = argv[optind];
    if (verb == "check" && chosen.watch)
        wrong_use("--watch belongs to status");
    if (verb == "status" && chosen.seconds_given)
        wrong_use("-t belongs to check");
    if (verb == "check")
        return print_check(chosen);
    if (verb == "status")
        return chosen.watch ? watch_status(chosen) : print_status(chosen);
    wrong_use("unknown command '" + std::string(verb) + "'");
}
