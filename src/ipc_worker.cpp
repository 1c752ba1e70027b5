#include "ipc_worker.h"

#include <memory>
#include <utility>

namespace {

constexpr int idle_delay_us = 100000;
constexpr int reconnect_pause_us = 1000000;
// Frames that came in one piece are handed over together, so that the partner is woken once.
constexpr std::size_t most_at_once = 64;

}  // namespace

ipc_worker::ipc_worker(safe_queue& to_daemon_queue, safe_queue& from_daemon_queue,
                       ipc_module_t module, const volatile bool& running)
    : abstract_worker(running, "ipc", idle_delay_us, reconnect_pause_us),
      to_daemon(to_daemon_queue),
      from_daemon(from_daemon_queue),
      module_id(module),
      from_daemon_dequeue_cb_binded(
          [this](const buffer_info_ptr& buffer) { from_daemon_dequeue_cb(buffer); }) {}

ipc_worker::~ipc_worker() {
    join();
}

bool ipc_worker::__connect() {
    ctx.reset(msgbus_init_with_event(module_id, bus_options.data(), bus_options.size(),
                                     event_descriptor()));
    if (!ctx)
        return false;
    msgbus_set_module_loop(ctx.get(), 0);
    if (msgbus_get_module_loop(ctx.get()) != 0) {
        ctx.reset();
        return false;
    }
    msgbus_peer_start(ctx.get());
    from_daemon.set_user_notifier([this] { wake(); });
    return true;
}

bool ipc_worker::execute() {
    if (!ctx)
        return false;
    const std::unique_ptr<message_s, free_deleter> frame(msgbus_poll_no_wait(ctx.get()));
    if (!frame) {
        hand_over();  // what is left of the piece was no message
        if (send_next())
            return false;
    }
    msgbus_flush(ctx.get());
    if (frame)
        process_ipc_message(*frame);
    if (msgbus_has_frame(ctx.get()) == 0 || received.size() == most_at_once)
        hand_over();
    return !frame && msgbus_get_module_loop(ctx.get()) != 0;
}

// A message that comes after the first look and before `woken` is cleared wakes nobody: hence the
// second look.
bool ipc_worker::send_next() {
    if (from_daemon.dequeue(from_daemon_dequeue_cb_binded))
        return true;
    woken = false;
    return from_daemon.dequeue(from_daemon_dequeue_cb_binded);
}

// The partner's thread. One wake-up is enough for all messages that come before the worker finds
// its queue empty.
void ipc_worker::wake() {
    if (!woken.exchange(true))
        put_event();
}

void ipc_worker::__disconnect() {
    from_daemon.unset_user_notifier();
    hand_over();
    ctx.reset();
}

bool ipc_worker::condition(const volatile bool& running) {
    return running && ctx && msgbus_get_module_loop(ctx.get()) != 0;
}

// The bus is trusted for the length: it delivers whole frames. The payload of an empty frame has
// no first byte to look at.
void ipc_worker::process_ipc_message(const message_s& frame) {
    const std::uint32_t len = frame.header.len;
    if (len == 0 || frame.payload[0] == 0)
        return;
    auto buffer = std::make_shared<buffer_info_t>();
    buffer->append(reinterpret_cast<const char*>(frame.payload), len);
    received.push_back(std::move(buffer));
}

void ipc_worker::hand_over() {
    to_daemon.enqueue_all(received);
}

// One fixed peer, whatever the message says.
ipc_module_t ipc_worker::route_message(const buffer_info_t& /*buffer*/) const {
    return PORTALMOD;
}

void ipc_worker::send_ipc_message(const buffer_info_t& buffer) {
    if (buffer.text().empty())
        return;
    const auto send = from_daemon.empty() ? msgbus_send : msgbus_send_later;
    send(ctx.get(), buffer.text().data(), static_cast<std::uint8_t>(route_message(buffer)),
         buffer.text().size());
}

void ipc_worker::from_daemon_dequeue_cb(const buffer_info_ptr& buffer) {
    send_ipc_message(*buffer);
}
