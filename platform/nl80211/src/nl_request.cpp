#include "nl_request.h"

#include <netlink/attr.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>

#include <string>

void nl_request::releaser::operator()(nl_msg* message) const {
    nlmsg_free(message);
}

// The transport knows the family's number, and the library those of sender and sequence.
nl_request::nl_request(std::uint8_t command, kind answer)
    : message_(nlmsg_alloc()), command_(command) {
    if (message_)
        whole_ = genlmsg_put(message_.get(), NL_AUTO_PORT, NL_AUTO_SEQ, 0, 0,
                             answer == dump ? NLM_F_DUMP : 0, command, 0) != nullptr;
}

nl_request& nl_request::put(int type, const void* value, std::size_t size) {
    if (is_whole())
        whole_ =
            size <= UINT16_MAX && nla_put(message_.get(), type, static_cast<int>(size), value) == 0;
    return *this;
}

nl_request& nl_request::put_flag(int type) {
    return put(type, nullptr, 0);
}

nl_request& nl_request::put_u8(int type, std::uint8_t value) {
    return put(type, &value, sizeof value);
}

nl_request& nl_request::put_u16(int type, std::uint16_t value) {
    return put(type, &value, sizeof value);
}

nl_request& nl_request::put_u32(int type, std::uint32_t value) {
    return put(type, &value, sizeof value);
}

nl_request& nl_request::put_data(int type, std::span<const std::uint8_t> value) {
    return put(type, value.data(), value.size());
}

nl_request& nl_request::put_text(int type, std::string_view value) {
    const std::string text{value};
    return put(type, text.c_str(), text.size() + 1);
}

void nl_request::put_element(int number, std::uint32_t value) {
    put_u32(number, value);
}

void nl_request::put_element(int number, std::string_view value) {
    put(number, value.data(), value.size());
}

template <typename Value>
nl_request& nl_request::put_nested(int type, std::span<const Value> values) {
    nlattr* const list = is_whole() ? nla_nest_start(message_.get(), type) : nullptr;
    whole_ = list != nullptr;
    int number = 0;
    for (const Value& value : values)
        put_element(++number, value);
    if (is_whole())
        nla_nest_end(message_.get(), list);
    return *this;
}

nl_request& nl_request::put_list(int type, std::span<const std::uint32_t> values) {
    return put_nested(type, values);
}

nl_request& nl_request::put_strings(int type, std::span<const std::string_view> values) {
    return put_nested(type, values);
}

std::span<const std::uint8_t> nl_request::attributes() const {
    if (!message_)
        return {};
    const auto* const header =
        static_cast<const genlmsghdr*>(nlmsg_data(nlmsg_hdr(message_.get())));
    return {reinterpret_cast<const std::uint8_t*>(genlmsg_attrdata(header, 0)),
            static_cast<std::size_t>(genlmsg_attrlen(header, 0))};
}
