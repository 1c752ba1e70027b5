// Takes the calls that lead to the kernel's radio side and sends them to the lab: wireless ioctls
// to the installed Kernel, paths to the root folder, syslog lines to a file as well. Everything
// else goes to the next definition of the same function (dlsym(3), RTLD_NEXT).

// The fortified forms are inline functions of the same names as those defined here, and 64-bit
// files or time would give two of them one symbol.
#undef _FORTIFY_SOURCE
#undef _FILE_OFFSET_BITS
#undef _TIME_BITS

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/wireless.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "kernel.h"

namespace {

constexpr std::array<std::string_view, 3> kernel_prefixes = {"/proc/wlan", "/proc/net/rtk_wifi6",
                                                             "/sys/class/net"};

// Of the daemons beside lumd. With LAB_REAL_DAEMONS they are this machine's own.
constexpr std::array<std::string_view, 3> daemon_prefixes = {
    "/tmp/.orvanta", "/var/run/hostapd.pid", "/var/run/guardd.pid"};

// Scan trigger, BSS transition, vendor command and MIB requests of the two chip families.
constexpr std::array<unsigned long, 7> kernel_requests = {0x8B18, 0x8BA6, 0x8BBF, 0x89F1,
                                                          0x89F2, 0x89F4, 0x89F6};

struct OpenedForWriting {
    std::string path;  // as the process names it
    std::string real;  // where it lies
};

struct State {
    std::mutex mutex;
    std::string root;
    bool real_daemons = std::getenv("LAB_REAL_DAEMONS") != nullptr;
    std::map<FILE*, OpenedForWriting> written;
    std::atomic<lab::Kernel*> kernel{nullptr};
};

// Made at the first call, which may come before any constructor of the process has run, and never
// destroyed: files are still closed after the last destructor.
State& state() {
    alignas(State) static std::byte storage[sizeof(State)];
    static State* const instance = [] {
        State* const made = std::construct_at(reinterpret_cast<State*>(storage));
        if (const char* root = std::getenv("LAB_ROOT"))
            made->root = root;
        return made;
    }();
    return *instance;
}

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

template <std::size_t N>
struct Name {
    consteval Name(const char (&literal)[N]) { std::copy_n(literal, N, text); }
    char text[N];
};

// The same, looked up once: the look-up takes longer than most of these calls.
template <typename Function, Name name>
Function* next() {
    static Function* const found = next<Function>(name.text);
    return found;
}

bool is_virtual(std::string_view path) {
    const auto begins = [path](std::string_view prefix) { return path.starts_with(prefix); };
    return std::ranges::any_of(kernel_prefixes, begins) ||
           (!state().real_daemons && std::ranges::any_of(daemon_prefixes, begins));
}

// A path as the process gave it, or where the lab keeps it.
class Path {
  public:
    explicit Path(const char* given) : given_(given) {
        if (given_ == nullptr || !is_virtual(given_))
            return;
        std::string path = lab::root();
        if (!path.empty())
            moved_ = std::move(path.append(given_));
    }
    [[nodiscard]] const char* c_str() const { return moved_ ? moved_->c_str() : given_; }
    [[nodiscard]] bool moved() const { return moved_.has_value(); }

  private:
    const char* given_;
    std::optional<std::string> moved_;
};

FILE* remember(FILE* file, const char* given, const char* mode, const Path& path) {
    constexpr std::string_view proc = "/proc/";
    if (file == nullptr || !path.moved() || !std::string_view{given}.starts_with(proc) ||
        std::strpbrk(mode, "wa+") == nullptr)
        return file;
    const std::lock_guard lock{state().mutex};
    state().written.insert_or_assign(file, OpenedForWriting{given, path.c_str()});
    return file;
}

std::optional<OpenedForWriting> take(FILE* file) {
    const std::lock_guard lock{state().mutex};
    const auto found = state().written.find(file);
    if (found == state().written.end())
        return std::nullopt;
    std::optional<OpenedForWriting> result{std::move(found->second)};
    state().written.erase(found);
    return result;
}

std::string content_of(const std::string& path) {
    std::string content;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return content;
    std::array<char, 4096> piece;
    for (ssize_t n = 0; (n = read(fd, piece.data(), piece.size())) > 0;)
        content.append(piece.data(), static_cast<std::size_t>(n));
    close(fd);
    return content;
}

void report(const OpenedForWriting& file) {
    const int saved = errno;
    if (lab::Kernel* kernel = state().kernel.load())
        kernel->written(file.path, content_of(file.real));
    errno = saved;
}

bool is_kernel_request(unsigned long request) {
    for (const unsigned long known : kernel_requests)
        if (known == request)
            return true;
    return false;
}

int fail(int error) {
    errno = error;
    return -1;
}

int kernel_ioctl(int fd, unsigned long request, iwreq* wrq) {
    if (fcntl(fd, F_GETFD) < 0)
        return -1;
    if (wrq == nullptr)
        return fail(EFAULT);
    lab::Kernel* const kernel = state().kernel.load();
    if (kernel == nullptr)
        return fail(ENODEV);
    if (wrq->u.data.flags != 0)  // no request of these knows any
        return fail(EINVAL);
    const char* const name = wrq->ifr_ifrn.ifrn_name;
    const std::string ifname{name, strnlen(name, sizeof wrq->ifr_ifrn.ifrn_name)};
    std::uint16_t length = wrq->u.data.length;
    const int saved = errno;
    const int result = kernel->ioctl(request, ifname, wrq->u.data.pointer, length);
    if (result < 0)
        return fail(-result);
    wrq->u.data.length = length;
    errno = saved;
    return result;
}

int dispatch_ioctl(const char* real_name, int fd, unsigned long request, void* argument) {
    if (is_kernel_request(request))
        return kernel_ioctl(fd, request, static_cast<iwreq*>(argument));
    return next<int(int, unsigned long, ...)>(real_name)(fd, request, argument);
}

// One line of the "syslog" file, written in one piece.
[[gnu::format(printf, 2, 0)]] void keep_log_line(int priority, const char* format, va_list args) {
    const int saved = errno;
    const std::string root = lab::root();
    va_list again;
    va_copy(again, args);
    const int size = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (root.empty() || size < 0)
        return;
    std::string text(static_cast<std::size_t>(size), '\0');
    errno = saved;  // "%m"
    vsnprintf(text.data(), text.size() + 1, format, args);
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    const std::string line = std::to_string(priority) + " " + text + "\n";
    const int fd = ::open((root + "/syslog").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC,
                          S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH);
    if (fd >= 0) {
        [[maybe_unused]] const ssize_t n = write(fd, line.data(), line.size());
        close(fd);
    }
    errno = saved;
}

// open(2) has a mode only where it may create the file.
bool takes_mode(int flags) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

mode_t mode_of(int flags, va_list args) {
    return takes_mode(flags) ? va_arg(args, mode_t) : 0;
}

}  // namespace

namespace lab {

void install(Kernel* kernel) {
    state().kernel.store(kernel);
}

void set_root(const std::string& folder) {
    const std::lock_guard lock{state().mutex};
    state().root = folder;
}

std::string root() {
    const std::lock_guard lock{state().mutex};
    return state().root;
}

}  // namespace lab

extern "C" {

// --- stdio ---

FILE* fopen(const char* path, const char* mode) {
    const Path moved{path};
    return remember(next<FILE*(const char*, const char*), "fopen">()(moved.c_str(), mode), path,
                    mode, moved);
}

FILE* fopen64(const char* path, const char* mode) {
    const Path moved{path};
    return remember(next<FILE*(const char*, const char*), "fopen64">()(moved.c_str(), mode), path,
                    mode, moved);
}

int fclose(FILE* file) {
    const std::optional<OpenedForWriting> written = take(file);
    const int result = next<int(FILE*), "fclose">()(file);
    if (written)
        report(*written);
    return result;
}

// --- open(2) and its fortified and 64-bit forms ---

int open(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = mode_of(flags, args);
    va_end(args);
    return next<int(const char*, int, ...), "open">()(Path{path}.c_str(), flags, mode);
}

int open64(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = mode_of(flags, args);
    va_end(args);
    return next<int(const char*, int, ...), "open64">()(Path{path}.c_str(), flags, mode);
}

int openat(int folder, const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = mode_of(flags, args);
    va_end(args);
    return next<int(int, const char*, int, ...), "openat">()(folder, Path{path}.c_str(), flags,
                                                             mode);
}

int openat64(int folder, const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = mode_of(flags, args);
    va_end(args);
    return next<int(int, const char*, int, ...), "openat64">()(folder, Path{path}.c_str(), flags,
                                                               mode);
}

int __open_2(const char* path, int flags) {
    return open(path, flags);
}
int __open64_2(const char* path, int flags) {
    return open64(path, flags);
}
int __openat_2(int folder, const char* path, int flags) {
    return openat(folder, path, flags);
}
int __openat64_2(int folder, const char* path, int flags) {
    return openat64(folder, path, flags);
}

DIR* opendir(const char* path) {
    return next<DIR*(const char*), "opendir">()(Path{path}.c_str());
}

// --- stat(2) ---

int stat(const char* path, struct stat* out) noexcept {
    return next<int(const char*, struct stat*), "stat">()(Path{path}.c_str(), out);
}

int lstat(const char* path, struct stat* out) noexcept {
    return next<int(const char*, struct stat*), "lstat">()(Path{path}.c_str(), out);
}

int fstatat(int folder, const char* path, struct stat* out, int flags) noexcept {
    return next<int(int, const char*, struct stat*, int), "fstatat">()(folder, Path{path}.c_str(),
                                                                       out, flags);
}

int stat64(const char* path, struct stat64* out) noexcept {
    return next<int(const char*, struct stat64*), "stat64">()(Path{path}.c_str(), out);
}

int lstat64(const char* path, struct stat64* out) noexcept {
    return next<int(const char*, struct stat64*), "lstat64">()(Path{path}.c_str(), out);
}

int fstatat64(int folder, const char* path, struct stat64* out, int flags) noexcept {
    return next<int(int, const char*, struct stat64*, int), "fstatat64">()(
        folder, Path{path}.c_str(), out, flags);
}

// What programs built against a C library before 2.33 import.
int __xstat(int version, const char* path, struct stat* out) noexcept {
    return next<int(int, const char*, struct stat*), "__xstat">()(version, Path{path}.c_str(), out);
}

int __lxstat(int version, const char* path, struct stat* out) noexcept {
    return next<int(int, const char*, struct stat*), "__lxstat">()(version, Path{path}.c_str(),
                                                                   out);
}

int __xstat64(int version, const char* path, struct stat64* out) noexcept {
    return next<int(int, const char*, struct stat64*), "__xstat64">()(version, Path{path}.c_str(),
                                                                      out);
}

int __lxstat64(int version, const char* path, struct stat64* out) noexcept {
    return next<int(int, const char*, struct stat64*), "__lxstat64">()(version, Path{path}.c_str(),
                                                                       out);
}

// What 32-bit programs with 64-bit time import; the record is the C library's own.
int __stat64_time64(const char* path, void* out) noexcept {
    return next<int(const char*, void*), "__stat64_time64">()(Path{path}.c_str(), out);
}

int __lstat64_time64(const char* path, void* out) noexcept {
    return next<int(const char*, void*), "__lstat64_time64">()(Path{path}.c_str(), out);
}

int statx(int folder, const char* path, int flags, unsigned mask, struct statx* out) noexcept {
    return next<int(int, const char*, int, unsigned, struct statx*), "statx">()(
        folder, Path{path}.c_str(), flags, mask, out);
}

int access(const char* path, int mode) noexcept {
    return next<int(const char*, int), "access">()(Path{path}.c_str(), mode);
}

int faccessat(int folder, const char* path, int mode, int flags) noexcept {
    return next<int(int, const char*, int, int), "faccessat">()(folder, Path{path}.c_str(), mode,
                                                                flags);
}

// --- names ---

int unlink(const char* path) noexcept {
    return next<int(const char*), "unlink">()(Path{path}.c_str());
}

int unlinkat(int folder, const char* path, int flags) noexcept {
    return next<int(int, const char*, int), "unlinkat">()(folder, Path{path}.c_str(), flags);
}

int remove(const char* path) noexcept {
    return next<int(const char*), "remove">()(Path{path}.c_str());
}

int rename(const char* from, const char* to) noexcept {
    return next<int(const char*, const char*), "rename">()(Path{from}.c_str(), Path{to}.c_str());
}

// --- ioctl(2) ---

int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    void* const argument = va_arg(args, void*);
    va_end(args);
    return dispatch_ioctl("ioctl", fd, request, argument);
}

int __ioctl_time64(int fd, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    void* const argument = va_arg(args, void*);
    va_end(args);
    return dispatch_ioctl("__ioctl_time64", fd, request, argument);
}

// --- syslog(3) ---

[[gnu::format(printf, 2, 0)]] void vsyslog(int priority, const char* format, va_list args) {
    va_list again;
    va_copy(again, args);
    keep_log_line(priority, format, again);
    va_end(again);
    next<void(int, const char*, va_list), "vsyslog">()(priority, format, args);
}

void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}

[[gnu::format(printf, 3, 0)]] void __vsyslog_chk(int priority, int, const char* format,
                                                 va_list args) {
    vsyslog(priority, format, args);
}

[[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}

}  // extern "C"
