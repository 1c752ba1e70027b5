#include "nl_answer.h"

#include <linux/netlink.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

using bytes = std::span<const std::uint8_t>;

template <typename Visit>
void for_each_message(bytes datagram, const Visit& visit) {
    // The library's walk takes no const, and writes nothing.
    auto* header = reinterpret_cast<nlmsghdr*>(const_cast<std::uint8_t*>(datagram.data()));
    int left = static_cast<int>(std::min<std::size_t>(datagram.size(), INT32_MAX));
    for (; left > 0 && nlmsg_ok(header, left); header = nlmsg_next(header, &left))
        if (!visit(header))
            return;
}

bytes payload_of(nlmsghdr* header) {
    return {static_cast<const std::uint8_t*>(nlmsg_data(header)),
            static_cast<std::size_t>(nlmsg_datalen(header))};
}

void hand_over(nlmsghdr* header, const nl_handler& handler) {
    if (genlmsg_valid_hdr(header, 0) == 0)
        return;
    const genlmsghdr* const message = genlmsg_hdr(header);
    const bytes attributes = payload_of(header).subspan(GENL_HDRLEN);
    handler(message->cmd, nl_attributes{attributes});
}

// The error that ends an answer or a dump stands at its beginning; none for a message without it.
int error_of(bytes payload) {
    int error = 0;
    if (payload.size() >= sizeof error)
        std::memcpy(&error, payload.data(), sizeof error);
    return std::min(error, 0);
}

// What the kernel adds to an error comes behind the command's header, or behind the whole command
// where the kernel repeats it.
std::string reason_of(const nlmsghdr* header, bytes payload) {
    if ((header->nlmsg_flags & NLM_F_ACK_TLVS) == 0 || payload.size() < sizeof(nlmsgerr))
        return {};
    nlmsgerr error{};
    std::memcpy(&error, payload.data(), sizeof error);
    std::size_t offset = sizeof error;
    if ((header->nlmsg_flags & NLM_F_CAPPED) == 0)
        offset += NLMSG_ALIGN(std::max<std::size_t>(error.msg.nlmsg_len, sizeof error.msg)) -
                  sizeof error.msg;
    if (offset > payload.size())
        return {};
    return std::string{nl_attributes{payload.subspan(offset)}.text(NLMSGERR_ATTR_MSG)};
}

}  // namespace

void nl_answer::finish(int error) {
    over_ = true;
    result_ = error != 0 ? error : interrupted_ ? -EINTR : 0;
}

void nl_answer::take(bytes datagram) {
    for_each_message(datagram, [this](nlmsghdr* header) {
        if (over_ || header->nlmsg_seq != sequence_)
            return true;
        interrupted_ = interrupted_ || (header->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
        if (header->nlmsg_type == family_) {
            hand_over(header, handler_);
        } else if (header->nlmsg_type == NLMSG_ERROR) {
            reason_ = reason_of(header, payload_of(header));
            finish(error_of(payload_of(header)));
        } else if (header->nlmsg_type == NLMSG_DONE) {
            finish(error_of(payload_of(header)));
        } else if (header->nlmsg_type == NLMSG_OVERRUN) {
            finish(-ENOBUFS);
        }
        return true;
    });
}

void nl_read_events(std::uint16_t family, bytes datagram, const nl_handler& handler) {
    for_each_message(datagram, [&](nlmsghdr* header) {
        if (header->nlmsg_type == family)
            hand_over(header, handler);
        return true;
    });
}
