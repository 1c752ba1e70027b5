#include "pause_log.h"

#include <poll.h>

#include <cerrno>

#include "hidden.h"

namespace {

thread_local PauseLog* active = nullptr;

}  // namespace

extern "C" int usleep(useconds_t us) {
    if (active == nullptr)
        return hidden<int (*)(useconds_t)>("usleep")(us);
    active->pause(us);
    return 0;
}

extern "C" int poll(pollfd* descriptors, nfds_t count, int timeout_ms) {
    if (active == nullptr)
        return hidden<int (*)(pollfd*, nfds_t, int)>("poll")(descriptors, count, timeout_ms);
    if (descriptors == nullptr && count != 0) {
        errno = EFAULT;
        return -1;
    }
    active->wait(timeout_ms);
    return 0;
}

PauseLog::PauseLog(std::function<void()> meanwhile) : meanwhile_(std::move(meanwhile)) {
    active = this;
}

PauseLog::~PauseLog() {
    active = nullptr;
}

void PauseLog::pause(useconds_t us) {
    pauses_.push_back(us);
    meanwhile_();
}

void PauseLog::wait(int ms) {
    waits_.push_back(ms);
    meanwhile_();
}
