// An input as a target reads it: a few plain values first, then texts or bytes.
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

// Stands between the records of one input: no JSON text holds it (RFC 7464).
inline constexpr char record_separator = '\x1e';

inline std::string_view as_text(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// More than these show nothing new and only make inputs slow.
inline constexpr std::size_t most_records = 16;

// At least one record; a separator at the end begins an empty one.
inline std::vector<std::string> records(std::string_view input) {
    std::vector<std::string> result;
    for (std::size_t begin = 0; begin <= input.size() && result.size() < most_records;) {
        const std::size_t end = std::min(input.find(record_separator, begin), input.size());
        result.emplace_back(input.substr(begin, end - begin));
        begin = end + 1;
    }
    return result;
}

// Takes from the front of the input; 0 and the empty text when it is used up.
class Reader {
  public:
    explicit Reader(std::string_view input) : rest_(input) {}

    std::uint8_t byte() {
        const std::string_view one = take(1);
        return one.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(one.front());
    }
    std::uint16_t word() {
        const unsigned high = byte();
        return static_cast<std::uint16_t>(high << 8 | byte());
    }
    std::string_view take(std::size_t count) {
        const std::string_view taken = rest_.substr(0, count);
        rest_.remove_prefix(taken.size());
        return taken;
    }
    [[nodiscard]] std::string_view rest() const { return rest_; }
    [[nodiscard]] bool empty() const { return rest_.empty(); }

  private:
    std::string_view rest_;
};

// What must hold whatever the input is; a crash where it does not.
inline void require(bool holds) {
    if (!holds)
        std::abort();
}

}  // namespace fuzz

#endif
