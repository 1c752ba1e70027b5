#include "ctl_monitor.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "connection.h"
#include "ctl_event.h"
#include "ctl_filter.h"

namespace msgbusctl {

using msgbus::Connection;
using msgbus::Message;
using msgbus::UniqueFd;

namespace {

constexpr mode_t kCaptureMode = 0600;  // what goes over the bus is not for everybody

// Set and made readable by the signals that end the program.
volatile sig_atomic_t stop_wanted = 0;
int stop_event = -1;

void want_stop(int) {
    const int saved_errno = errno;
    stop_wanted = 1;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(stop_event, &one, sizeof one);
    errno = saved_errno;
}

// Without SA_RESTART: a write to a reader that takes nothing ends too.
UniqueFd stop_on_signals() {
    UniqueFd event{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    stop_event = event.get();
    struct sigaction action {};
    action.sa_handler = want_stop;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
    return event;
}

class Monitor {
  public:
    explicit Monitor(const Options& options);

    // Returns when it is to end; without the broker fail() ends the program.
    void run();

  private:
    [[nodiscard]] bool show(const message_s& frame) const;
    [[nodiscard]] bool put(int fd, const std::string& what, std::string_view text) const;
    [[nodiscard]] bool wait() const;

    const Options& options_;
    const Filter filter_{options_.modules, options_.commands};
    const UniqueFd stop_ = stop_on_signals();
    UniqueFd file_;
    Connection bus_;
};

Monitor::Monitor(const Options& options) : options_(options) {
    if (!options.file.empty()) {
        constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
        file_.reset(open(options.file.c_str(), kFlags, kCaptureMode));
        if (!file_)
            fail("cannot write " + options.file + ": " + std::strerror(errno));
    }
    if (const int error = bus_.attach(options.socket, 0, MSGBUS_MONITOR))
        fail("cannot join the bus at " + options.socket + ": " +
             msgbus::describe_attach_error(error));
    std::fprintf(stderr, "msgbusctl: monitoring %s\n", options.socket.c_str());
}

void Monitor::run() {
    do {
        bus_.fill();
        while (const Message frame = bus_.take())
            if (stop_wanted != 0 || (filter_.lets_pass(*frame) && !show(*frame)))
                return;
        if (!bus_.connected())
            fail("the broker has ended this monitor");
    } while (wait());
}

// False when it is to end.
bool Monitor::show(const message_s& frame) const {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const std::string json = options_.json || file_ ? json_of(frame, now) + '\n' : "";
    if (file_ && !put(file_.get(), options_.file, json))
        return false;
    return put(STDOUT_FILENO, "standard output", options_.json ? json : line_of(frame, now) + '\n');
}

// Writes all of the text there. False when nobody reads it any more and at a signal.
bool Monitor::put(int fd, const std::string& what, std::string_view text) const {
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count >= 0)
            text.remove_prefix(static_cast<std::size_t>(count));
        else if (errno == EPIPE || stop_wanted != 0)
            return false;
        else if (errno != EINTR)
            fail("cannot write to " + what + ": " + std::strerror(errno));
    }
    return true;
}

// Waits for the bus. False when the user ends it and when nobody reads standard output any more.
bool Monitor::wait() const {
    std::array<pollfd, 3> entries{
        {{bus_.descriptor(), POLLIN, 0}, {stop_.get(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}}};
    while (poll(entries.data(), entries.size(), -1) < 0)
        if (errno != EINTR)
            fail(std::string{"cannot wait: "} + std::strerror(errno));
    return entries[1].revents == 0 && (entries[2].revents & (POLLERR | POLLHUP)) == 0;
}

}  // namespace

int run_monitor(const Options& options) {
    Monitor{options}.run();
    return EXIT_SUCCESS;
}

}  // namespace msgbusctl
