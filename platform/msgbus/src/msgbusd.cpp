// msgbusd: the broker of the local message bus as a daemon.

#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "frame.h"
#include "logsink.h"
#include "msgbus_broker.h"
#include "ready.h"

namespace {

constexpr const char* kUsage =
    "usage: msgbusd [-h] [-s SOCKET] [-c FILE] [-g GROUP] [-m MODE]\n"
    "Serves the local message bus at SOCKET (default: $MSGBUS_SOCKET, or %s)\n"
    "until SIGTERM or SIGINT. FILE (default: %s) says who may do what.\n";
constexpr const char* kDefaultConfig = "/etc/lumd/msgbusd.conf";

MsgbusBroker* running = nullptr;  // for the signal handler

void handle_signal(int) {
    running->stop();
}

void stop_on_signals(MsgbusBroker& broker) {
    running = &broker;
    struct sigaction action {};
    action.sa_handler = handle_signal;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    // A client may hand over the end of a pipe instead of an eventfd(2).
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
}

[[noreturn]] void fail(const std::string& why) {
    logsink_message(SINK_ERROR, "msgbusd: %s", why.c_str());
    std::fprintf(stderr, "msgbusd: %s\n", why.c_str());
    std::exit(EXIT_FAILURE);
}

[[noreturn]] void show_usage(int status) {
    std::fprintf(status == EXIT_SUCCESS ? stdout : stderr, kUsage, MSGBUS_DEFAULT_SOCKET,
                 kDefaultConfig);
    std::exit(status);
}

struct Options {
    std::string socket = msgbus::default_socket_path();
    const char* config = nullptr;  // these three: null when not given
    const char* group = nullptr;
    const char* mode = nullptr;
};

Options parse_options(int argc, char** argv) {
    Options options;
    for (int option = 0; (option = getopt(argc, argv, "hs:c:g:m:")) != -1;) {
        switch (option) {
            case 's':
                options.socket = optarg;
                break;
            case 'c':
                options.config = optarg;
                break;
            case 'g':
                options.group = optarg;
                break;
            case 'm':
                options.mode = optarg;
                break;
            default:
                show_usage(option == 'h' ? EXIT_SUCCESS : EXIT_FAILURE);
        }
    }
    if (optind < argc)
        show_usage(EXIT_FAILURE);
    return options;
}

// What the file says, and above it the options. Only a file that nobody has asked for may be
// missing.
MsgbusSettings read_settings(const Options& options) {
    MsgbusSettings settings;
    const std::string path = options.config != nullptr ? options.config : kDefaultConfig;
    errno = 0;
    std::ifstream file{path, std::ios::binary};
    if (file) {
        std::string text;
        for (std::string line; std::getline(file, line);)
            text += line + '\n';
        if (file.bad())
            fail(path + " cannot be read");
        if (const std::string error = settings.take(text); !error.empty())
            fail(path + ": " + error);
    } else if (options.config != nullptr || errno != ENOENT) {
        fail(path + ": " + std::strerror(errno));
    }
    if (options.group != nullptr && !settings.set_group(options.group))
        fail(std::string{"there is no group "} + options.group);
    if (options.group == nullptr && !settings.missing_group.empty())
        logsink_message(SINK_WARNING,
                        "msgbusd: there is no group %s: the socket is for root and this user alone",
                        settings.missing_group.c_str());
    if (options.mode != nullptr && !settings.set_mode(options.mode))
        fail(std::string{"'"} + options.mode + "' is no mode");
    return settings;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse_options(argc, argv);
    logsink_set_name("msgbusd");
    MsgbusBroker broker{options.socket, read_settings(options)};
    stop_on_signals(broker);
    if (!broker.open()) {
        std::fprintf(stderr, "msgbusd: %s\n", broker.error().c_str());
        return EXIT_FAILURE;
    }
    tell_ready();
    broker.run();
    return EXIT_SUCCESS;
}
