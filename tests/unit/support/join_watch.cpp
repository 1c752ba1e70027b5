#include "join_watch.h"

#include <pthread.h>

#include <utility>

#include "hidden.h"

namespace {

thread_local const JoinWatch* watching = nullptr;

}  // namespace

extern "C" int pthread_join(pthread_t thread, void** result) {
    if (watching != nullptr)
        watching->note();
    return hidden<int (*)(pthread_t, void**)>("pthread_join")(thread, result);
}

JoinWatch::JoinWatch(std::function<void()> before_join) : before_join_(std::move(before_join)) {
    watching = this;
}

JoinWatch::~JoinWatch() {
    watching = nullptr;
}
