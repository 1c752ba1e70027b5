// BrokerQueue is what waits to be sent to one client: a lane for each sender, and these are emptied
// in turn, so that nobody's frames wait behind all those of another. One sender's frames stay in
// their order.
//
// One thread at a time.
#ifndef PLATFORM_MSGBUS_BROKER_QUEUE_H
#define PLATFORM_MSGBUS_BROKER_QUEUE_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>

#include "frame.h"

namespace msgbus {

// One frame may wait for several clients.
using SharedFrame = std::shared_ptr<const message_s>;

class BrokerQueue {
  public:
    // A frame on its way to this client, and the client it came from (0: the broker itself).
    struct Waiting {
        SharedFrame frame;
        std::uint64_t sender = 0;
    };

    // So many frames leave with one system call.
    static constexpr std::size_t kFramesPerSend = 64;

    void push(Waiting entry);

    [[nodiscard]] bool empty() const { return next_.empty(); }
    [[nodiscard]] std::size_t frames() const;
    // Of all frames that wait.
    [[nodiscard]] std::size_t bytes() const { return bytes_; }

    // Whether more of that sender waits than its share of `limit` bytes, all senders having the
    // same. A sender of whom nothing waits has room.
    [[nodiscard]] bool is_full_for(std::uint64_t sender, std::size_t limit) const;

    // What leaves next, in this order; no turn changes it any more.
    [[nodiscard]] const std::deque<Waiting>& next() const { return next_; }
    void pop();

    // All that waits, in the order in which it would have left.
    std::deque<Waiting> take_all();

  private:
    struct Lane {
        std::uint64_t sender = 0;
        std::deque<SharedFrame> frames;  // never empty
        std::size_t bytes = 0;
    };

    [[nodiscard]] bool has_room_next() const;
    void append_next(Waiting entry);
    void take_turn();
    [[nodiscard]] std::size_t bytes_of(std::uint64_t sender) const;

    std::deque<Waiting> next_;  // empty only when all lanes are
    std::size_t next_bytes_ = 0;
    std::list<Lane> lanes_;  // the first has the next turn
    std::size_t bytes_ = 0;
};

}  // namespace msgbus

#endif
