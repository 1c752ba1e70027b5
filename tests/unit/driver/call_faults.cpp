#include "call_faults.h"

#include <dlfcn.h>
#include <json-c/json.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cstdio>
#include <new>

namespace call_faults {

std::atomic<int> socket_error{0};
std::atomic<int> popen_error{0};
std::atomic<int> fwrite_error{0};
std::atomic<int> memory_error{0};
std::atomic<int> json_error{0};

namespace {

thread_local SelectSpy* select_spy = nullptr;

}

SelectSpy::SelectSpy(int answer) : result(answer) {
    select_spy = this;
}

SelectSpy::~SelectSpy() {
    select_spy = nullptr;
}

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

extern "C" json_object* json_object_new_object() {
    if (const int error = call_faults::json_error) {
        errno = error;
        return nullptr;
    }
    return reinterpret_cast<json_object* (*)()>(dlsym(RTLD_NEXT, "json_object_new_object"))();
}

extern "C" int select(int descriptors, fd_set* read, fd_set* write, fd_set* except,
                      timeval* limit) {
    call_faults::SelectSpy* const spy = call_faults::select_spy;
    if (spy == nullptr)
        return reinterpret_cast<int (*)(int, fd_set*, fd_set*, fd_set*, timeval*)>(
            dlsym(RTLD_NEXT, "select"))(descriptors, read, write, except, limit);
    ++spy->calls;
    spy->descriptors = descriptors;
    spy->has_sets = read != nullptr || write != nullptr || except != nullptr;
    if (limit != nullptr)
        spy->limit = *limit;
    return spy->result;
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
