#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <new>
#include <optional>
#include <stdexcept>
#include <utility>

#include "lum_trace.h"
#include "lws_gate.h"
#include "websock_worker.h"

namespace {

// Messages per WRITEABLE callback, so that a flood in one direction leaves the other its turn.
constexpr int send_batch = 512;

// While it lives the socket puts small writes together (tcp(7)).
class corked_socket {
  public:
    explicit corked_socket(lws* wsi) : fd(lws_get_socket_fd(wsi)) { cork(1); }
    ~corked_socket() { cork(0); }
    corked_socket(const corked_socket&) = delete;
    corked_socket& operator=(const corked_socket&) = delete;

  private:
    void cork(int on) const { setsockopt(fd, IPPROTO_TCP, TCP_CORK, &on, sizeof on); }

    const int fd;
};

static_assert(LWS_PRE <= buffer_info_t::head_room);

buffer_info_ptr copy_of(const buffer_info_t& buffer) {
    auto copy = std::make_shared<buffer_info_t>();
    copy->append(buffer.text().data(), static_cast<unsigned>(buffer.text().size()));
    return copy;
}

// Whether nobody else holds the message any more. The count alone is read without order: giving one
// more share back puts what we write behind the last read of who gave back his.
bool held_here_alone(const buffer_info_ptr& buffer) {
    if (buffer.use_count() != 1)
        return false;
    buffer_info_ptr(buffer).reset();
    return true;
}

// What is sent is masked where it lies: of a message that others still hold a copy is sent, which
// `own` keeps alive. Null without memory.
unsigned char* frame_of(const buffer_info_ptr& buffer, buffer_info_ptr& own) {
    try {
        own = held_here_alone(buffer) ? buffer : copy_of(*buffer);
        return reinterpret_cast<unsigned char*>(own->frame());
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace

int websock_worker::worker_lws_callback(lws* wsi, lws_callback_reasons reason, void* /*user*/,
                                        void* in, std::size_t len) {
    cause.see(wsi, reason, in, len);
    drop_silent_link();
    switch (reason) {
        case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
            return process_client_connection_error();
        case LWS_CALLBACK_CLIENT_ESTABLISHED:
            return process_client_established(wsi);
        case LWS_CALLBACK_CLOSED:
        case LWS_CALLBACK_CLOSED_HTTP:
        case LWS_CALLBACK_CLOSED_CLIENT_HTTP:
        case LWS_CALLBACK_CLIENT_CLOSED:  // how an established client connection ends
            return process_closed();
        case LWS_CALLBACK_CLIENT_RECEIVE:
            return process_client_receive(wsi, in, len);
        case LWS_CALLBACK_CLIENT_RECEIVE_PONG:
            return process_client_receive_pong();
        case LWS_CALLBACK_CLIENT_WRITEABLE:
            return process_client_writeable(wsi);
        case LWS_CALLBACK_PROTOCOL_DESTROY:
            return process_protocol_destroy();
        case LWS_CALLBACK_GET_THREAD_ID:
        case LWS_CALLBACK_ADD_POLL_FD:
        case LWS_CALLBACK_DEL_POLL_FD:
        case LWS_CALLBACK_CHANGE_MODE_POLL_FD:
        case LWS_CALLBACK_LOCK_POLL:
        case LWS_CALLBACK_UNLOCK_POLL:
            return 0;
        default:
            trace.debug("%s->%s:%d reason = %s (%d)\n", worker_name, __func__, __LINE__,
                        lws_callback_reason_name(reason), static_cast<int>(reason));
            return 0;
    }
}

int websock_worker::process_client_connection_error() {
    log_handler(__func__, __LINE__);
    lws_callback_process_active = false;
    return 0;
}

// The flag is set before the notifier is installed: the partner's thread reads it from there.
int websock_worker::process_client_established(lws* wsi) {
    log_handler(__func__, __LINE__);
    link = wsi;
    lws_conn_established = true;
    follow_log_level();
    from_ipc.set_user_notifier(ipc_notifier_binded);
    trace.debug("Connection established - reset connection delay\n");
    connection_delay = initial_connection_delay;
    notify_connected();
    start_keepalive();
    diary.up(thread_monotime.tv_sec);
    ask_writeable(wsi);
    return 0;
}

int websock_worker::process_closed() {
    log_handler(__func__, __LINE__);
    link = nullptr;
    lws_callback_process_active = false;
    return 0;
}

// A piece that cannot be kept ends the connection: what follows of its message has no head.
int websock_worker::process_client_receive(lws* wsi, const void* in, std::size_t len) {
    const std::size_t remaining = lws_remaining_packet_payload(wsi);
    const bool last = remaining == 0 && lws_is_final_fragment(wsi) != 0;
    if (last && in == nullptr) {
        trace.error("%s: Bad Input data\n", __func__);
        return -1;
    }
    if (!last)
        trace.debug("%s->%s: Get incomplete packet, beginning len %zd, remaining len %zd\n",
                    worker_name, __func__, static_cast<ssize_t>(len),
                    static_cast<ssize_t>(remaining));
    if (!append_received(in, len)) {
        trace.error("%s->%s: can't receive message\n", worker_name, __func__);
        drop_received();
        return -1;
    }
    traffic = true;
    if (last) {
        trace.debug("%s->%s: Recieve final msg len %zu from websocket\n", worker_name, __func__,
                    buffer_info->text().size());
        queue_received();
    }
    return 0;
}

// Out of memory is the one failure; it must not pass through the library's frames.
bool websock_worker::append_received(const void* in, std::size_t len) {
    try {
        buffer_info->append(static_cast<const char*>(in), static_cast<unsigned>(len));
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::length_error&) {
        return false;
    }
    return true;
}

void websock_worker::queue_received() {
    trace.debug("%s->Send to Queue\n", worker_name);
    buffer_info->dump();
    received.push_back(std::move(buffer_info));
    drop_received();
}

// The library keeps the unsent rest of one write only: a further write on top of it would break
// the stream, so each asks first. The rest goes out in the next callback. With nothing left to
// send execute() asks again once there is something to do; to ask at once would mean a busy loop,
// for a socket is nearly always writable.
int websock_worker::process_client_writeable(lws* wsi) {
    send_due_ping(wsi);
    const auto send = [this, wsi](const buffer_info_ptr& buffer) {
        process_client_writeable_dequeue_cb(wsi, buffer);
    };
    std::optional<corked_socket> corked;
    int budget = send_batch;
    while (budget > 0 && lws_partial_buffered(wsi) == 0 && from_ipc.dequeue(send)) {
        --budget;
        if (!corked && !from_ipc.empty())
            corked.emplace(wsi);
    }
    if (budget == 0 || lws_partial_buffered(wsi) != 0)
        ask_writeable(wsi);
    return 0;
}

void websock_worker::process_client_writeable_dequeue_cb(lws* wsi, const buffer_info_ptr& buffer) {
    traffic = true;
    trace.debug("%s->From queue\n", worker_name);
    buffer->dump();
    if (process_internal_message(*buffer))
        return;
    buffer_info_ptr own;
    unsigned char* const frame = frame_of(buffer, own);
    lws_send(wsi, frame, buffer->text().size(), LWS_WRITE_TEXT);
}

int websock_worker::process_protocol_destroy() {
    log_handler(__func__, __LINE__);
    return 0;
}

void websock_worker::log_handler(const char* handler, int line) const {
    trace.debug("%s->%s:%d\n", worker_name, handler, line);
}
