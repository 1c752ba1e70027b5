#include "call_faults.h"

#include <dlfcn.h>
#include <sys/socket.h>

#include <cstdio>
#include <new>

namespace call_faults {

std::atomic<int> socket_error{0};
std::atomic<int> popen_error{0};
std::atomic<int> fwrite_error{0};
std::atomic<int> memory_error{0};

}  // namespace call_faults

extern "C" int socket(int domain, int type, int protocol) noexcept {
    if (const int error = call_faults::socket_error) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<int (*)(int, int, int)>(dlsym(RTLD_NEXT, "socket"))(domain, type,
                                                                                protocol);
}

extern "C" FILE* popen(const char* command, const char* mode) {
    if (const int error = call_faults::popen_error) {
        errno = error;
        return nullptr;
    }
    return reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "popen"))(command,
                                                                                            mode);
}

extern "C" std::size_t fwrite(const void* data, std::size_t size, std::size_t count, FILE* file) {
    if (const int error = call_faults::fwrite_error) {
        errno = error;
        return 0;
    }
    return reinterpret_cast<std::size_t (*)(const void*, std::size_t, std::size_t, FILE*)>(
        dlsym(RTLD_NEXT, "fwrite"))(data, size, count, file);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    if (const int error = call_faults::memory_error) {
        errno = error;
        return nullptr;
    }
    try {
        return ::operator new[](size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
