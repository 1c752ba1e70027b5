#include "files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

#include "owned_fd.h"

namespace {

// Does not wait for a named pipe, nor takes a terminal.
int open_for_a_look(const std::string& path) {
    return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
}

struct folder_closer {
    void operator()(DIR* folder) const { closedir(folder); }
};

std::optional<std::string> read_all(int fd, std::size_t limit) {
    std::string text;
    while (text.size() < limit) {
        char piece[4096];
        const ssize_t count = read(fd, piece, std::min(sizeof piece, limit - text.size()));
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return std::nullopt;
        if (count == 0)
            break;
        text.append(piece, static_cast<std::size_t>(count));
    }
    return text;
}

}  // namespace

std::optional<std::string> read_file(const std::string& path, std::size_t limit) {
    const owned_fd file(open_for_a_look(path));
    return file.fd < 0 ? std::nullopt : read_all(file.fd, limit);
}

std::optional<std::string> read_end_of_file(const std::string& path, std::size_t limit) {
    const owned_fd file(open_for_a_look(path));
    if (file.fd < 0)
        return std::nullopt;
    const off_t size = lseek(file.fd, 0, SEEK_END);
    const off_t begin = std::max<off_t>(0, size - static_cast<off_t>(limit));
    if (size < 0 || lseek(file.fd, begin, SEEK_SET) < 0)
        return std::nullopt;
    return read_all(file.fd, limit);
}

std::optional<std::vector<std::string>> list_folder(const std::string& path) {
    const std::unique_ptr<DIR, folder_closer> folder(opendir(path.c_str()));
    if (!folder)
        return std::nullopt;
    std::vector<std::string> names;
    while (const dirent* const entry = readdir(folder.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    return names;
}

std::optional<long> age_of_file(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return std::nullopt;
    return static_cast<long>(std::max<std::time_t>(0, std::time(nullptr) - status.st_mtime));
}

std::string duration_text(long seconds) {
    constexpr long minute = 60;
    constexpr long hour = 60 * minute;
    constexpr long day = 24 * hour;
    if (seconds < 2 * minute)
        return std::to_string(seconds) + " s";
    if (seconds < 2 * hour)
        return std::to_string(seconds / minute) + " min";
    if (seconds < 2 * day)
        return std::to_string(seconds / hour) + " h";
    return std::to_string(seconds / day) + " d";
}

std::string reason_text(int error) {
    switch (error) {
        case EACCES:
        case EPERM:
            return "not allowed to look";
        case ENOENT:
            return "is not there";
        default:
            return std::strerror(error);
    }
}
