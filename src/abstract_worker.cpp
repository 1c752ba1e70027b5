#include "abstract_worker.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "logsink.h"

namespace {
constexpr int us_per_ms = 1000;
}

abstract_worker::abstract_worker(const volatile bool& worker_run_flag, std::string worker_name,
                                 int worker_execute_delay, int worker_external_loop_delay)
    : run_flag(worker_run_flag),
      name(std::move(worker_name)),
      execute_delay(worker_execute_delay),
      external_loop_delay(worker_external_loop_delay),
      eventfd(::eventfd(0, EFD_CLOEXEC)) {}

abstract_worker::~abstract_worker() {
    join();
    if (eventfd != -1)
        close(eventfd);
}

void abstract_worker::func() {
    prctl(PR_SET_NAME, ("lumd:" + name).c_str());
    while (run_flag) {
        can_run = connect();
        while (can_run && condition(run_flag))
            run_pass();
        disconnect();
        if (run_flag)
            usleep(static_cast<useconds_t>(external_loop_delay));
        can_run = false;
    }
}

void abstract_worker::run_pass() {
    if (guarded_execute() && execute_delay > 0)
        process_eventfd(execute_delay / us_per_ms);
}

bool abstract_worker::guarded_execute() {
    try {
        return execute();
    } catch (...) {
        std::printf("Unhandled exception at worker '%s'\n", name.c_str());
        std::exit(-1);
    }
}

bool abstract_worker::connect() {
    connected = __connect();
    return connected;
}

void abstract_worker::disconnect() {
    if (!connected)
        return;
    __disconnect();
    connected = false;
}

void abstract_worker::start_on_dedicated_thread() {
    try {
        th = std::thread(&abstract_worker::func, this);
    } catch (const std::system_error& error) {
        logsink_message(SINK_ERROR, "Cannot start the thread of worker '%s': %s", name.c_str(),
                        error.what());
        std::exit(-1);
    }
    started = true;
}

void abstract_worker::start_on_current_thread() {
    func();
}

void abstract_worker::join() {
    if (!started)
        return;
    th.join();
    started = false;
}

void abstract_worker::put_event() const {
    if (eventfd == 0)
        return;
    const std::uint64_t one = 1;
    // Only a descriptor that could not be made (-1) refuses the write: then nobody waits on it.
    [[maybe_unused]] const ssize_t written = write(eventfd, &one, sizeof one);
}

int abstract_worker::process_eventfd(int timeout_ms) const {
    if (eventfd == -1)
        return -1;
    pollfd descriptor{eventfd, POLLIN, 0};
    const int result = poll(&descriptor, 1, timeout_ms);
    if (result < 0 || (descriptor.revents & POLLIN) == 0)
        return result;
    std::uint64_t counter = 0;
    return static_cast<int>(read(eventfd, &counter, sizeof counter));
}
