#include "stored_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

namespace apd {

namespace {

class File {
  public:
    explicit File(int fd) : fd_(fd) {}
    ~File() { close(); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    [[nodiscard]] int get() const { return fd_; }

    bool close() {
        const int fd = std::exchange(fd_, -1);
        return fd < 0 || ::close(fd) == 0;
    }

  private:
    int fd_;
};

bool write_all(int fd, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = write(fd, text.data() + done, text.size() - done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        done += static_cast<std::size_t>(count);
    }
    return true;
}

// The name must not be lost either.
bool sync_folder_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const File opened{open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    return opened.get() >= 0 && fsync(opened.get()) == 0;
}

}  // namespace

std::optional<std::string> read_file(const std::string& path) {
    // Not to be held up by a named pipe.
    const File file{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    if (file.get() < 0)
        return std::nullopt;
    std::string text;
    char piece[4096];
    for (ssize_t count = 0; (count = read(file.get(), piece, sizeof piece)) != 0;) {
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return std::nullopt;
        text.append(piece, static_cast<std::size_t>(count));
        if (text.size() > kMaxFileBytes) {
            errno = EFBIG;
            return std::nullopt;
        }
    }
    return text;
}

bool replace_file(const std::string& path, const std::string& text, unsigned mode) {
    const std::string fresh = path + ".new";
    unlink(fresh.c_str());  // of a process that was killed
    File file{open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode)};
    if (file.get() >= 0 && write_all(file.get(), text) && fsync(file.get()) == 0 && file.close() &&
        std::rename(fresh.c_str(), path.c_str()) == 0) {
        // Best effort: some file systems cannot.
        static_cast<void>(sync_folder_of(path));
        return true;
    }
    const int error = errno;
    unlink(fresh.c_str());
    errno = error;
    return false;
}

}  // namespace apd
