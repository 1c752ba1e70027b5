#include "run_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

namespace apd {

namespace {

constexpr unsigned kForOwner = 0600;

int open_lock(const std::string& folder) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    return open((folder + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kForOwner);
}

}  // namespace

RunLock::RunLock(const std::string& folder)
    : fd_(open_lock(folder)),
      taken_(fd_ >= 0 && flock(fd_, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {}

RunLock::~RunLock() {
    if (fd_ >= 0)
        close(fd_);
}

}  // namespace apd
