// libstuckcall.so: preloaded into lumd, it is a libwebsockets that never comes back from making a
// context, so that the lock which the link holds meanwhile is held for ever.
#include <unistd.h>

extern "C" [[noreturn]] void* lws_create_context(const void*) {
    for (;;)
        pause();
}
