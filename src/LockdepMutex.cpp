#include "LockdepMutex.h"

#include <cxxabi.h>
#if __has_include(<execinfo.h>)
#include <execinfo.h>
#endif
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <exception>
#include <memory>

#include "lum_trace.h"
#include "owned.h"
#include "timer_processor.h"

namespace {

constexpr std::time_t expiry_time = 121;  // seconds; no lock is rightly held for that long
constexpr unsigned check_period = 1;      // seconds

// Holds a T that is built at the first use and never destroyed, so that locks taken by other
// objects' static destructors still find it.
template <typename T>
union immortal {
    immortal() : value() {}
    ~immortal() {}  // leaves `value` alive
    immortal(const immortal&) = delete;
    immortal& operator=(const immortal&) = delete;
    T value;
};

std::string current_thread_name() {
    std::array<char, 16> name{};  // the kernel's limit, prctl(2)
    prctl(PR_GET_NAME, name.data());
    return name.data();
}

#if __has_include(<execinfo.h>)
std::vector<std::string> capture_backtrace() {
    constexpr int max_frames = 64;
    std::array<void*, max_frames> frames{};
    const int count = backtrace(frames.data(), max_frames);
    const std::unique_ptr<char*[], free_deleter> symbols(backtrace_symbols(frames.data(), count));
    if (!symbols) {
        trace.debug("No backtrace_symbols");
        std::terminate();
    }
    std::vector<std::string> entries;
    for (int i = 0; i < count; ++i) {
        if (auto entry = lockdep_backtrace_entry(symbols[static_cast<std::size_t>(i)]))
            entries.push_back(std::move(*entry));
    }
    return entries;
}
#else  // a C library without backtrace(3), musl for one: the records say who and since when
std::vector<std::string> capture_backtrace() {
    return {};
}
#endif

}  // namespace

std::optional<std::string> lockdep_backtrace_entry(const std::string& symbol) {
    const std::size_t open = symbol.find('(');
    const std::size_t plus = symbol.find('+');
    if (plus == std::string::npos || open > plus)  // as no "(" is
        return std::nullopt;
    const std::string mangled = symbol.substr(open + 1, plus - open - 1);
    const std::string offset = symbol.substr(plus + 1, symbol.find(')', plus) - plus - 1);
    const std::unique_ptr<char, free_deleter> demangled(
        abi::__cxa_demangle(mangled.c_str(), nullptr, nullptr, nullptr));
    if (!demangled)
        return symbol;
    return std::string(demangled.get()) + ' ' + mangled + " + " + offset;
}

bool LockdepStorage::lockdep_debug = false;

LockdepStorage& LockdepStorage::instance() {
    static immortal<LockdepStorage> storage;
    return storage.value;
}

// Built before main, lest the first lock of the process pay for it.
[[maybe_unused]] static const LockdepStorage& storage_built_at_load = LockdepStorage::instance();

void LockdepStorage::add_lock(const LockdepMutexBase* lock) {
    const mutex_guard guard(m);
    std::string thread_name = current_thread_name();
    if (const auto held = locks.find(lock); held != locks.end()) {
        ++held->second.lock_cnt;
        return;
    }
    timespec now{};
    locks.emplace(lock, LockdepItem{time_monotonic(now), lock->name, std::move(thread_name), 1,
                                    capture_backtrace()});
}

void LockdepStorage::del_lock(const LockdepMutexBase* lock) {
    const mutex_guard guard(m);
    const auto held = locks.find(lock);
    if (held == locks.end()) {
        trace.error("Unbalanced unlock case 2\n");
        dump();
        std::terminate();
    }
    const LockdepItem& item = held->second;
    const int count = --held->second.lock_cnt;
    if (count < 0) {
        trace.error("Unbalanced unlock %p('%s' by %s)\n", static_cast<const void*>(lock),
                    item.lock_name.c_str(), item.thread_name.c_str());
        dump();
        std::terminate();
    }
    if (count == 0)
        locks.erase(held);
}

void LockdepStorage::dump() const {
    trace.debug("Dump all locked mutexes:\n");
    for (const auto& [lock, item] : locks) {
        trace.debug("\t%p: '%s' by %s\n", static_cast<const void*>(lock), item.lock_name.c_str(),
                    item.thread_name.c_str());
        trace.debug("\t\tBacktrace:\n");
        for (const std::string& entry : item.backtrace)
            trace.debug("\t\t%s\n", entry.c_str());
    }
}

void LockdepStorage::check_expired() {
    timespec now{};
    check_expired(time_monotonic(now));
}

void LockdepStorage::check_expired(std::time_t now) {
    const mutex_guard guard(m);
    bool found = false;
    for (const auto& [lock, item] : locks) {
        if (now - item.locked_at < expiry_time)
            continue;
        trace.error("Deadlock on lock %p('%s' by %s)\n", static_cast<const void*>(lock),
                    item.lock_name.c_str(), item.thread_name.c_str());
        dump();
        found = true;
    }
    if (found)
        std::terminate();
}

std::size_t LockdepStorage::size() const {
    const mutex_guard guard(m);
    return locks.size();
}

void vexor_lockdep_thread_func() {
    for (;;) {
        LockdepStorage::instance().check_expired();
        sleep(check_period);
    }
}
