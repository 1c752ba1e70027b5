/*
 * nl_attributes: the attributes of a netlink message or of a nested attribute, as a view that
 * trusts none of their lengths. Values are in host byte order.
 */
#ifndef PLATFORM_NL_ATTRIBUTES_H
#define PLATFORM_NL_ATTRIBUTES_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <span>
#include <string_view>

struct nlattr;

// Borrows the bytes, which begin at a multiple of four. What is asked for by a type that is
// missing, or shorter than the answer, is empty; of attributes of the same type the first counts.
class nl_attributes {
  public:
    using bytes = std::span<const std::uint8_t>;

    nl_attributes() = default;
    explicit nl_attributes(bytes stream) : stream_(stream) {}

    [[nodiscard]] bool empty() const { return stream_.empty(); }
    [[nodiscard]] bool has(int type) const { return find(type) != nullptr; }

    // An integer of exactly that width or the beginning of a longer value.
    template <typename Integer>
    [[nodiscard]] std::optional<Integer> get(int type) const {
        const bytes value = data(type);
        if (value.size() < sizeof(Integer))
            return std::nullopt;
        Integer result{};
        std::memcpy(&result, value.data(), sizeof result);
        return result;
    }

    // Up to its first NUL.
    [[nodiscard]] std::string_view text(int type) const;
    [[nodiscard]] bytes data(int type) const;
    [[nodiscard]] nl_attributes nested(int type) const { return nl_attributes{data(type)}; }

    // Each attribute in its order, for lists whose types are only numbers.
    void for_each(const std::function<void(int type, bytes data)>& visit) const;

  private:
    [[nodiscard]] const nlattr* find(int type) const;

    bytes stream_;
};

#endif
