// LwsCalls: calls of the worker into libwebsockets that a test counts, looks at, fails or
// withholds.
//
// The test program is linked with --wrap (ld(1)) for each of them. While no LwsCalls lives, and for
// everything that it was not told, they go through unchanged. One at a time.
#ifndef TESTS_LWS_CALLS_H
#define TESTS_LWS_CALLS_H

#include <libwebsockets.h>

#include <atomic>
#include <functional>

class LwsCalls {
  public:
    LwsCalls();
    ~LwsCalls();
    LwsCalls(const LwsCalls&) = delete;
    LwsCalls& operator=(const LwsCalls&) = delete;

    // lws_callback_on_writable()
    int asks = 0;
    std::function<bool(int ask)> refuse_ask;  // whether that one, counted from 1, fails
    int refusal = -1;                         // what it then returns

    // lws_sul_schedule(): withheld, nothing but an event ends the wait of a service call.
    std::atomic<bool> withhold_timers = false;
    std::atomic<int> withheld_timers = 0;
    int timers = 0;
    lws_sorted_usec_list_t* timer = nullptr;  // of the last call, like the next two
    sul_cb_t timer_reached = nullptr;
    lws_usec_t timer_us = 0;

    // lws_write()
    bool refuse_writes = false;
    const unsigned char* written = nullptr;  // what the last call was given

    // lws_create_context() and lws_client_connect_via_info()
    bool refuse_contexts = false;
    bool refuse_connects = false;
    lws_context_creation_info context_info{};  // of the last call
    lws_client_connect_info connect_info{};    // of the last call

    // lws_set_log_level()
    int log_level = -1;                  // of the last call
    std::function<void()> on_log_level;  // called in each
};

#endif
