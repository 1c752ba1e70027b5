// apd: network manager, configuration store and scan daemon of a Linux access point.

#include <getopt.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "daemon.h"
#include "logsink.h"
#include "run_lock.h"

namespace {

constexpr const char* kUsage =
    "usage: apd [-h] [-c FILE] [-r FOLDER] [-s FOLDER] [-g SOCKET] [-p FILE]\n"
    "           [-n FOLDER] [-l FILE]\n"
    "Manages the access points of hostapd for lumd, until SIGTERM or SIGINT.\n"
    "\n"
    "  -c FILE    settings (default: %s)\n"
    "  -r FOLDER  files for hostapd and what the service has set (default: %s)\n"
    "  -s FOLDER  the last settings that could be used (default: %s)\n"
    "  -g SOCKET  hostapd's global control socket (default: %s)\n"
    "  -p FILE    hostapd's pid file (default: %s)\n"
    "  -n FOLDER  where lumd looks for its notify files (default: %s)\n"
    "  -l FILE    log there, too\n"
    "  -h         show this\n";

apd::Daemon* running = nullptr;  // for the signal handlers

void handle_stop(int) {
    running->stop();
}

void handle_reload(int) {
    running->reload();
}

void listen_to_signals(apd::Daemon& daemon) {
    running = &daemon;
    struct sigaction action {};
    action.sa_handler = handle_stop;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    action.sa_handler = handle_reload;
    sigaction(SIGHUP, &action, nullptr);
}

[[noreturn]] void show_usage(int status) {
    const apd::DaemonOptions options;
    std::fprintf(status == EXIT_SUCCESS ? stdout : stderr, kUsage, options.config.c_str(),
                 options.run_folder.c_str(), options.state_folder.c_str(), options.hostapd.c_str(),
                 options.hostapd_pid.c_str(), options.agent_folder.c_str());
    std::exit(status);
}

apd::DaemonOptions parse_options(int argc, char** argv) {
    apd::DaemonOptions options;
    for (int option = 0; (option = getopt(argc, argv, "hc:r:s:g:p:n:l:")) != -1;) {
        switch (option) {
            case 'c':
                options.config = optarg;
                break;
            case 'r':
                options.run_folder = optarg;
                break;
            case 's':
                options.state_folder = optarg;
                break;
            case 'g':
                options.hostapd = optarg;
                break;
            case 'p':
                options.hostapd_pid = optarg;
                break;
            case 'n':
                options.agent_folder = optarg;
                break;
            case 'l':
                logsink_set_file(optarg);
                break;
            default:
                show_usage(option == 'h' ? EXIT_SUCCESS : EXIT_FAILURE);
        }
    }
    if (optind < argc)
        show_usage(EXIT_FAILURE);
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    logsink_set_name("apd");
    const apd::DaemonOptions options = parse_options(argc, argv);
    // Two would contradict each other before hostapd.
    const apd::RunLock lock{options.run_folder};
    if (lock.is_taken()) {
        logsink_message(SINK_ERROR, "another apd is at work in %s", options.run_folder.c_str());
        std::fprintf(stderr, "apd: another apd is at work in %s\n", options.run_folder.c_str());
        return EXIT_FAILURE;
    }
    apd::Daemon daemon{options};
    listen_to_signals(daemon);
    daemon.run();
    return EXIT_SUCCESS;
}
