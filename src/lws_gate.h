// The way from libwebsockets, which calls a C function, to the worker that owns the context.
#ifndef LUMD_LWS_GATE_H
#define LUMD_LWS_GATE_H

#include <libwebsockets.h>

#include <cstddef>
#include <functional>
#include <string>
#include <utility>

#include "LockdepMutex.h"
#include "thread_annotations.h"

// A callback holds `m` as long as it runs, so after clear() none reaches the worker. The lock is
// recursive because the library calls back out of calls that callbacks make.
class LockedLwsCallback {
  public:
    using callback_type =
        std::function<int(lws*, lws_callback_reasons, void* user, void* in, std::size_t len)>;

    explicit LockedLwsCallback(std::string lock_name) : m(std::move(lock_name)) {}

    // Both wait until a callback that is running on another thread has returned.
    void set(callback_type function);
    void clear();

    // Calls the installed function; logs and returns 0 when there is none.
    int call(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t len);

  private:
    LockdepRecursiveMutex m;
    callback_type func LUMD_GUARDED_BY(m);
};

// The one gate of the process: only one websock_worker exists in it.
extern LockedLwsCallback lws_callback_obj;

// What the library is given as the callback of every protocol: passes on to the gate.
int __callback_lws_process(lws* wsi, lws_callback_reasons reason, void* user, void* in,
                           std::size_t len);

// The identifier of a callback reason, "UNKNOWN_LWS_CALLBACK_REASON" for a number without a name.
const char* lws_callback_reason_name(int reason);

#endif
