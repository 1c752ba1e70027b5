#include "msgbus.h"

#include <sys/random.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <bitset>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "connection.h"
#include "logsink.h"
#include "tree.h"

using msgbus::Connection;
using msgbus::Message;
using msgbus::Tree;

struct msgbus_context {
    std::uint8_t module = 0;
    std::vector<std::uint8_t> options;
    Connection connection;
    int event_fd = -1;  // borrowed
    bool run = false;
    bool polled = false;                  // the last poll has found nothing at all on the socket
    std::uint32_t seq = 0;                // of the last send
    std::bitset<MSGBUS_MONITOR> refused;  // modules that the policy keeps this one from; logged
    std::uint32_t awaited = 0;  // the same, or 0 when there is nothing that could be answered
};

namespace {

// A module that is refused tries again and again: each reason is logged once until it changes.
void report_attach(int module, int error) {
    static std::array<std::atomic<int>, MSGBUS_MONITOR> reported{};
    if (reported[static_cast<std::size_t>(module)].exchange(error) == error || error == 0)
        return;
    const std::string path = msgbus::default_socket_path();
    const std::string reason = msgbus::describe_attach_error(error);
    logsink_message(SINK_ERROR, "msgbus: module %d cannot join the bus at %s: %s", module,
                    path.c_str(), reason.c_str());
}

bool attach(msgbus_context& ctx) {
    const int error =
        ctx.connection.attach(msgbus::default_socket_path(), ctx.module, 0, ctx.event_fd);
    report_attach(ctx.module, error);
    return error == 0;
}

// Not from 1: an answer that was meant for this module's previous life must not match.
std::uint32_t first_seq() {
    std::uint32_t seq = 0;
    if (getrandom(&seq, sizeof seq, GRND_NONBLOCK) != sizeof seq)
        seq = static_cast<std::uint32_t>(std::time(nullptr)) ^
              (static_cast<std::uint32_t>(getpid()) << 16);
    return seq;
}

enum class When { NOW, LATER };

// Whether the payload went out whole, or will.
bool send(msgbus_context& ctx, std::uint8_t dst, std::uint32_t seq, const void* data,
          std::size_t len, When when) {
    if (len > MSGBUS_MAX_PAYLOAD) {
        logsink_message(SINK_ERROR, "msgbus: message of %zu bytes to module %d is too long", len,
                        dst);
        return false;
    }
    const message_header_s header = msgbus::make_header(MSGBUS_DATA, ctx.module, dst, seq);
    const std::span payload{static_cast<const std::uint8_t*>(data), len};
    return when == When::NOW ? ctx.connection.send(header, payload)
                             : ctx.connection.send_later(header, payload);
}

void send_numbered(msgbus_context& ctx, std::uint8_t dst, const void* data, std::size_t len,
                   When when) {
    if (++ctx.seq == 0)
        ctx.seq = 1;
    ctx.awaited = send(ctx, dst, ctx.seq, data, len, when) ? ctx.seq : 0;
}

// The parsed payload when its "command" is that one, or null.
Tree parse_answer(const message_s& frame, std::string_view command) {
    Tree answer{
        cfgtree_parse_buffer(reinterpret_cast<const char*>(frame.payload), frame.header.len)};
    const char* given = cfgtree_get_param(answer.get(), "command");
    return given && command == given ? std::move(answer) : nullptr;
}

// The broker's text tells that the policy forbids to send there.
void report_refusal(msgbus_context& ctx, const message_s& frame) {
    const std::uint8_t receiver = frame.header.src;
    if (frame.header.type != MSGBUS_UNDELIVERABLE || frame.header.len == 0 ||
        receiver >= ctx.refused.size() || ctx.refused[receiver])
        return;
    ctx.refused[receiver] = true;
    logsink_message(SINK_ERROR, "msgbus: module %d cannot send to module %d: %s", ctx.module,
                    receiver, reinterpret_cast<const char*>(frame.payload));
}

// The answer to the last send, should this be it.
Tree take_answer(msgbus_context& ctx, std::string_view command) {
    const Message frame = ctx.connection.take();
    report_refusal(ctx, *frame);
    if (frame->header.seq != ctx.awaited)
        return nullptr;
    if (frame->header.type == MSGBUS_UNDELIVERABLE)
        ctx.awaited = 0;
    return frame->header.type == MSGBUS_DATA ? parse_answer(*frame, command) : nullptr;
}

// What has arrived by the deadline is still looked at, but not what comes meanwhile: others may
// send without end.
Tree await_answer(msgbus_context& ctx, std::string_view command,
                  Connection::Clock::time_point deadline) {
    for (bool in_time = true; in_time && ctx.awaited != 0 && ctx.connection.wait(deadline);) {
        in_time = Connection::Clock::now() < deadline;
        while (ctx.awaited != 0 && ctx.connection.has_frames())
            if (Tree answer = take_answer(ctx, command))
                return answer;
    }
    return nullptr;
}

}  // namespace

msgbus_context* msgbus_init(int module, const uint8_t* options, size_t options_len) {
    return msgbus_init_with_event(module, options, options_len, -1);
}

msgbus_context* msgbus_init_with_event(int module, const uint8_t* options, size_t options_len,
                                       int event_fd) {
    if (module < 0 || module >= MSGBUS_MONITOR) {
        logsink_message(SINK_ERROR, "msgbus: there is no module %d", module);
        return nullptr;
    }
    auto ctx = std::make_unique<msgbus_context>();
    ctx->module = static_cast<std::uint8_t>(module);
    if (options)
        ctx->options.assign(options, options + options_len);
    ctx->event_fd = event_fd;
    ctx->seq = first_seq();
    return attach(*ctx) ? ctx.release() : nullptr;
}

void msgbus_release(msgbus_context* ctx) {
    const std::unique_ptr<msgbus_context> ended{ctx};
    if (ended)
        ended->connection.flush();
}

void msgbus_set_module_loop(msgbus_context* ctx, int run) {
    ctx->run = run != 0;
}

int msgbus_get_module_loop(msgbus_context* ctx) {
    if (ctx->run && !ctx->polled && !ctx->connection.has_frames())
        ctx->connection.fill();
    return ctx->run && (ctx->connection.connected() || ctx->connection.has_frames()) ? 1 : 0;
}

void msgbus_peer_start(msgbus_context* ctx) {
    ctx->polled = false;
    ctx->connection.discard();
    if (!ctx->connection.connected()) {
        ctx->awaited = 0;
        attach(*ctx);
    }
    ctx->run = true;
}

void msgbus_peer_stop(msgbus_context* ctx) {
    ctx->run = false;
}

message_s* msgbus_poll_no_wait(msgbus_context* ctx) {
    Message frame;
    do {
        if (!ctx->connection.has_frames())
            ctx->connection.fill();
        frame = ctx->connection.take();
        if (frame)
            report_refusal(*ctx, *frame);
    } while (frame && frame->header.type != MSGBUS_DATA);
    ctx->polled = !frame && ctx->connection.found_nothing();
    return frame.release();
}

int msgbus_has_frame(msgbus_context* ctx) {
    return ctx->connection.has_frames() ? 1 : 0;
}

void msgbus_send(msgbus_context* ctx, const void* data, uint8_t dst, size_t len) {
    send_numbered(*ctx, dst, data, len, When::NOW);
}

void msgbus_send_later(msgbus_context* ctx, const void* data, uint8_t dst, size_t len) {
    send_numbered(*ctx, dst, data, len, When::LATER);
}

void msgbus_flush(msgbus_context* ctx) {
    if (!ctx->connection.flush())
        ctx->awaited = 0;
}

void msgbus_send_answer(msgbus_context* ctx, const message_s* request, const void* data,
                        size_t len) {
    send(*ctx, request->header.src, request->header.seq, data, len, When::NOW);
}

cfgtree_node* msgbus_wait_answer(msgbus_context* ctx, const char* command, const char* error_text,
                                 int timeout) {
    msgbus_flush(ctx);
    const auto deadline = Connection::Clock::now() + std::chrono::seconds{timeout};
    Tree answer = command ? await_answer(*ctx, command, deadline) : nullptr;
    if (!answer && error_text)
        logsink_message(SINK_ERROR, "%s", error_text);
    return answer.release();
}
