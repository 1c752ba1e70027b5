// bench_waits THREADS: the least that so many workers can do. Each waits on an event descriptor of
// its own, 100 ms at a time, until the process is ended.

#include <poll.h>
#include <sys/eventfd.h>

#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

constexpr int wait_ms = 100;

void wait_for_ever() {
    const int event = eventfd(0, EFD_CLOEXEC);
    for (;;) {
        pollfd entry{event, POLLIN, 0};
        if (poll(&entry, 1, wait_ms) < 0)
            std::abort();
    }
}

}  // namespace

int main(int argc, char** argv) {
    const int count = argc == 2 ? std::atoi(argv[1]) : 0;
    if (count < 1)
        return EXIT_FAILURE;
    std::vector<std::thread> threads;
    for (int i = 1; i < count; i++) {
        threads.emplace_back(wait_for_ever);
        std::this_thread::sleep_for(std::chrono::milliseconds(wait_ms / count));  // not in step
    }
    wait_for_ever();
}
