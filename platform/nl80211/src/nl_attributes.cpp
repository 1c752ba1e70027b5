#include "nl_attributes.h"

#include <netlink/attr.h>

#include <algorithm>

namespace {

nl_attributes::bytes data_of(const nlattr* attribute) {
    return {static_cast<const std::uint8_t*>(nla_data(attribute)),
            static_cast<std::size_t>(nla_len(attribute))};
}

// The library's walk, over a stream that it does not write to.
template <typename Visit>
const nlattr* find_if(nl_attributes::bytes stream, const Visit& visit) {
    const auto* attribute = reinterpret_cast<const nlattr*>(stream.data());
    int left = static_cast<int>(std::min<std::size_t>(stream.size(), INT32_MAX));
    for (; left > 0 && nla_ok(attribute, left); attribute = nla_next(attribute, &left))
        if (visit(attribute))
            return attribute;
    return nullptr;
}

}  // namespace

const nlattr* nl_attributes::find(int type) const {
    return find_if(stream_, [type](const nlattr* entry) { return nla_type(entry) == type; });
}

nl_attributes::bytes nl_attributes::data(int type) const {
    const nlattr* const attribute = find(type);
    return attribute == nullptr ? bytes{} : data_of(attribute);
}

std::string_view nl_attributes::text(int type) const {
    const bytes value = data(type);
    const auto end = std::find(value.begin(), value.end(), std::uint8_t{0});
    return {reinterpret_cast<const char*>(value.data()),
            static_cast<std::size_t>(end - value.begin())};
}

void nl_attributes::for_each(const std::function<void(int, bytes)>& visit) const {
    find_if(stream_, [&](const nlattr* entry) {
        visit(nla_type(entry), data_of(entry));
        return false;
    });
}
