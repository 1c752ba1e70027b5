#include "lws_calls.h"

namespace {

LwsCalls* current = nullptr;

}  // namespace

LwsCalls::LwsCalls() {
    current = this;
}

LwsCalls::~LwsCalls() {
    current = nullptr;
}

extern "C" {

int __real_lws_callback_on_writable(lws* wsi);
void __real_lws_sul_schedule(lws_context* context, int thread, lws_sorted_usec_list_t* sul,
                             sul_cb_t callback, lws_usec_t delay);
int __real_lws_write(lws* wsi, unsigned char* data, std::size_t len, lws_write_protocol protocol);
lws_context* __real_lws_create_context(const lws_context_creation_info* info);
lws* __real_lws_client_connect_via_info(const lws_client_connect_info* info);
void __real_lws_set_log_level(int level, void (*emit)(int level, const char* line));

int __wrap_lws_callback_on_writable(lws* wsi) {
    if (current != nullptr) {
        ++current->asks;
        if (current->refuse_ask && current->refuse_ask(current->asks))
            return current->refusal;
    }
    return __real_lws_callback_on_writable(wsi);
}

void __wrap_lws_sul_schedule(lws_context* context, int thread, lws_sorted_usec_list_t* sul,
                             sul_cb_t callback, lws_usec_t delay) {
    if (current != nullptr) {
        ++current->timers;
        current->timer = sul;
        current->timer_reached = callback;
        current->timer_us = delay;
    }
    if (current == nullptr || !current->withhold_timers) {
        __real_lws_sul_schedule(context, thread, sul, callback, delay);
        return;
    }
    lws_sul_cancel(sul);
    ++current->withheld_timers;
}

int __wrap_lws_write(lws* wsi, unsigned char* data, std::size_t len, lws_write_protocol protocol) {
    if (current != nullptr) {
        current->written = data;
        if (current->refuse_writes)
            return -1;
    }
    return __real_lws_write(wsi, data, len, protocol);
}

lws_context* __wrap_lws_create_context(const lws_context_creation_info* info) {
    if (current != nullptr) {
        current->context_info = *info;
        if (current->refuse_contexts)
            return nullptr;
    }
    return __real_lws_create_context(info);
}

lws* __wrap_lws_client_connect_via_info(const lws_client_connect_info* info) {
    if (current != nullptr) {
        current->connect_info = *info;
        if (current->refuse_connects)
            return nullptr;
    }
    return __real_lws_client_connect_via_info(info);
}

void __wrap_lws_set_log_level(int level, void (*emit)(int level, const char* line)) {
    if (current != nullptr) {
        current->log_level = level;
        if (current->on_log_level)
            current->on_log_level();
    }
    __real_lws_set_log_level(level, emit);
}

}  // extern "C"
