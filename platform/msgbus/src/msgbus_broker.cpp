#include "msgbus_broker.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <utility>
#include <vector>

#include "frame.h"
#include "logsink.h"

using msgbus::FrameParser;
using msgbus::make_header;
using msgbus::Message;
using msgbus::Received;
using msgbus::UniqueFd;

namespace {

using Clock = std::chrono::steady_clock;
using SharedFrame = std::shared_ptr<const message_s>;

constexpr std::size_t kMaxConnections = 320;  // every module, monitors, and some who are joining
constexpr std::chrono::seconds kAttachLimit{5};
constexpr int kAttachCheckMs = 1000;
constexpr int kAcceptPauseMs = 100;  // while the process is out of descriptors
// A client that does not take back its undeliverable frames is not read until it does.
constexpr std::size_t kMaxReturned = 4096;
constexpr std::size_t kFramesPerSend = 64;
constexpr mode_t kSocketMode = 0666;  // receivers judge the uid that each frame carries

enum class Role { NEWCOMER, MODULE, MONITOR };

// A frame on its way to a client, and the connection it came from (0: the broker itself).
struct Waiting {
    SharedFrame frame;
    std::uint64_t sender = 0;
};

struct Client {
    UniqueFd fd;
    UniqueFd event;        // its eventfd(2), bumped with what it is sent; none: it polls
    std::uint64_t id = 0;  // never used twice
    uid_t uid = 0;
    pid_t pid = 0;
    Clock::time_point attach_until;
    Role role = Role::NEWCOMER;
    std::uint8_t module = 0;
    bool ended = false;  // removed at the end of the current round
    FrameParser parser;
    std::deque<Waiting> waiting;
    std::size_t waiting_bytes = 0;
    std::size_t front_sent = 0;  // bytes of waiting.front() that are out already
    std::size_t returned = 0;    // undeliverable frames among `waiting`
};

// Root and the broker's own user: they could end the broker anyway.
bool is_trusted(const Client& client) {
    return client.uid == 0 || client.uid == geteuid();
}

bool is_returned(const Waiting& entry) {
    return entry.frame->header.type == MSGBUS_UNDELIVERABLE;
}

// Never blocks: a counter that is full wakes its reader already.
void wake(const Client& client) {
    if (!client.event)
        return;
    pollfd entry{client.event.get(), POLLOUT, 0};
    const std::uint64_t one = 1;
    if (poll(&entry, 1, 0) != 1 || (entry.revents & POLLOUT) == 0)
        return;
    [[maybe_unused]] const ssize_t written = write(client.event.get(), &one, sizeof one);
}

// One sendmsg(2) of as many of the frames that wait as it takes here.
ssize_t send_front(const Client& client) {
    std::array<iovec, kFramesPerSend> parts{};
    const std::size_t count = std::min(parts.size(), client.waiting.size());
    for (std::size_t i = 0; i < count; i++) {
        // sendmsg(2) takes its parts writable and does not write them.
        auto* const frame = const_cast<message_s*>(client.waiting[i].frame.get());
        parts[i] = {frame, msgbus::frame_size(*frame)};
    }
    parts[0].iov_base = static_cast<std::uint8_t*>(parts[0].iov_base) + client.front_sent;
    parts[0].iov_len -= client.front_sent;
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = static_cast<decltype(message.msg_iovlen)>(count);
    return sendmsg(client.fd.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
}

void drop_sent(Client& client, std::size_t sent) {
    client.front_sent += sent;
    while (!client.waiting.empty()) {
        const std::size_t size = msgbus::frame_size(*client.waiting.front().frame);
        if (client.front_sent < size)
            return;
        client.returned -= is_returned(client.waiting.front()) ? 1 : 0;
        client.waiting_bytes -= size;
        client.front_sent -= size;
        client.waiting.pop_front();
    }
}

// The other side has closed: nothing more will be written to this socket.
bool hung_up(const Client& client) {
    pollfd entry{client.fd.get(), 0, 0};
    return poll(&entry, 1, 0) == 1 && (entry.revents & (POLLHUP | POLLERR)) != 0;
}

sockaddr_un address_of(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

UniqueFd make_socket() {
    return UniqueFd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
}

}  // namespace

class MsgbusBroker::Impl {
  public:
    explicit Impl(std::string socket_path)
        : path_(std::move(socket_path)), stop_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    bool open();
    void run();
    void stop() const;
    [[nodiscard]] const std::string& error() const { return error_; }

  private:
    bool fail(const std::string& what);
    bool make_way();
    bool listen_there();
    void remove_socket() const;

    bool serve_round();
    void collect_descriptors();
    [[nodiscard]] int round_limit_ms() const;
    void accept_all();
    bool accept_one();
    void admit(UniqueFd fd);
    void end_latecomers();
    void remove_ended();

    void serve(Client& client, short events);
    void receive(Client& client);
    void handle(Client& client, Message frame);
    void attach(Client& client, const message_header_s& header);
    void attach_monitor(Client& client);
    void attach_module(Client& client, std::uint8_t module);
    void forward(Client& client, Message frame);
    void give_back(Client& sender, std::uint8_t missing, std::uint32_t seq);
    void give_back_waiting(const std::deque<Waiting>& lost, std::uint8_t module);
    void control(Client& client, msgbus_frame_type type, std::uint8_t src, std::uint8_t dst,
                 std::uint32_t seq);
    void enqueue(Client& client, SharedFrame frame, std::uint64_t sender);
    void flush(Client& client);
    void flush_fresh();
    [[nodiscard]] bool send_waiting(Client& client);
    void show(const SharedFrame& frame);
    void malformed(Client& client, const std::string& what);
    void end(Client& client);

    const std::string path_;
    const UniqueFd stop_;
    std::string error_;
    UniqueFd listener_;
    dev_t socket_device_ = 0;
    ino_t socket_inode_ = 0;
    bool accept_paused_ = false;
    bool accept_failed_ = false;  // since a client was accepted last; reported
    std::uint64_t last_id_ = 0;
    std::vector<std::unique_ptr<Client>> clients_;
    std::array<Client*, MSGBUS_MONITOR> holders_{};  // by module id
    std::vector<pollfd> descriptors_;                // stop_, listener_, then clients_
    std::vector<Client*> fresh_;  // those whose first waiting frame is of the current round
};

// ---- the socket

bool MsgbusBroker::Impl::fail(const std::string& what) {
    error_ = what;
    logsink_message(SINK_ERROR, "msgbus broker: %s", what.c_str());
    return false;
}

bool MsgbusBroker::Impl::open() {
    if (!stop_)
        return fail("no event descriptor: " + std::string{std::strerror(errno)});
    if (path_.empty() || path_.size() >= sizeof(sockaddr_un::sun_path))
        return fail("the socket path '" + path_ + "' is empty or too long");
    return make_way() && listen_there();
}

// Removes a socket that nobody listens on; nothing else.
bool MsgbusBroker::Impl::make_way() {
    struct stat status {};
    if (lstat(path_.c_str(), &status) != 0)
        return errno == ENOENT ? true : fail(path_ + ": " + std::strerror(errno));
    if (!S_ISSOCK(status.st_mode))
        return fail(path_ + " is there and no socket");
    const sockaddr_un address = address_of(path_);
    const UniqueFd probe = make_socket();
    if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
        errno != ECONNREFUSED)
        return fail(path_ + " is in use");
    return unlink(path_.c_str()) == 0 ? true : fail(path_ + ": " + std::strerror(errno));
}

bool MsgbusBroker::Impl::listen_there() {
    const sockaddr_un address = address_of(path_);
    UniqueFd listener = make_socket();
    struct stat status {};
    if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        chmod(path_.c_str(), kSocketMode) != 0 || listen(listener.get(), SOMAXCONN) != 0 ||
        stat(path_.c_str(), &status) != 0)
        return fail("cannot listen on " + path_ + ": " + std::strerror(errno));
    socket_device_ = status.st_dev;
    socket_inode_ = status.st_ino;
    listener_ = std::move(listener);
    return true;
}

// Another broker may have put its own there meanwhile.
void MsgbusBroker::Impl::remove_socket() const {
    struct stat status {};
    if (stat(path_.c_str(), &status) == 0 && status.st_dev == socket_device_ &&
        status.st_ino == socket_inode_)
        unlink(path_.c_str());
}

// ---- the loop

void MsgbusBroker::Impl::run() {
    while (listener_ && serve_round())
        continue;
    holders_ = {};
    clients_.clear();
    if (listener_)
        remove_socket();
    listener_.reset();
}

void MsgbusBroker::Impl::stop() const {
    const int saved_errno = errno;  // signal handlers call this
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(stop_.get(), &one, sizeof one);
    errno = saved_errno;
}

bool MsgbusBroker::Impl::serve_round() {
    collect_descriptors();
    if (poll(descriptors_.data(), descriptors_.size(), round_limit_ms()) < 0)
        return true;
    if (descriptors_[0].revents != 0)
        return false;
    accept_paused_ = false;
    for (std::size_t i = 2; i < descriptors_.size(); i++)
        serve(*clients_[i - 2], descriptors_[i].revents);
    if (descriptors_[1].revents != 0)
        accept_all();
    end_latecomers();
    flush_fresh();
    remove_ended();
    return true;
}

void MsgbusBroker::Impl::collect_descriptors() {
    const short accepting = accept_paused_ ? 0 : POLLIN;
    descriptors_.assign({{stop_.get(), POLLIN, 0}, {listener_.get(), accepting, 0}});
    for (const auto& client : clients_) {
        const int wanted = (client->returned < kMaxReturned ? POLLIN : 0) |
                           (client->waiting.empty() ? 0 : POLLOUT);
        descriptors_.push_back({client->fd.get(), static_cast<short>(wanted), 0});
    }
}

int MsgbusBroker::Impl::round_limit_ms() const {
    if (accept_paused_)
        return kAcceptPauseMs;
    const bool newcomers = std::any_of(clients_.begin(), clients_.end(), [](const auto& client) {
        return client->role == Role::NEWCOMER;
    });
    return newcomers ? kAttachCheckMs : -1;
}

void MsgbusBroker::Impl::accept_all() {
    while (accept_one())
        continue;
}

// True when there may be more.
bool MsgbusBroker::Impl::accept_one() {
    UniqueFd fd{accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)};
    if (!fd) {
        if (errno == EINTR || errno == ECONNABORTED)
            return true;
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            if (!std::exchange(accept_failed_, true))
                logsink_message(SINK_ERROR, "msgbus broker: cannot accept a client: %s",
                                std::strerror(errno));
            accept_paused_ = true;
        }
        return false;
    }
    accept_failed_ = false;
    if (clients_.size() < kMaxConnections)
        admit(std::move(fd));
    else
        logsink_message(SINK_ERROR, "msgbus broker: client refused, %zu are there",
                        clients_.size());
    return true;
}

void MsgbusBroker::Impl::admit(UniqueFd fd) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
        return;
    auto client = std::make_unique<Client>();
    client->fd = std::move(fd);
    client->id = ++last_id_;
    client->uid = peer.uid;
    client->pid = peer.pid;
    client->attach_until = Clock::now() + kAttachLimit;
    clients_.push_back(std::move(client));
}

void MsgbusBroker::Impl::end_latecomers() {
    const Clock::time_point now = Clock::now();
    for (const auto& client : clients_) {
        if (client->role != Role::NEWCOMER || client->ended || now < client->attach_until)
            continue;
        logsink_message(SINK_WARNING, "msgbus broker: process %d did not attach",
                        static_cast<int>(client->pid));
        end(*client);
    }
}

void MsgbusBroker::Impl::remove_ended() {
    std::erase_if(clients_, [](const auto& client) { return client->ended; });
}

// ---- one client

void MsgbusBroker::Impl::serve(Client& client, short events) {
    if (!client.ended && (events & (POLLIN | POLLHUP | POLLERR)) != 0)
        receive(client);
    if (!client.ended && (events & POLLOUT) != 0)
        flush(client);
}

// One piece at a time, so that nobody keeps the others waiting.
void MsgbusBroker::Impl::receive(Client& client) {
    const bool may_pass = client.role == Role::NEWCOMER && is_trusted(client);
    const Received received = msgbus::receive_frames(
        client.fd.get(), client.parser, [&](Message frame) { handle(client, std::move(frame)); },
        may_pass ? &client.event : nullptr);
    if (client.ended)
        return;
    if (received == Received::MALFORMED)
        malformed(client, client.parser.error());
    else if (received == Received::END)
        end(client);
}

void MsgbusBroker::Impl::handle(Client& client, Message frame) {
    const message_header_s header = frame->header;
    if (client.ended)
        return;
    if (client.role == Role::NEWCOMER && header.type == MSGBUS_ATTACH && header.len == 0)
        attach(client, header);
    else if (client.role == Role::MODULE && header.type == MSGBUS_DATA)
        forward(client, std::move(frame));
    else
        malformed(client, "its type " + std::to_string(header.type) + " with " +
                              std::to_string(header.len) + " bytes is out of place");
}

void MsgbusBroker::Impl::attach(Client& client, const message_header_s& header) {
    if (header.dst == MSGBUS_MONITOR)
        attach_monitor(client);
    else if (header.src < holders_.size())
        attach_module(client, header.src);
    else
        malformed(client, "there is no module " + std::to_string(header.src));
}

void MsgbusBroker::Impl::attach_monitor(Client& client) {
    if (!is_trusted(client)) {
        logsink_message(SINK_WARNING, "msgbus broker: uid %u of process %d must not monitor",
                        static_cast<unsigned>(client.uid), static_cast<int>(client.pid));
        end(client);
        return;
    }
    control(client, MSGBUS_ATTACH, MSGBUS_MONITOR, MSGBUS_MONITOR, 1);
    client.role = Role::MONITOR;
    for (const Client* holder : holders_)
        if (holder)
            control(client, MSGBUS_ATTACH, holder->module, holder->module, 1);
}

void MsgbusBroker::Impl::attach_module(Client& client, std::uint8_t module) {
    Client*& holder = holders_[module];
    // A holder that has died holds nothing; what it sent last is still to be forwarded.
    while (holder && hung_up(*holder))
        receive(*holder);
    if (holder) {
        logsink_message(SINK_WARNING,
                        "msgbus broker: module %u is held by process %d, process %d refused",
                        module, static_cast<int>(holder->pid), static_cast<int>(client.pid));
        end(client);
        return;
    }
    holder = &client;
    client.role = Role::MODULE;
    client.module = module;
    const SharedFrame answer = msgbus::make_message(make_header(MSGBUS_ATTACH, module, module));
    enqueue(client, answer, 0);
    show(answer);
}

void MsgbusBroker::Impl::forward(Client& client, Message frame) {
    frame->header.src = client.module;
    frame->header.src_uid = static_cast<std::uint32_t>(client.uid);
    const SharedFrame shared{std::move(frame)};
    show(shared);
    const std::uint8_t dst = shared->header.dst;
    Client* receiver = dst < holders_.size() ? holders_[dst] : nullptr;
    if (receiver && receiver->waiting_bytes <= MSGBUS_MAX_WAITING)
        enqueue(*receiver, shared, client.id);
    else
        give_back(client, dst, shared->header.seq);
}

void MsgbusBroker::Impl::give_back(Client& sender, std::uint8_t missing, std::uint32_t seq) {
    message_header_s header = make_header(MSGBUS_UNDELIVERABLE, missing, sender.module, seq);
    header.src_uid = static_cast<std::uint32_t>(geteuid());
    const SharedFrame frame = msgbus::make_message(header);
    show(frame);
    sender.returned++;
    enqueue(sender, frame, 0);
}

// What a module has not taken before its end goes back to those senders who are still there.
void MsgbusBroker::Impl::give_back_waiting(const std::deque<Waiting>& lost, std::uint8_t module) {
    for (const Waiting& entry : lost) {
        if (entry.sender == 0)
            continue;
        Client* sender = holders_[entry.frame->header.src];
        if (sender && sender->id == entry.sender)
            give_back(*sender, module, entry.frame->header.seq);
    }
}

void MsgbusBroker::Impl::control(Client& client, msgbus_frame_type type, std::uint8_t src,
                                 std::uint8_t dst, std::uint32_t seq) {
    enqueue(client, msgbus::make_message(make_header(type, src, dst, seq)), 0);
}

void MsgbusBroker::Impl::enqueue(Client& client, SharedFrame frame, std::uint64_t sender) {
    if (client.ended)
        return;
    if (!frame) {
        end(client);
        return;
    }
    client.waiting_bytes += msgbus::frame_size(*frame);
    client.waiting.push_back({std::move(frame), sender});
    if (client.waiting.size() == 1)
        fresh_.push_back(&client);
}

void MsgbusBroker::Impl::flush(Client& client) {
    if (send_waiting(client))
        wake(client);
}

// At the end of a round: what came for a client in one piece leaves in one. The end of a client
// that cannot be sent to may give others something to send.
void MsgbusBroker::Impl::flush_fresh() {
    for (std::size_t i = 0; i < fresh_.size(); i++)
        if (!fresh_[i]->ended)
            flush(*fresh_[i]);
    fresh_.clear();
}

// Whether any bytes went out: of a long frame the client must take the first before there is room
// for the last.
bool MsgbusBroker::Impl::send_waiting(Client& client) {
    bool moved = false;
    while (!client.waiting.empty()) {
        const ssize_t sent = send_front(client);
        if (sent < 0) {
            if (errno == EINTR)
                continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                end(client);
            return moved;
        }
        moved = true;
        drop_sent(client, static_cast<std::size_t>(sent));
    }
    return moved;
}

void MsgbusBroker::Impl::show(const SharedFrame& frame) {
    for (const auto& client : clients_) {
        if (client->role != Role::MONITOR || client->ended)
            continue;
        if (client->waiting_bytes <= MSGBUS_MAX_WAITING) {
            enqueue(*client, frame, 0);
            continue;
        }
        logsink_message(SINK_WARNING, "msgbus broker: monitor of process %d is too slow",
                        static_cast<int>(client->pid));
        end(*client);
    }
}

void MsgbusBroker::Impl::malformed(Client& client, const std::string& what) {
    logsink_message(SINK_ERROR, "msgbus broker: malformed frame from process %d, uid %u: %s",
                    static_cast<int>(client.pid), static_cast<unsigned>(client.uid), what.c_str());
    end(client);
}

void MsgbusBroker::Impl::end(Client& client) {
    if (std::exchange(client.ended, true))
        return;
    client.fd.reset();
    client.event.reset();
    if (client.role != Role::MODULE)
        return;
    holders_[client.module] = nullptr;
    show(msgbus::make_message(make_header(MSGBUS_DETACH, client.module, client.module)));
    give_back_waiting(std::exchange(client.waiting, {}), client.module);
}

// ---- the public face

MsgbusBroker::MsgbusBroker(std::string socket_path)
    : impl_(std::make_unique<Impl>(std::move(socket_path))) {}

MsgbusBroker::~MsgbusBroker() = default;

bool MsgbusBroker::open() {
    return impl_->open();
}

const std::string& MsgbusBroker::error() const {
    return impl_->error();
}

void MsgbusBroker::run() {
    impl_->run();
}

void MsgbusBroker::stop() {
    impl_->stop();
}
