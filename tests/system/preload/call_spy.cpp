// libcallspy.so: preloaded into lumd, it adds a line to the file that CALL_SPY names for each call
// by which a process sets itself up: "mallopt 1 0", "openlog LUMD 1 24", "signal 15".
#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/prctl.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

// The definition that this library's own one hides.
template <typename Function>
Function hidden(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

[[gnu::format(printf, 1, 2)]] void note(const char* format, ...) {
    const char* const path = std::getenv("CALL_SPY");
    if (path == nullptr)
        return;
    const int file = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    std::va_list args;
    va_start(args, format);
    vdprintf(file, format, args);
    va_end(args);
    close(file);
}

}  // namespace

extern "C" int mallopt(int parameter, int value) noexcept {
    note("mallopt %d %d\n", parameter, value);
    return hidden<int (*)(int, int)>("mallopt")(parameter, value);
}

extern "C" void openlog(const char* ident, int options, int facility) {
    note("openlog %s %d %d\n", ident, options, facility);
    hidden<void (*)(const char*, int, int)>("openlog")(ident, options, facility);
}

extern "C" void srand(unsigned seed) noexcept {
    note("srand %u\n", seed);
    hidden<void (*)(unsigned)>("srand")(seed);
}

extern "C" sighandler_t signal(int number, sighandler_t handler) noexcept {
    note("signal %d\n", number);
    return hidden<sighandler_t (*)(int, sighandler_t)>("signal")(number, handler);
}

extern "C" int prctl(int option, ...) noexcept {
    std::va_list args;
    va_start(args, option);
    unsigned long values[4];
    for (unsigned long& value : values)
        value = va_arg(args, unsigned long);
    va_end(args);
    if (option == PR_SET_NAME)
        note("prctl %s\n", reinterpret_cast<const char*>(values[0]));
    return hidden<int (*)(int, ...)>("prctl")(option, values[0], values[1], values[2], values[3]);
}
