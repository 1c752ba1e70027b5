#include "msgbus_broker.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "broker_client.h"
#include "broker_list.h"
#include "broker_socket.h"
#include "frame.h"
#include "logsink.h"

using msgbus::BrokerClient;
using msgbus::BrokerSocket;
using msgbus::make_header;
using msgbus::make_message;
using msgbus::Message;
using msgbus::Received;
using msgbus::SharedFrame;
using msgbus::UniqueFd;

namespace {

constexpr std::size_t kMaxConnections = 320;  // every module, monitors, and some who are joining
constexpr std::size_t kAcceptsPerRound = 16;  // those who are there need not wait for more
constexpr std::chrono::milliseconds kAttachCheck{1000};
constexpr std::chrono::milliseconds kAcceptPause{100};  // while the process is out of descriptors
constexpr std::string_view kForbidden = "the policy of the bus forbids it";
constexpr std::string_view kNoList = "only root and the user of the broker may list its modules";

// A frame of the broker's own with that text.
Message make_notice(message_header_s header, std::string_view text) {
    header.len = static_cast<std::uint32_t>(text.size());
    Message frame = make_message(header);
    if (frame)
        text.copy(reinterpret_cast<char*>(frame->payload), text.size());
    return frame;
}

}  // namespace

class MsgbusBroker::Impl {
  public:
    Impl(std::string socket_path, MsgbusSettings settings)
        : socket_(std::move(socket_path), settings.group, settings.mode),
          policy_(std::move(settings.policy)),
          limits_(settings.limits),
          stop_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    bool open();
    void run();
    void stop() const;
    [[nodiscard]] const std::string& error() const { return error_; }

  private:
    using Client = BrokerClient;
    using Role = BrokerClient::Role;

    bool fail(const std::string& what);

    bool serve_round();
    void collect_descriptors(Client::Clock::time_point now);
    [[nodiscard]] int round_limit_ms(Client::Clock::time_point now) const;
    void accept_some();
    void admit(UniqueFd fd);
    void end_latecomers();
    void remove_ended();

    void serve(Client& client, short events, Client::Clock::time_point now);
    void receive(Client& client);
    void handle(Client& client, Message frame);
    void attach(Client& client, const message_header_s& header);
    void attach_monitor(Client& client);
    void list(Client& client, std::uint32_t seq);
    void refuse_list(Client& client, std::uint32_t seq);
    void attach_module(Client& client, std::uint8_t module);
    void refuse_module(Client& client, std::uint8_t module);
    void refuse(Client& client, const message_header_s& header, std::string_view why);
    void forward(Client& client, Message frame);
    void refuse_receiver(Client& client, std::uint8_t receiver, std::uint32_t seq);
    void give_back(Client& sender, std::uint8_t missing, std::uint32_t seq,
                   std::string_view why = {});
    void give_back_waiting(const std::deque<Client::Waiting>& lost, std::uint8_t module);
    void enqueue(Client& client, SharedFrame frame, std::uint64_t sender = 0);
    void flush(Client& client);
    void flush_fresh();
    void show(const SharedFrame& frame);
    void malformed(Client& client, const std::string& what);
    void end(Client& client);

    BrokerSocket socket_;
    const MsgbusPolicy policy_;
    const MsgbusLimits limits_;
    const UniqueFd stop_;
    std::string error_;
    std::uint64_t last_id_ = 0;
    std::vector<std::unique_ptr<Client>> clients_;   // the ended ones until the round is over
    std::array<Client*, MSGBUS_MONITOR> holders_{};  // by module id
    std::vector<pollfd> descriptors_;                // stop_, socket_, then clients_
    std::vector<Client*> fresh_;  // those whose first waiting frame is of the current round
    bool crowded_ = false;        // since a client was admitted last; logged
};

bool MsgbusBroker::Impl::open() {
    if (!stop_)
        return fail("no event descriptor: " + std::string{std::strerror(errno)});
    return socket_.open() ? true : fail(socket_.error());
}

bool MsgbusBroker::Impl::fail(const std::string& what) {
    error_ = what;
    logsink_message(SINK_ERROR, "msgbus broker: %s", what.c_str());
    return false;
}

// ---- the loop

void MsgbusBroker::Impl::run() {
    while (socket_.is_open() && serve_round())
        continue;
    holders_ = {};
    clients_.clear();
    socket_.close();
}

void MsgbusBroker::Impl::stop() const {
    const int saved_errno = errno;  // signal handlers call this
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(stop_.get(), &one, sizeof one);
    errno = saved_errno;
}

bool MsgbusBroker::Impl::serve_round() {
    const Client::Clock::time_point now = Client::Clock::now();
    collect_descriptors(now);
    if (poll(descriptors_.data(), descriptors_.size(), round_limit_ms(now)) < 0)
        return true;
    if (descriptors_[0].revents != 0)
        return false;
    socket_.resume();
    for (std::size_t i = 2; i < descriptors_.size(); i++)
        serve(*clients_[i - 2], descriptors_[i].revents, now);
    if (descriptors_[1].revents != 0)
        accept_some();
    end_latecomers();
    flush_fresh();
    remove_ended();
    return true;
}

void MsgbusBroker::Impl::collect_descriptors(Client::Clock::time_point now) {
    descriptors_.assign({{stop_.get(), POLLIN, 0}, socket_.poll_entry()});
    for (const auto& client : clients_)
        descriptors_.push_back(client->poll_entry(now));
}

int MsgbusBroker::Impl::round_limit_ms(Client::Clock::time_point now) const {
    using std::chrono::milliseconds;
    auto until = Client::Clock::time_point::max();
    for (const auto& client : clients_) {
        until = std::min(until, client->due_at(now));
        if (client->role() == Role::NEWCOMER)
            until = std::min(until, now + kAttachCheck);
    }
    if (socket_.is_paused())
        until = std::min(until, now + kAcceptPause);
    if (until == Client::Clock::time_point::max())
        return -1;
    return static_cast<int>(std::chrono::ceil<milliseconds>(until - now).count());
}

// A crowd is logged once until a client is admitted again.
void MsgbusBroker::Impl::accept_some() {
    for (std::size_t i = 0; i < kAcceptsPerRound; i++) {
        UniqueFd fd = socket_.accept();
        if (!fd)
            return;
        const bool is_crowd = clients_.size() >= kMaxConnections;
        if (!is_crowd)
            admit(std::move(fd));
        else if (!crowded_)
            logsink_message(SINK_ERROR, "msgbus broker: client refused, %zu are there",
                            clients_.size());
        crowded_ = is_crowd;
    }
}

void MsgbusBroker::Impl::admit(UniqueFd fd) {
    if (std::optional<msgbus::Peer> peer = msgbus::peer_of(fd.get()))
        clients_.push_back(
            std::make_unique<Client>(std::move(fd), std::move(*peer), ++last_id_, limits_));
}

void MsgbusBroker::Impl::end_latecomers() {
    const Client::Clock::time_point now = Client::Clock::now();
    for (const auto& client : clients_) {
        if (client->ended() || !client->is_late(now))
            continue;
        logsink_message(SINK_WARNING, "msgbus broker: process %d did not attach",
                        static_cast<int>(client->pid()));
        end(*client);
    }
}

void MsgbusBroker::Impl::remove_ended() {
    std::erase_if(clients_, [](const auto& client) { return client->ended(); });
}

// ---- one client

void MsgbusBroker::Impl::serve(Client& client, short events, Client::Clock::time_point now) {
    if (!client.ended() &&
        ((events & (POLLIN | POLLHUP | POLLERR)) != 0 || client.due_at(now) <= now))
        receive(client);
    if (!client.ended() && (events & POLLOUT) != 0)
        flush(client);
}

// One piece at a time, so that nobody keeps the others waiting.
void MsgbusBroker::Impl::receive(Client& client) {
    const Received received =
        client.receive([&](Message frame) { handle(client, std::move(frame)); });
    if (client.ended())
        return;
    if (received == Received::MALFORMED)
        malformed(client, client.frame_error());
    else if (received == Received::END)
        end(client);
    else if (client.begins_to_be_held_back())
        logsink_message(SINK_WARNING,
                        "msgbus broker: module %u of process %d sends more than %u frames a second "
                        "and waits",
                        client.module(), static_cast<int>(client.pid()),
                        static_cast<unsigned>(limits_.rate));
}

void MsgbusBroker::Impl::handle(Client& client, Message frame) {
    const message_header_s header = frame->header;
    if (client.ended())
        return;
    if (client.role() == Role::NEWCOMER && header.type == MSGBUS_ATTACH && header.len == 0)
        attach(client, header);
    else if (client.role() != Role::MODULE && header.type == MSGBUS_LIST && header.len == 0)
        list(client, header.seq);
    else if (client.role() == Role::MODULE && header.type == MSGBUS_DATA)
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
    if (!client.is_trusted()) {
        logsink_message(SINK_WARNING, "msgbus broker: uid %u of process %d must not monitor",
                        static_cast<unsigned>(client.uid()), static_cast<int>(client.pid()));
        end(client);
        return;
    }
    enqueue(client, make_message(make_header(MSGBUS_ATTACH, MSGBUS_MONITOR, MSGBUS_MONITOR)));
    client.become_monitor();
    for (const Client* holder : holders_)
        if (holder)
            enqueue(client,
                    make_message(make_header(MSGBUS_ATTACH, holder->module(), holder->module())));
}

// Whoever asks without end and takes no answer is cut off as a monitor that is too slow.
void MsgbusBroker::Impl::list(Client& client, std::uint32_t seq) {
    if (!client.is_trusted())
        refuse_list(client, seq);
    else if (client.is_behind())
        end(client);
    else
        enqueue(client, make_notice(make_header(MSGBUS_LIST, MSGBUS_MONITOR, MSGBUS_MONITOR, seq),
                                    msgbus::describe_modules(holders_)));
}

void MsgbusBroker::Impl::refuse_list(Client& client, std::uint32_t seq) {
    logsink_message(SINK_WARNING, "msgbus broker: uid %u of process %d must not list the modules",
                    static_cast<unsigned>(client.uid()), static_cast<int>(client.pid()));
    refuse(client, make_header(MSGBUS_UNDELIVERABLE, MSGBUS_MONITOR, MSGBUS_MONITOR, seq), kNoList);
}

void MsgbusBroker::Impl::attach_module(Client& client, std::uint8_t module) {
    const std::optional<MsgbusPolicy::Modules> receivers = policy_.receivers(client.user(), module);
    if (!receivers) {
        refuse_module(client, module);
        return;
    }
    Client*& holder = holders_[module];
    // A holder that has died holds nothing; what it sent last is still to be forwarded.
    while (holder && holder->hung_up())
        receive(*holder);
    if (holder) {
        logsink_message(SINK_WARNING,
                        "msgbus broker: module %u is held by process %d, process %d refused",
                        module, static_cast<int>(holder->pid()), static_cast<int>(client.pid()));
        end(client);
        return;
    }
    holder = &client;
    client.become_module(module, *receivers);
    const SharedFrame answer = make_message(make_header(MSGBUS_ATTACH, module, module));
    enqueue(client, answer);
    show(answer);
}

void MsgbusBroker::Impl::refuse_module(Client& client, std::uint8_t module) {
    logsink_message(SINK_WARNING, "msgbus broker: uid %u of process %d must not be module %u",
                    static_cast<unsigned>(client.uid()), static_cast<int>(client.pid()), module);
    refuse(client, make_header(MSGBUS_UNDELIVERABLE, module, module), kForbidden);
}

// Tells a newcomer why and ends it.
void MsgbusBroker::Impl::refuse(Client& client, const message_header_s& header,
                                std::string_view why) {
    const SharedFrame refusal = make_notice(header, why);
    if (refusal && client.enqueue(refusal, 0))
        static_cast<void>(client.flush());  // the first bytes on this connection: there is room
    end(client);
}

void MsgbusBroker::Impl::forward(Client& client, Message frame) {
    client.count_sent();
    frame->header.src = client.module();
    frame->header.src_uid = static_cast<std::uint32_t>(client.uid());
    const SharedFrame shared{std::move(frame)};
    show(shared);
    const std::uint8_t dst = shared->header.dst;
    if (!client.may_send_to(dst)) {
        refuse_receiver(client, dst, shared->header.seq);
        return;
    }
    Client* receiver = dst < holders_.size() ? holders_[dst] : nullptr;
    if (receiver && !receiver->is_behind_for(client.id()))
        enqueue(*receiver, shared, client.id());
    else
        give_back(client, dst, shared->header.seq);
}

void MsgbusBroker::Impl::refuse_receiver(Client& client, std::uint8_t receiver, std::uint32_t seq) {
    if (client.is_first_refusal(receiver))
        logsink_message(
            SINK_WARNING,
            "msgbus broker: module %u, uid %u of process %d, must not send to module %u",
            client.module(), static_cast<unsigned>(client.uid()), static_cast<int>(client.pid()),
            receiver);
    give_back(client, receiver, seq, kForbidden);
}

void MsgbusBroker::Impl::give_back(Client& sender, std::uint8_t missing, std::uint32_t seq,
                                   std::string_view why) {
    message_header_s header = make_header(MSGBUS_UNDELIVERABLE, missing, sender.module(), seq);
    header.src_uid = static_cast<std::uint32_t>(geteuid());
    const SharedFrame frame = make_notice(header, why);
    show(frame);
    enqueue(sender, frame);
}

// What a module has not taken before its end goes back to those senders who are still there.
void MsgbusBroker::Impl::give_back_waiting(const std::deque<Client::Waiting>& lost,
                                           std::uint8_t module) {
    for (const Client::Waiting& entry : lost) {
        if (entry.sender == 0)
            continue;
        Client* sender = holders_[entry.frame->header.src];
        if (sender && sender->id() == entry.sender)
            give_back(*sender, module, entry.frame->header.seq);
    }
}

// A frame is null without memory.
void MsgbusBroker::Impl::enqueue(Client& client, SharedFrame frame, std::uint64_t sender) {
    if (client.ended())
        return;
    if (!frame)
        end(client);
    else if (client.enqueue(std::move(frame), sender))
        fresh_.push_back(&client);
}

void MsgbusBroker::Impl::flush(Client& client) {
    if (!client.flush())
        end(client);
}

// At the end of a round: what came for a client in one piece leaves in one. The end of a client
// that cannot be sent to may give others something to send.
void MsgbusBroker::Impl::flush_fresh() {
    for (std::size_t i = 0; i < fresh_.size(); i++)
        if (!fresh_[i]->ended())
            flush(*fresh_[i]);
    fresh_.clear();
}

void MsgbusBroker::Impl::show(const SharedFrame& frame) {
    for (const auto& client : clients_) {
        if (client->role() != Role::MONITOR || client->ended())
            continue;
        if (!client->is_behind()) {
            enqueue(*client, frame);
            continue;
        }
        logsink_message(SINK_WARNING, "msgbus broker: monitor of process %d is too slow",
                        static_cast<int>(client->pid()));
        end(*client);
    }
}

void MsgbusBroker::Impl::malformed(Client& client, const std::string& what) {
    logsink_message(SINK_ERROR, "msgbus broker: malformed frame from process %d, uid %u: %s",
                    static_cast<int>(client.pid()), static_cast<unsigned>(client.uid()),
                    what.c_str());
    end(client);
}

void MsgbusBroker::Impl::end(Client& client) {
    if (client.ended())
        return;
    const std::deque<Client::Waiting> lost = client.end();
    if (client.role() != Role::MODULE)
        return;
    holders_[client.module()] = nullptr;
    show(make_message(make_header(MSGBUS_DETACH, client.module(), client.module())));
    give_back_waiting(lost, client.module());
}

// ---- the public face

MsgbusBroker::MsgbusBroker(std::string socket_path, MsgbusSettings settings)
    : impl_(std::make_unique<Impl>(std::move(socket_path), std::move(settings))) {}

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
