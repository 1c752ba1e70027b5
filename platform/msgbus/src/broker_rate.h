// BrokerRate counts the frames of one client against how many it may send in a second; what it has
// saved within a second it may send at once.
#ifndef PLATFORM_MSGBUS_BROKER_RATE_H
#define PLATFORM_MSGBUS_BROKER_RATE_H

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace msgbus {

class BrokerRate {
  public:
    using Clock = std::chrono::steady_clock;

    // 0: without a limit.
    BrokerRate(std::uint32_t per_second, Clock::time_point now);

    // How many frames it may send now.
    [[nodiscard]] std::size_t left(Clock::time_point now);
    void take(std::size_t frames);

    // When it may send the next one.
    [[nodiscard]] Clock::time_point next(Clock::time_point now);

    // Whether the frames just taken were the last ones: the first time since it could send a
    // second's worth.
    [[nodiscard]] bool is_used_up_anew(Clock::time_point now);

  private:
    void refill(Clock::time_point now);

    const std::uint32_t per_second_;
    double left_;
    Clock::time_point filled_;  // when left_ was right
    bool used_up_ = false;      // since it was full last
};

}  // namespace msgbus

#endif
