// Functions of the C library, or of another, that a test program puts its own in place of.
#ifndef TESTS_HIDDEN_H
#define TESTS_HIDDEN_H

#include <dlfcn.h>

// The definition of `name` that this program's own one hides (dlsym(3), RTLD_NEXT). Found anew for
// each call: a guarded static would itself be timed by a clock of the tests under some sanitizers.
template <typename Function>
Function hidden(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

#endif
