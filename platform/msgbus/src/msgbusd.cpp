// msgbusd: the broker of the local message bus as a daemon.

#include <getopt.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "frame.h"
#include "logsink.h"
#include "msgbus_broker.h"

namespace {

constexpr const char* kUsage =
    "usage: msgbusd [-h] [-s SOCKET]\n"
    "Serves the local message bus at SOCKET (default: $MSGBUS_SOCKET, or %s)\n"
    "until SIGTERM or SIGINT.\n";

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
}

}  // namespace

int main(int argc, char** argv) {
    std::string path = msgbus::default_socket_path();
    for (int option = 0; (option = getopt(argc, argv, "hs:")) != -1;) {
        if (option != 's') {
            std::fprintf(option == 'h' ? stdout : stderr, kUsage, MSGBUS_DEFAULT_SOCKET);
            return option == 'h' ? EXIT_SUCCESS : EXIT_FAILURE;
        }
        path = optarg;
    }
    if (optind < argc) {
        std::fprintf(stderr, kUsage, MSGBUS_DEFAULT_SOCKET);
        return EXIT_FAILURE;
    }

    logsink_set_name("msgbusd");
    MsgbusBroker broker{path};
    stop_on_signals(broker);
    if (!broker.open()) {
        std::fprintf(stderr, "msgbusd: %s\n", broker.error().c_str());
        return EXIT_FAILURE;
    }
    broker.run();
    return EXIT_SUCCESS;
}
