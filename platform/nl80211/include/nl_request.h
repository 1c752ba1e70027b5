/*
 * nl_request: a generic netlink command as it is built.
 */
#ifndef PLATFORM_NL_REQUEST_H
#define PLATFORM_NL_REQUEST_H

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

struct nl_msg;

// One command with its attributes, in the order of the calls. Adding does nothing once memory or
// the message's room is used up; then is_whole() is false and no transport sends it.
class nl_request {
  public:
    enum kind { single, dump };

    explicit nl_request(std::uint8_t command, kind answer = single);

    nl_request& put_flag(int type);
    nl_request& put_u8(int type, std::uint8_t value);
    nl_request& put_u16(int type, std::uint16_t value);
    nl_request& put_u32(int type, std::uint32_t value);
    nl_request& put_data(int type, std::span<const std::uint8_t> value);
    nl_request& put_text(int type, std::string_view value);  // with a NUL behind it
    // An array of numbers, whose elements are attributes of the types 1, 2, ...
    nl_request& put_list(int type, std::span<const std::uint32_t> values);
    // The same of byte strings, which get no NUL.
    nl_request& put_strings(int type, std::span<const std::string_view> values);

    [[nodiscard]] bool is_whole() const { return whole_ && message_ != nullptr; }
    [[nodiscard]] std::uint8_t command() const { return command_; }
    // What was put so far; for transports and their tests.
    [[nodiscard]] std::span<const std::uint8_t> attributes() const;
    [[nodiscard]] nl_msg* message() const { return message_.get(); }

  private:
    struct releaser {
        void operator()(nl_msg* message) const;
    };
    nl_request& put(int type, const void* value, std::size_t size);
    template <typename Value>
    nl_request& put_nested(int type, std::span<const Value> values);
    void put_element(int number, std::uint32_t value);
    void put_element(int number, std::string_view value);

    std::unique_ptr<nl_msg, releaser> message_;
    std::uint8_t command_;
    bool whole_ = true;
};

#endif
