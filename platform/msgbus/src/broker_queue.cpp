#include "broker_queue.h"

#include <algorithm>
#include <utility>

namespace msgbus {

namespace {

// As many bytes leave at once as a socket takes at once; more would only keep the next sender
// waiting.
constexpr std::size_t kBytesPerSend = std::size_t{64} * 1024;

}  // namespace

void BrokerQueue::push(Waiting entry) {
    const std::size_t size = frame_size(*entry.frame);
    bytes_ += size;
    if (lanes_.empty() && has_room_next()) {
        append_next(std::move(entry));
        return;
    }
    auto lane = std::find_if(lanes_.begin(), lanes_.end(),
                             [&](const Lane& there) { return there.sender == entry.sender; });
    if (lane == lanes_.end())
        lane = lanes_.insert(lanes_.end(), Lane{entry.sender, {}, 0});
    lane->frames.push_back(std::move(entry.frame));
    lane->bytes += size;
}

bool BrokerQueue::has_room_next() const {
    return next_.size() < kFramesPerSend && next_bytes_ < kBytesPerSend;
}

void BrokerQueue::append_next(Waiting entry) {
    next_bytes_ += frame_size(*entry.frame);
    next_.push_back(std::move(entry));
}

// The first lane's oldest frame; then the lane waits for all others.
void BrokerQueue::take_turn() {
    Lane& lane = lanes_.front();
    SharedFrame frame = std::move(lane.frames.front());
    lane.frames.pop_front();
    lane.bytes -= frame_size(*frame);
    append_next({std::move(frame), lane.sender});
    if (lane.frames.empty())
        lanes_.pop_front();
    else
        lanes_.splice(lanes_.end(), lanes_, lanes_.begin());
}

void BrokerQueue::pop() {
    const std::size_t size = frame_size(*next_.front().frame);
    next_.pop_front();
    next_bytes_ -= size;
    bytes_ -= size;
    while (!lanes_.empty() && has_room_next())
        take_turn();
}

std::size_t BrokerQueue::bytes_of(std::uint64_t sender) const {
    std::size_t bytes = 0;
    for (const Waiting& entry : next_)
        bytes += entry.sender == sender ? frame_size(*entry.frame) : 0;
    for (const Lane& lane : lanes_)
        bytes += lane.sender == sender ? lane.bytes : 0;
    return bytes;
}

std::size_t BrokerQueue::frames() const {
    std::size_t count = next_.size();
    for (const Lane& lane : lanes_)
        count += lane.frames.size();
    return count;
}

bool BrokerQueue::is_full_for(std::uint64_t sender, std::size_t limit) const {
    const std::size_t share = limit / std::max<std::size_t>(lanes_.size(), 1);
    return bytes_ > share && bytes_of(sender) > share;
}

std::deque<BrokerQueue::Waiting> BrokerQueue::take_all() {
    while (!lanes_.empty())
        take_turn();
    next_bytes_ = bytes_ = 0;
    return std::exchange(next_, {});
}

}  // namespace msgbus
