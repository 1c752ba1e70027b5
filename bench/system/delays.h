// Messages that tell when they were sent, and how late they come.
#ifndef BENCH_DELAYS_H
#define BENCH_DELAYS_H

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

using Clock = std::chrono::steady_clock;  // one for all processes of the machine

constexpr std::chrono::microseconds delay_period{1000};  // from one message to the next
constexpr std::size_t delay_message_bytes = 256;
constexpr std::size_t delay_messages = 3000;

// A JSON object of exactly `bytes` bytes, 64 at least; lumd looks into what it sends to the
// service.
inline std::string make_message(std::size_t bytes) {
    std::array<char, 64> head;
    const long long now = Clock::now().time_since_epoch().count();
    std::snprintf(head.data(), head.size(), "{\"sent\":%020lld,\"pad\":\"", now);
    std::string text = head.data();
    text.append(bytes - text.size() - 2, 'x');
    return text + "\"}";
}

// Microseconds since the message was made.
inline double delay_of(std::string_view message) {
    const long long sent = std::strtoll(std::string(message.substr(8, 20)).c_str(), nullptr, 10);
    const Clock::duration taken = Clock::now().time_since_epoch() - Clock::duration(sent);
    return std::chrono::duration<double, std::micro>(taken).count();
}

struct Percentiles {
    double p50;
    double p99;
};

inline Percentiles percentiles(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return {values[values.size() / 2], values[values.size() * 99 / 100]};
}

#endif
