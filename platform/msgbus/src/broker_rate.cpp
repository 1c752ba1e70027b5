#include "broker_rate.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace msgbus {

namespace {

using Seconds = std::chrono::duration<double>;

}  // namespace

BrokerRate::BrokerRate(std::uint32_t per_second, Clock::time_point now)
    : per_second_(per_second), left_(per_second), filled_(now) {}

void BrokerRate::refill(Clock::time_point now) {
    const double gained = Seconds{now - filled_}.count() * per_second_;
    left_ = std::min<double>(left_ + gained, per_second_);
    filled_ = now;
    if (left_ >= per_second_)
        used_up_ = false;
}

std::size_t BrokerRate::left(Clock::time_point now) {
    if (per_second_ == 0)
        return std::numeric_limits<std::size_t>::max();
    refill(now);
    return static_cast<std::size_t>(std::max(left_, 0.0));
}

void BrokerRate::take(std::size_t frames) {
    if (per_second_ != 0)
        left_ -= static_cast<double>(frames);
}

BrokerRate::Clock::time_point BrokerRate::next(Clock::time_point now) {
    if (left(now) > 0)
        return now;
    return now + std::chrono::ceil<Clock::duration>(Seconds{(1 - left_) / per_second_});
}

bool BrokerRate::is_used_up_anew(Clock::time_point now) {
    return left(now) == 0 && !std::exchange(used_up_, true);
}

}  // namespace msgbus
