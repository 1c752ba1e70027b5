#include "nl80211_socket.h"

#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <netlink/errno.h>
#include <netlink/genl/genl.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

namespace {

// Room for the events of a burst; an answer is told as fast as it is read.
constexpr int receive_buffer = 256 * 1024;

struct memory_releaser {
    void operator()(unsigned char* memory) const { std::free(memory); }
};

int to_errno(int library_error) {
    switch (library_error) {
        case NLE_AGAIN:
            return EAGAIN;
        case NLE_NOMEM:  // which ENOBUFS of recvmsg(2) becomes
            return ENOBUFS;
        case NLE_PERM:
        case NLE_NOACCESS:
            return EPERM;
        case NLE_AF_NOSUPPORT:
            return EAFNOSUPPORT;
        default:
            return EIO;
    }
}

}  // namespace

void nl80211_socket::closer::operator()(nl_sock* socket) const {
    nl_socket_free(socket);
}

nl80211_socket::nl80211_socket(std::chrono::milliseconds wait, std::string family)
    : wait_(wait), family_name_(std::move(family)) {}

int nl80211_socket::fd() const {
    return socket_ ? nl_socket_get_fd(socket_.get()) : -1;
}

int nl80211_socket::open() {
    if (socket_)
        return 0;
    socket_.reset(nl_socket_alloc());
    if (!socket_)
        return -ENOMEM;
    int error = genl_connect(socket_.get());
    if (error == 0)
        error = nl_socket_set_nonblocking(socket_.get());
    if (error != 0) {
        socket_.reset();
        return -to_errno(-error);
    }
    nl_socket_set_buffer_size(socket_.get(), receive_buffer, 0);
    nl_socket_enable_msg_peek(socket_.get());
    // Older kernels have no words for their refusals.
    const int on = 1;
    setsockopt(fd(), SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof on);
    const int result = find_family();
    if (result != 0)
        socket_.reset();
    return result;
}

int nl80211_socket::find_family() {
    family_ = 0;
    groups_.clear();
    nl_request request{CTRL_CMD_GETFAMILY};
    request.put_text(CTRL_ATTR_FAMILY_NAME, family_name_);
    const int result =
        talk(request, GENL_ID_CTRL, [this](std::uint8_t, const nl_attributes& family) {
            family_ = family.get<std::uint16_t>(CTRL_ATTR_FAMILY_ID).value_or(0);
            family.nested(CTRL_ATTR_MCAST_GROUPS).for_each([this](int, nl_attributes::bytes data) {
                const nl_attributes group{data};
                groups_.emplace(group.text(CTRL_ATTR_MCAST_GRP_NAME),
                                group.get<std::uint32_t>(CTRL_ATTR_MCAST_GRP_ID).value_or(0));
            });
        });
    if (result == -ENOENT)
        return -ENODEV;
    return result == 0 && family_ == 0 ? -ENODEV : result;
}

int nl80211_socket::exchange(const nl_request& request, const nl_handler& handler) {
    const int error = open();
    return error != 0 ? error : talk(request, family_, handler);
}

int nl80211_socket::talk(const nl_request& request, std::uint16_t family,
                         const nl_handler& handler) {
    reason_.clear();
    if (!request.is_whole())
        return -EMSGSIZE;
    nlmsghdr* const header = nlmsg_hdr(request.message());
    header->nlmsg_type = family;
    header->nlmsg_seq = NL_AUTO_SEQ;  // also of a request that was sent before
    header->nlmsg_pid = NL_AUTO_PORT;
    if (const int sent = nl_send_auto(socket_.get(), request.message()); sent < 0)
        return -to_errno(-sent);
    nl_answer answer{family, header->nlmsg_seq, handler};
    while (!answer.is_over()) {
        int error = receive([&](std::span<const std::uint8_t> datagram) { answer.take(datagram); });
        if (error == -EAGAIN)
            error = wait_for_input();
        if (error != 0)
            return error;
    }
    reason_ = answer.reason();
    return answer.result();
}

int nl80211_socket::wait_for_input() {
    pollfd entry{fd(), POLLIN, 0};
    int ready = 0;
    do
        ready = poll(&entry, 1, static_cast<int>(wait_.count()));
    while (ready < 0 && errno == EINTR);
    return ready > 0 ? 0 : -ETIMEDOUT;
}

int nl80211_socket::receive(const std::function<void(std::span<const std::uint8_t>)>& take) {
    sockaddr_nl sender{};
    unsigned char* memory = nullptr;
    const int length = nl_recv(socket_.get(), &sender, &memory, nullptr);
    const std::unique_ptr<unsigned char, memory_releaser> datagram{memory};
    if (length < 0)
        return -to_errno(-length);
    if (length == 0)
        return -EAGAIN;
    // Only the kernel is port 0; others may send here, too.
    if (sender.nl_pid == 0)
        take({datagram.get(), static_cast<std::size_t>(length)});
    return 0;
}

int nl80211_socket::subscribe(const char* group) {
    if (const int error = open(); error != 0)
        return error;
    const auto known = groups_.find(group);
    if (known == groups_.end())
        return -ENOENT;
    const int error = nl_socket_add_membership(socket_.get(), static_cast<int>(known->second));
    return error == 0 ? 0 : -to_errno(-error);
}

int nl80211_socket::read_events(const nl_handler& handler) {
    if (!socket_)
        return -ENOTCONN;
    for (int i = 0; i < datagrams_in_a_row; ++i) {
        const int error = receive([&](std::span<const std::uint8_t> datagram) {
            nl_read_events(family_, datagram, handler);
        });
        if (error != 0)
            return error == -EAGAIN ? 0 : error;
    }
    return 0;
}
