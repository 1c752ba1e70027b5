#include "agent_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "logsink.h"
#include "stored_file.h"

namespace apd {

namespace {

constexpr unsigned kReadable = 0644;
constexpr const char* kGeneral = "/.orvanta_notify";
constexpr const char* kStarted = "/.orvanta_notify_hostapd_started";
constexpr const char* kUpdated = "/.orvanta_notify_config_updated";

// The folder is everybody's: a file is only ever made anew, never opened through a name that
// somebody else has put there.
void make(const std::string& path) {
    const int fd =
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kReadable);
    if (fd >= 0)
        close(fd);
    else if (errno != EEXIST)
        logsink_message(SINK_ERROR, "cannot make %s: %s", path.c_str(), std::strerror(errno));
}

}  // namespace

AgentFiles::AgentFiles(std::string folder, std::string pid_file)
    : folder_(std::move(folder)), pid_file_(std::move(pid_file)) {}

// The agent looks at the specific file once the general one is there.
void AgentFiles::notify(const char* what) const {
    make(folder_ + what);
    make(folder_ + kGeneral);
}

void AgentFiles::hostapd_started(int pid) const {
    // hostapd writes its own only when it goes to the background.
    const std::string text = std::to_string(pid) + '\n';
    if (read_file(pid_file_) != text && !replace_file(pid_file_, text, kReadable))
        logsink_message(SINK_ERROR, "cannot write %s: %s", pid_file_.c_str(), std::strerror(errno));
    notify(kStarted);
}

void AgentFiles::hostapd_stopped() const {
    unlink(pid_file_.c_str());
    unlink((folder_ + kStarted).c_str());
}

void AgentFiles::config_updated() const {
    notify(kUpdated);
}

}  // namespace apd
