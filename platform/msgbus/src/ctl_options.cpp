#include "ctl_options.h"

#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "ctl_modules.h"

namespace msgbusctl {

namespace {

constexpr int kExitUsage = 2;
constexpr int kDefaultAnswerSeconds = 20;
constexpr int kOwnModules = 50;  // this many at the end of the range, for short-lived tools
constexpr std::size_t kLineWidth = 80;

constexpr const char* kShortOptions = ":hs:m:wt:";
// Those without a short form have a capital letter.
constexpr std::array<option, 10> kLongOptions{{{"help", no_argument, nullptr, 'h'},
                                               {"socket", required_argument, nullptr, 's'},
                                               {"as", required_argument, nullptr, 'm'},
                                               {"wait", no_argument, nullptr, 'w'},
                                               {"timeout", required_argument, nullptr, 't'},
                                               {"json", no_argument, nullptr, 'J'},
                                               {"module", required_argument, nullptr, 'M'},
                                               {"command", required_argument, nullptr, 'C'},
                                               {"write", required_argument, nullptr, 'W'},
                                               {nullptr, 0, nullptr, 0}}};

constexpr const char* kUsage =
    "usage: msgbusctl [OPTION...] send DESTINATION [TEXT]\n"
    "       msgbusctl [OPTION...] call DESTINATION [TEXT]\n"
    "       msgbusctl [OPTION...] list\n"
    "       msgbusctl [OPTION...] monitor\n"
    "       msgbusctl names\n"
    "\n"
    "  send     send a message to a module\n"
    "  call     send it, wait for the answer and print that\n"
    "  list     show the modules on the bus and what waits for them\n"
    "  monitor  show what goes over the bus, until Ctrl-C\n"
    "  names    show the modules that have a name\n"
    "\n"
    "%s"
    "The TEXT \"-\", or none, is read from standard input.\n"
    "\n"
    "  -s, --socket SOCKET    the bus\n"
    "                         (default: $MSGBUS_SOCKET, or %s)\n"
    "  -m, --as MODULE        send, call: as this module (default: one of %d to %d)\n"
    "  -w, --wait             send: wait for the answer and print it\n"
    "  -t, --timeout SECONDS  send, call: wait so long (default: %d); implies -w\n"
    "      --json             list, monitor: for programs\n"
    "      --module MODULE    monitor: only what concerns this module (or these)\n"
    "      --command NAME     monitor: only messages with this \"command\" (or these)\n"
    "      --write FILE       monitor: write it to FILE too, as --json does\n"
    "  -h, --help             show this\n"
    "\n"
    "Examples:\n"
    "  msgbusctl call vaultd '{\"command\":\"get\",\"path\":\"/interface/wlan0/name\"}'\n"
    "  echo '{\"command\":\"reset-orvanta\",\"ifname\":\"wlan0\"}' | msgbusctl send hubd\n"
    "  msgbusctl list\n"
    "  msgbusctl monitor --module hubd --module orvanta\n"
    "  msgbusctl monitor --command wifi-client-trap --json\n";

// The sentence about modules, broken into lines.
std::string describe_names() {
    std::string text;
    std::string line =
        "A module is a number from 0 to " + std::to_string(kMaxModule) + " or a name:";
    const char* end = "";
    for (const NamedModule& named : named_modules()) {
        const std::string word = std::string{end} + ' ' + named.name;
        if (line.size() + word.size() >= kLineWidth) {
            text += line + end + '\n';
            line = named.name;
        } else {
            line += word;
        }
        end = ",";
    }
    return text + line + ".\n";
}

[[noreturn]] void show_help() {
    std::printf(kUsage, describe_names().c_str(), MSGBUS_DEFAULT_SOCKET,
                kMaxModule - kOwnModules + 1, kMaxModule, kDefaultAnswerSeconds);
    print("");
    std::exit(EXIT_SUCCESS);
}

int seconds_of(std::string_view text) {
    int value = -1;
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, value);
    if (error != std::errc{} || end != last || value < 0)
        misuse("time '" + std::string{text} + "' is not a number from 0 to " +
               std::to_string(INT32_MAX));
    return value;
}

// What getopt_long(3) calls '?': `word` is the argument it has looked at last.
[[noreturn]] void refuse_option(const std::string& word) {
    const bool is_long = word.starts_with("--");
    if (is_long && optopt != 0)
        misuse("option '" + word.substr(0, word.find('=')) + "' takes no value");
    misuse("there is no option '" + (is_long ? word : std::string{'-', static_cast<char>(optopt)}) +
           "'");
}

void take_option(Options& options, int letter, const std::string& word) {
    options.given += static_cast<char>(letter);
    switch (letter) {
        case 'h':
            show_help();
        case 's':
            options.socket = optarg;
            break;
        case 'm':
            options.module = module_of(optarg);
            break;
        case 't':
            options.seconds = seconds_of(optarg);
            [[fallthrough]];
        case 'w':
            options.wait = true;
            break;
        case 'J':
            options.json = true;
            break;
        case 'M':
            options.modules.push_back(module_of(optarg));
            break;
        case 'C':
            options.commands.emplace_back(optarg);
            break;
        case 'W':
            options.file = optarg;
            if (options.file.empty() || options.file == "-")
                misuse("--write wants the name of a file");
            break;
        case ':':
            misuse("option '" + word + "' needs a value");
        default:
            refuse_option(word);
    }
}

}  // namespace

Options::Options()
    : module(static_cast<std::uint8_t>(kMaxModule - getpid() % kOwnModules)),
      seconds(kDefaultAnswerSeconds) {}

Options parse_options(int argc, char** argv) {
    Options options;
    for (int letter = 0;
         (letter = getopt_long(argc, argv, kShortOptions, kLongOptions.data(), nullptr)) != -1;)
        take_option(options, letter, argv[optind - 1]);
    options.words.assign(argv + optind, argv + argc);
    return options;
}

std::string option_name(char letter) {
    const bool is_short = letter >= 'a' && letter <= 'z';
    for (const option& known : kLongOptions)
        if (known.val == letter && !is_short)
            return std::string{"--"} + known.name;
    return {'-', letter};
}

void fail(const std::string& what, int status) {
    std::fprintf(stderr, "msgbusctl: %s\n", what.c_str());
    std::exit(status);
}

void misuse(const std::string& what) {
    fail(what + " (see msgbusctl --help)", kExitUsage);
}

std::uint8_t module_of(std::string_view text) {
    const std::optional<std::uint8_t> module = find_module(text);
    if (!module)
        misuse("there is no module '" + std::string{text} + "'");
    return *module;
}

void print(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0)
        fail(std::string{"cannot write to standard output: "} + std::strerror(errno));
}

}  // namespace msgbusctl
