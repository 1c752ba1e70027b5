// ThreadName: the calling thread's name, put back at the end.
#ifndef TESTS_THREAD_NAME_H
#define TESTS_THREAD_NAME_H

#include <sys/prctl.h>

#include <array>
#include <string>

class ThreadName {
  public:
    ThreadName() = default;
    ~ThreadName() { prctl(PR_SET_NAME, before_.c_str()); }
    ThreadName(const ThreadName&) = delete;
    ThreadName& operator=(const ThreadName&) = delete;

    static std::string now() {
        std::array<char, 16> name{};  // what prctl(2) writes at most
        prctl(PR_GET_NAME, name.data());
        return name.data();
    }

  private:
    const std::string before_ = now();
};

#endif
