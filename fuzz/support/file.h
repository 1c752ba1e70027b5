// File: a file that is there as long as the process and whose content an input sets.
#ifndef FUZZ_FILE_H
#define FUZZ_FILE_H

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "input.h"

namespace fuzz {

class File {
  public:
    // In memory; path() leads to it.
    File() : fd_(memfd_create("input", MFD_CLOEXEC)) { require(fd_ >= 0); }
    // At that path, in a folder that is there.
    explicit File(const std::string& path)
        : fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR)) {
        require(fd_ >= 0);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File() { close(fd_); }

    void set(std::string_view content) const {
        require(ftruncate(fd_, 0) == 0);
        require(pwrite(fd_, content.data(), content.size(), 0) ==
                static_cast<ssize_t>(content.size()));
    }
    [[nodiscard]] std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

  private:
    const int fd_;
};

}  // namespace fuzz

#endif
