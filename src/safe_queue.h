// safe_queue: the unbounded first-in-first-out queue of messages between two workers.
#ifndef LUMD_SAFE_QUEUE_H
#define LUMD_SAFE_QUEUE_H

#include <concepts>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <queue>
#include <utility>
#include <vector>

#include "LockdepMutex.h"
#include "buffer_info.h"
#include "mutex_guard.h"
#include "thread_annotations.h"

class json_writer;

namespace libhubd {

// The notifier of a queue nobody has asked to be woken for.
inline void default_safe_queue_notifier() {}

// A locked FIFO with a notifier. Any number of threads may produce and consume. Callbacks and the
// notifier run with no lock of the queue held, so they may use any queue, this one included.
template <typename T, typename Mutex>
class SafeQueue {
  public:
    using user_notifier_type = std::function<void()>;

    // `max_size` items at most; 0 means unbounded.
    explicit SafeQueue(unsigned max_size_items = 0) : max_size(max_size_items) {}
    virtual ~SafeQueue() { unset_user_notifier(); }
    SafeQueue(const SafeQueue&) = delete;
    SafeQueue& operator=(const SafeQueue&) = delete;

    // Appends a copy of `item`, then calls the notifier on this thread. False, and nothing is
    // appended, when the queue is full.
    bool enqueue(const T& item) { return enqueue(T(item)); }

    // The same, except that the queue takes over the caller's reference.
    bool enqueue(T&& item) {
        if (!put(std::move(item)))
            return false;
        notify();
        c.notify_one();
        return true;
    }

    // Appends all of `items` in their order, then calls the notifier once; nothing without items.
    // They are taken out of `items`, which keeps its memory. False when the queue was too full for
    // the last of them, which are lost.
    bool enqueue_all(std::vector<T>& items) {
        const std::size_t count = put_all(items);
        const bool all = count == items.size();
        items.clear();
        if (count > 0) {
            notify();
            c.notify_all();
        }
        return all;
    }

    // Takes the front item and hands it to `callback`, which takes it by constant reference or by
    // value; a value is the queue's own reference, not one more. False at once when the queue is
    // empty. Never waits. An empty std::function raises std::bad_function_call after the item was
    // taken.
    template <std::invocable<T> Callback>
    bool dequeue(const Callback& callback) {
        T item;
        if (!take(item))
            return false;
        callback(std::move(item));
        return true;
    }

    // Whether there is anything to take at this moment.
    [[nodiscard]] bool empty() {
        const mutex_guard lock(m);
        return q.empty();
    }

    // `notifier` is called after each successful enqueue from now on, on the producer's thread.
    void set_user_notifier(const user_notifier_type& notifier) {
        const mutex_guard lock(user_notifier_mutex);
        user_notifier = notifier;
    }

    // Puts default_safe_queue_notifier back. A call of the old notifier that has already begun on
    // a producer's thread may still be running.
    void unset_user_notifier() { set_user_notifier(default_safe_queue_notifier); }

  private:
    bool put(T&& item) {
        const mutex_guard lock(m);
        if (is_full())
            return false;
        q.push(std::move(item));
        return true;
    }

    std::size_t put_all(std::vector<T>& items) {
        const mutex_guard lock(m);
        std::size_t count = 0;
        for (; count < items.size() && !is_full(); ++count)
            q.push(std::move(items[count]));
        return count;
    }

    [[nodiscard]] bool is_full() const LUMD_REQUIRES(m) {
        return max_size != 0 && q.size() >= max_size;
    }

    // With no lock held: the notifier may do what it likes.
    void notify() {
        user_notifier_type notifier;
        {
            const mutex_guard lock(user_notifier_mutex);
            notifier = user_notifier;
        }
        if (notifier)
            notifier();
    }

    bool take(T& item) {
        const mutex_guard lock(m);
        if (q.empty())
            return false;
        item = std::move(q.front());
        q.pop();
        return true;
    }

    user_notifier_type user_notifier LUMD_GUARDED_BY(user_notifier_mutex) =
        default_safe_queue_notifier;
    std::queue<T> q LUMD_GUARDED_BY(m);
    Mutex m;
    Mutex user_notifier_mutex;
    const unsigned max_size;
    std::condition_variable c;
};

}  // namespace libhubd

// The queue every worker uses: of messages, unbounded.
class safe_queue : public libhubd::SafeQueue<std::shared_ptr<buffer_info_t>, LockdepMutex> {
  public:
    safe_queue() : SafeQueue(0) {}

    // Enqueues the writer's text as a new message.
    void enqueue_json(json_writer& w);
};

#endif
