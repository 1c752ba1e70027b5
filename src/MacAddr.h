// libhubd::MacAddr: a MAC address (EUI-48) with a validity flag and text forms.
#ifndef LUMD_MACADDR_H
#define LUMD_MACADDR_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace libhubd {

class MacAddr {
  public:
    using bytes_type = std::array<std::uint8_t, 6>;

    MacAddr() = default;
    explicit MacAddr(const bytes_type& bytes) : valid(true), mac(bytes) {}
    MacAddr(const MacAddr&) = default;
    MacAddr& operator=(const MacAddr&) = default;
    virtual ~MacAddr() = default;

    // Reads 17 characters of pairs separated by ':' or '-' (mixed freely), or 12 hex digits.
    // A bad digit or separator gives an invalid, zero address. Any other text gives a *valid* zero
    // address; so does null, which reads as the empty text.
    static MacAddr from_str(const char* text);

    [[nodiscard]] std::string str() const;        // 00:1a:2b:3c:4d:5e
    [[nodiscard]] std::string str_solid() const;  // 001a2b3c4d5e

    [[nodiscard]] bool is_valid() const { return valid; }
    [[nodiscard]] const bytes_type& bytes() const { return mac; }

    // By address value alone.
    bool operator==(const MacAddr& other) const { return mac == other.mac; }

  private:
    bool valid = false;
    bytes_type mac{};
};

}  // namespace libhubd

template <>
struct std::hash<libhubd::MacAddr> {
    std::size_t operator()(const libhubd::MacAddr& address) const noexcept;
};

#endif
