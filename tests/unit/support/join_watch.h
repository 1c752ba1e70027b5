// JoinWatch: tells when the thread that made it is about to wait for another thread's end.
//
// A program that links join_watch.cpp answers pthread_join(3) itself.
#ifndef TESTS_JOIN_WATCH_H
#define TESTS_JOIN_WATCH_H

#include <functional>

class JoinWatch {
  public:
    // `before_join` is called before each pthread_join(3) of this thread, while it lives.
    explicit JoinWatch(std::function<void()> before_join);
    ~JoinWatch();
    JoinWatch(const JoinWatch&) = delete;
    JoinWatch& operator=(const JoinWatch&) = delete;

    // For the interposed call.
    void note() const { before_join_(); }

  private:
    const std::function<void()> before_join_;
};

#endif
