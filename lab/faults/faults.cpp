// liblabfaults.so: makes one call of lumd's to a library or to the system fail at one of its call
// sites, while lumd runs. Preloaded first, and only at work in a process that is named lumd and
// whose environment has LAB_FAULTS: the path of a file that the lab has made, of the size of Table.
//
// A call site is a call from lumd's own code: an instruction, for a call that several operations
// make through one helper the place where the helper was called as well. What the C++ library
// calls for lumd counts as called where lumd called it, and what libwebsockets calls counts as one
// call site for each function. Every site that was reached is counted in the file; the lab arms a
// fault by naming one of them. A file may bring the sites of an earlier run of the same program, so
// that what a process calls only at its start can be made to fail too.
//
// No header that declares one of the functions is included: each is defined here under its symbol
// name alone, so that its declaration may differ in what C++ sees of it (noexcept, attributes).
#include <dlfcn.h>
#include <link.h>
#include <sys/syscall.h>
#include <unwind.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <string_view>

extern "C" {
extern char* program_invocation_short_name;
char* getenv(const char*);
void* mmap(void*, std::size_t, int, int, int, long);
long syscall(long, ...);
}

namespace {

// The layout of the file; tests/system/lumdtest/faults.py reads and writes the same.

constexpr std::uint32_t kForEver = UINT32_MAX;
constexpr std::size_t kSites = 2048;

struct Site {
    std::atomic<std::uint64_t> key;  // 0: free
    std::atomic<std::uint32_t> calls;
    std::array<char, 36> function;
};
static_assert(sizeof(Site) == 48);

struct Table {
    std::atomic<std::uint64_t> armed;      // the key of the site whose calls fail, 0: none
    std::atomic<std::uint32_t> remaining;  // calls that are still to fail
    std::atomic<std::uint32_t> failed;     // calls that did
    std::int32_t error;                    // their errno
    std::uint32_t unused;
    std::array<Site, kSites> sites;
};

// The function in 8 bits, the place of the call in 28 and, with a helper, the helper's in 28.
constexpr unsigned kPlaceBits = 28;
constexpr std::uint64_t kPlaceMask = (std::uint64_t{1} << kPlaceBits) - 1;

constexpr int kProtRead = 1, kProtWrite = 2, kMapShared = 1, kReadWrite = 02, kWorkingFolder = -100;

struct Object {
    std::uintptr_t base = 0, end = 0;
    [[nodiscard]] bool holds(std::uintptr_t address) const {
        return address >= base && address < end;
    }
};

struct Process {
    Table* table = nullptr;
    Object program, websockets, runtime;
};

Object extent_of(const dl_phdr_info& info) {
    Object object{info.dlpi_addr, info.dlpi_addr};
    for (std::size_t i = 0; i < info.dlpi_phnum; i++)
        if (info.dlpi_phdr[i].p_type == PT_LOAD)
            object.end = std::max(
                object.end, info.dlpi_addr + info.dlpi_phdr[i].p_vaddr + info.dlpi_phdr[i].p_memsz);
    return object;
}

int note_object(dl_phdr_info* info, std::size_t, void* data) {
    Process& process = *static_cast<Process*>(data);
    const std::string_view name = info->dlpi_name;
    if (name.empty() && process.program.end == 0)
        process.program = extent_of(*info);
    else if (name.find("libwebsockets") != name.npos)
        process.websockets = extent_of(*info);
    else if (name.find("libstdc++") != name.npos)
        process.runtime = extent_of(*info);
    return 0;
}

// Set before any constructor of the program runs. What is called even before, while the libraries
// start, is not lumd's.
constinit Process g_process;

[[gnu::constructor]] void start() {
    const char* const path = getenv("LAB_FAULTS");
    if (path == nullptr || std::string_view{program_invocation_short_name} != "lumd")
        return;
    dl_iterate_phdr(note_object, &g_process);
    // Not open(2): that is taken over, here and by the lab's kernel.
    const auto fd = static_cast<int>(syscall(SYS_openat, kWorkingFolder, path, kReadWrite));
    void* const memory = mmap(nullptr, sizeof(Table), kProtRead | kProtWrite, kMapShared, fd, 0);
    if (reinterpret_cast<std::intptr_t>(memory) != -1)
        g_process.table = static_cast<Table*>(memory);
}

// --- call sites ---

// The nearest two places of the program on the stack.
struct Places {
    std::array<std::uintptr_t, 2> found{};
    std::size_t count = 0;
};

_Unwind_Reason_Code look_at(_Unwind_Context* frame, void* data) {
    Places& places = *static_cast<Places*>(data);
    const std::uintptr_t address = _Unwind_GetIP(frame);
    if (g_process.program.holds(address))
        places.found[places.count++] = address - g_process.program.base;
    return places.count < places.found.size() ? _URC_NO_REASON : _URC_END_OF_STACK;
}

struct Function {
    unsigned number;
    const char* name;
    bool through_helpers;  // the place where the helper was called is part of the site
};

// 0 for a call that is not lumd's.
std::uint64_t key_of(const Function& function, const void* caller) {
    const auto address = reinterpret_cast<std::uintptr_t>(caller);
    const std::uint64_t head = std::uint64_t{function.number + 1} << (2 * kPlaceBits);
    if (g_process.websockets.holds(address))
        return head;
    const bool direct = g_process.program.holds(address);
    if (direct && !function.through_helpers)
        return head | ((address - g_process.program.base) & kPlaceMask);
    if (!direct && !g_process.runtime.holds(address))
        return 0;
    Places places;
    _Unwind_Backtrace(look_at, &places);
    if (places.count == 0)
        return 0;
    const std::uint64_t helper = function.through_helpers ? places.found[1] & kPlaceMask : 0;
    return head | helper << kPlaceBits | (places.found[0] & kPlaceMask);
}

void count(Table& table, std::uint64_t key, const char* function) {
    for (Site& site : table.sites) {
        std::uint64_t there = site.key.load();
        if (there == 0 && site.key.compare_exchange_strong(there, key)) {
            std::strncpy(site.function.data(), function, site.function.size() - 1);
            there = key;
        }
        if (there == key) {
            site.calls++;
            return;
        }
    }
}

bool take_one(std::atomic<std::uint32_t>& remaining) {
    std::uint32_t left = remaining.load();
    while (left != 0 && left != kForEver)
        if (remaining.compare_exchange_weak(left, left - 1))
            return true;
    return left == kForEver;
}

// Counts the call; true, with errno set, when it is to fail.
bool fails(const Function& function, const void* caller) {
    Table* const table = g_process.table;
    if (table == nullptr)
        return false;
    const int saved = errno;
    const std::uint64_t key = key_of(function, caller);
    if (key != 0)
        count(*table, key, function.name);
    errno = saved;
    if (key == 0 || table->armed.load() != key || !take_one(table->remaining))
        return false;
    table->failed++;
    errno = table->error;
    return true;
}

template <typename Type>
Type* next(const char* name) {
    return reinterpret_cast<Type*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// A function that fails with `failure`. `helpers`: whether lumd calls it through helpers.
#define FAULT(helpers, result, name, failure, parameters, arguments) \
    extern "C" result faulty_##name parameters __asm__(#name);       \
    result faulty_##name parameters {                                \
        constexpr Function function{__COUNTER__, #name, helpers};    \
        if (fails(function, __builtin_return_address(0)))            \
            return failure;                                          \
        return next<decltype(faulty_##name)>(#name) arguments;       \
    }

// One that does its work all the same: what is closed is closed.
#define FAULT_AFTER(helpers, result, name, failure, parameters, arguments) \
    extern "C" result faulty_##name parameters __asm__(#name);             \
    result faulty_##name parameters {                                      \
        constexpr Function function{__COUNTER__, #name, helpers};          \
        const bool failing = fails(function, __builtin_return_address(0)); \
        const int error = errno;                                           \
        const auto real = next<decltype(faulty_##name)>(#name) arguments;  \
        if (!failing)                                                      \
            return real;                                                   \
        errno = error;                                                     \
        return failure;                                                    \
    }

using Size = std::size_t;
using Signed = std::ptrdiff_t;

// --- files and descriptors ---

FAULT(true, void*, fopen, nullptr, (const char* path, const char* mode), (path, mode))
FAULT(true, void*, fopen64, nullptr, (const char* path, const char* mode), (path, mode))
FAULT(false, char*, fgets, nullptr, (char* text, int size, void* file), (text, size, file))
FAULT(false, int, ferror, 1, (void* file), (file))
FAULT(true, Size, fwrite, 0, (const void* data, Size size, Size count, void* file),
      (data, size, count, file))
FAULT_AFTER(false, int, fclose, -1, (void* file), (file))
FAULT(true, void*, popen, nullptr, (const char* command, const char* mode), (command, mode))
FAULT_AFTER(false, int, pclose, -1, (void* pipe), (pipe))
FAULT(false, int, open, -1, (const char* path, int flags, unsigned mode), (path, flags, mode))
FAULT(false, void*, opendir, nullptr, (const char* path), (path))
FAULT_AFTER(false, int, closedir, -1, (void* folder), (folder))
FAULT(false, int, fstat, -1, (int fd, void* status), (fd, status))
FAULT(false, int, access, -1, (const char* path, int mode), (path, mode))
FAULT(false, int, unlink, -1, (const char* path), (path))
FAULT(false, int, rename, -1, (const char* from, const char* to), (from, to))
FAULT(false, Signed, read, -1, (int fd, void* data, Size size), (fd, data, size))
FAULT(false, Signed, write, -1, (int fd, const void* data, Size size), (fd, data, size))
FAULT_AFTER(false, int, close, -1, (int fd), (fd))
FAULT(false, int, poll, -1, (void* fds, unsigned long count, int wait), (fds, count, wait))
FAULT(false, int, select, -1, (int count, void* r, void* w, void* e, void* wait),
      (count, r, w, e, wait))
FAULT(false, int, eventfd, -1, (unsigned count, int flags), (count, flags))
FAULT(true, int, ioctl, -1, (int fd, unsigned long request, void* data), (fd, request, data))
FAULT(false, int, fcntl, -1, (int fd, int command, void* argument), (fd, command, argument))

// --- sockets ---

FAULT(true, int, socket, -1, (int family, int type, int protocol), (family, type, protocol))
FAULT(false, int, connect, -1, (int fd, const void* to, unsigned size), (fd, to, size))
FAULT(false, Signed, sendmsg, -1, (int fd, const void* message, int flags), (fd, message, flags))
FAULT(false, Signed, recvmsg, -1, (int fd, void* message, int flags), (fd, message, flags))
FAULT(false, Signed, send, -1, (int fd, const void* data, Size size, int flags),
      (fd, data, size, flags))
FAULT(false, Signed, recv, -1, (int fd, void* data, Size size, int flags), (fd, data, size, flags))
FAULT(false, int, setsockopt, -1, (int fd, int level, int name, const void* value, unsigned size),
      (fd, level, name, value, size))
FAULT(false, int, getsockopt, -1, (int fd, int level, int name, void* value, unsigned* size),
      (fd, level, name, value, size))
FAULT(false, int, getsockname, -1, (int fd, void* address, unsigned* size), (fd, address, size))
FAULT_AFTER(false, int, shutdown, -1, (int fd, int how), (fd, how))
FAULT(false, int, getaddrinfo, -2 /* EAI_NONAME */,
      (const char* node, const char* service, const void* hints, void** found),
      (node, service, hints, found))

// --- the process ---

FAULT(false, void*, malloc, nullptr, (Size size), (size))
FAULT(false, void*, calloc, nullptr, (Size count, Size size), (count, size))
FAULT(true, int, pthread_create, errno,
      (void* thread, const void* attributes, void* (*routine)(void*), void* argument),
      (thread, attributes, routine, argument))
FAULT(false, int, prctl, -1, (int option, unsigned long argument), (option, argument))
FAULT(false, Signed, getrandom, -1, (void* data, Size size, unsigned flags), (data, size, flags))
FAULT(false, Signed, signal, -1 /* SIG_ERR */, (int number, void* handler), (number, handler))
FAULT(false, int, usleep, -1, (unsigned micros), (micros))
FAULT(false, int, regcomp, 12 /* REG_ESPACE */, (void* expression, const char* text, int flags),
      (expression, text, flags))
FAULT(false, int, backtrace, 0, (void** frames, int size), (frames, size))
FAULT(false, void*, backtrace_symbols, nullptr, (void* const* frames, int size), (frames, size))

extern "C" int faulty_fscanf(void* file, const char* format, ...) __asm__("__isoc99_fscanf");
int faulty_fscanf(void* file, const char* format, ...) {
    constexpr Function function{__COUNTER__, "fscanf", false};
    if (fails(function, __builtin_return_address(0)))
        return -1;
    va_list args;
    va_start(args, format);
    const int items =
        next<int(void*, const char*, va_list)>("__isoc99_vfscanf")(file, format, args);
    va_end(args);
    return items;
}

extern "C" void* faulty_new(Size size, const std::nothrow_t& tag) __asm__("_ZnamRKSt9nothrow_t");
void* faulty_new(Size size, const std::nothrow_t& tag) {
    constexpr Function function{__COUNTER__, "operator new[]", false};
    if (fails(function, __builtin_return_address(0)))
        return nullptr;
    return next<void*(Size, const std::nothrow_t&)>("_ZnamRKSt9nothrow_t")(size, tag);
}

// --- json-c ---

FAULT(false, void*, json_object_new_object, nullptr, (), ())
FAULT(false, void*, json_object_new_array, nullptr, (), ())
FAULT(false, void*, json_object_new_string, nullptr, (const char* text), (text))
FAULT(false, void*, json_object_new_string_len, nullptr, (const char* text, int size), (text, size))
FAULT(false, void*, json_object_new_int, nullptr, (std::int32_t number), (number))
FAULT(false, int, json_object_object_add, -1, (void* object, const char* key, void* value),
      (object, key, value))
FAULT(false, int, json_object_array_add, -1, (void* array, void* value), (array, value))
FAULT(false, int, json_object_array_put_idx, -1, (void* array, Size index, void* value),
      (array, index, value))
FAULT(false, const char*, json_object_to_json_string_ext, nullptr, (void* object, int flags),
      (object, flags))
FAULT(false, const char*, json_object_get_string, nullptr, (void* object), (object))
FAULT(false, void*, json_tokener_new, nullptr, (), ())
FAULT(false, void*, json_tokener_parse, nullptr, (const char* text), (text))

extern "C" void* faulty_parse_ex(void* parser, const char* text,
                                 int size) __asm__("json_tokener_parse_ex");
void* faulty_parse_ex(void* parser, const char* text, int size) {
    constexpr Function function{__COUNTER__, "json_tokener_parse_ex", false};
    const auto real = next<void*(void*, const char*, int)>("json_tokener_parse_ex");
    if (fails(function, __builtin_return_address(0)))
        return real(parser, "}", 1);  // so that the parser's error is set as well
    return real(parser, text, size);
}

// --- libwebsockets ---

FAULT(false, void*, lws_create_context, nullptr, (const void* info), (info))
FAULT(false, void*, lws_client_connect_via_info, nullptr, (const void* info), (info))
FAULT(false, int, lws_service, -1, (void* context, int wait), (context, wait))
FAULT(false, int, lws_callback_on_writable, -1, (void* link), (link))
FAULT(false, int, lws_write, -1, (void* link, unsigned char* data, Size size, int protocol),
      (link, data, size, protocol))
