// Failures of calls that a test cannot bring about otherwise. Each holds while its object lives.
#ifndef TESTS_CALL_FAULTS_H
#define TESTS_CALL_FAULTS_H

#include <sys/time.h>

#include <atomic>
#include <cerrno>

namespace call_faults {

// errno to fail with; 0 lets the call through.
extern std::atomic<int> socket_error;
extern std::atomic<int> popen_error;
extern std::atomic<int> fwrite_error;
extern std::atomic<int> memory_error;  // of new (std::nothrow) T[n]
extern std::atomic<int> json_error;    // of json_object_new_object()

class Fault {
  public:
    Fault(std::atomic<int>& call, int error) : call_(call) { call_ = error; }
    ~Fault() { call_ = 0; }
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

  private:
    std::atomic<int>& call_;
};

struct NoSocket : Fault {
    NoSocket() : Fault(socket_error, EMFILE) {}
};
struct NoPipe : Fault {
    NoPipe() : Fault(popen_error, EMFILE) {}
};
struct NoRoom : Fault {
    NoRoom() : Fault(fwrite_error, ENOSPC) {}
};
struct NoMemory : Fault {
    NoMemory() : Fault(memory_error, ENOMEM) {}
};
struct NoJsonObject : Fault {
    NoJsonObject() : Fault(json_error, ENOMEM) {}
};

// While it lives, select(2) answers this thread with `result` at once and is noted.
class SelectSpy {
  public:
    explicit SelectSpy(int result);
    ~SelectSpy();
    SelectSpy(const SelectSpy&) = delete;
    SelectSpy& operator=(const SelectSpy&) = delete;

    int result;
    int calls = 0;
    int descriptors = -1;  // of the last call, as the rest
    bool has_sets = true;
    timeval limit{-1, -1};
};

}  // namespace call_faults

#endif
