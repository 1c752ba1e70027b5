// owned_fd: a descriptor that is closed at the end of its scope.
#ifndef LUMCTL_OWNED_FD_H
#define LUMCTL_OWNED_FD_H

#include <unistd.h>

class owned_fd {
  public:
    // Negative: there is none.
    explicit owned_fd(int number) : fd(number) {}
    ~owned_fd() {
        if (fd >= 0)
            close(fd);
    }
    owned_fd(const owned_fd&) = delete;
    owned_fd& operator=(const owned_fd&) = delete;

    const int fd;
};

#endif
