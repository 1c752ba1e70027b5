// One apd at a time in a folder.
#ifndef PLATFORM_APD_RUN_LOCK_H
#define PLATFORM_APD_RUN_LOCK_H

#include <string>

namespace apd {

// Holds "lock" in the folder, which is made when it is not there, until its own end or that of the
// process (flock(2)). Where the folder cannot be used nothing is held, and nobody is kept out.
class RunLock {
  public:
    explicit RunLock(const std::string& folder);
    ~RunLock();
    RunLock(const RunLock&) = delete;
    RunLock& operator=(const RunLock&) = delete;

    // Whether another process has it.
    [[nodiscard]] bool is_taken() const { return taken_; }

  private:
    int fd_;
    bool taken_;
};

}  // namespace apd

#endif
