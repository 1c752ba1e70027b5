#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <ctime>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>

#include "lum_trace.h"
#include "websock_worker.h"

namespace {

constexpr int max_unanswered_pings = 3;
constexpr std::time_t ping_period_s = 30;

// Messages per WRITEABLE callback, so that a flood in one direction leaves the other its turn.
constexpr int send_batch = 512;

struct reason_entry {
    int reason;
    const char* name;
};

#define REASON(identifier) \
    { identifier, #identifier }
constexpr reason_entry reason_names[] = {
    REASON(LWS_CALLBACK_ESTABLISHED),
    REASON(LWS_CALLBACK_CLIENT_CONNECTION_ERROR),
    REASON(LWS_CALLBACK_CLIENT_FILTER_PRE_ESTABLISH),
    REASON(LWS_CALLBACK_CLIENT_ESTABLISHED),
    REASON(LWS_CALLBACK_CLOSED),
    REASON(LWS_CALLBACK_CLOSED_HTTP),
    REASON(LWS_CALLBACK_RECEIVE),
    REASON(LWS_CALLBACK_RECEIVE_PONG),
    REASON(LWS_CALLBACK_CLIENT_RECEIVE),
    REASON(LWS_CALLBACK_CLIENT_RECEIVE_PONG),
    REASON(LWS_CALLBACK_CLIENT_WRITEABLE),
    REASON(LWS_CALLBACK_SERVER_WRITEABLE),
    REASON(LWS_CALLBACK_HTTP),
    REASON(LWS_CALLBACK_HTTP_BODY),
    REASON(LWS_CALLBACK_HTTP_BODY_COMPLETION),
    REASON(LWS_CALLBACK_HTTP_FILE_COMPLETION),
    REASON(LWS_CALLBACK_HTTP_WRITEABLE),
    REASON(LWS_CALLBACK_FILTER_NETWORK_CONNECTION),
    REASON(LWS_CALLBACK_FILTER_HTTP_CONNECTION),
    REASON(LWS_CALLBACK_SERVER_NEW_CLIENT_INSTANTIATED),
    REASON(LWS_CALLBACK_FILTER_PROTOCOL_CONNECTION),
    REASON(LWS_CALLBACK_OPENSSL_LOAD_EXTRA_CLIENT_VERIFY_CERTS),
    REASON(LWS_CALLBACK_OPENSSL_LOAD_EXTRA_SERVER_VERIFY_CERTS),
    REASON(LWS_CALLBACK_OPENSSL_PERFORM_CLIENT_CERT_VERIFICATION),
    REASON(LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER),
    REASON(LWS_CALLBACK_CONFIRM_EXTENSION_OKAY),
    REASON(LWS_CALLBACK_CLIENT_CONFIRM_EXTENSION_SUPPORTED),
    REASON(LWS_CALLBACK_PROTOCOL_INIT),
    REASON(LWS_CALLBACK_PROTOCOL_DESTROY),
    REASON(LWS_CALLBACK_WSI_CREATE),
    REASON(LWS_CALLBACK_WSI_DESTROY),
    REASON(LWS_CALLBACK_GET_THREAD_ID),
    REASON(LWS_CALLBACK_ADD_POLL_FD),
    REASON(LWS_CALLBACK_DEL_POLL_FD),
    REASON(LWS_CALLBACK_CHANGE_MODE_POLL_FD),
    REASON(LWS_CALLBACK_LOCK_POLL),
    REASON(LWS_CALLBACK_UNLOCK_POLL),
    REASON(LWS_CALLBACK_OPENSSL_CONTEXT_REQUIRES_PRIVATE_KEY),
    REASON(LWS_CALLBACK_WS_PEER_INITIATED_CLOSE),
    REASON(LWS_CALLBACK_WS_EXT_DEFAULTS),
    REASON(LWS_CALLBACK_CGI),
    REASON(LWS_CALLBACK_CGI_TERMINATED),
    REASON(LWS_CALLBACK_CGI_STDIN_DATA),
    REASON(LWS_CALLBACK_CGI_STDIN_COMPLETED),
    REASON(LWS_CALLBACK_ESTABLISHED_CLIENT_HTTP),
    REASON(LWS_CALLBACK_CLOSED_CLIENT_HTTP),
    REASON(LWS_CALLBACK_RECEIVE_CLIENT_HTTP),
    REASON(LWS_CALLBACK_COMPLETED_CLIENT_HTTP),
    REASON(LWS_CALLBACK_RECEIVE_CLIENT_HTTP_READ),
    REASON(LWS_CALLBACK_HTTP_BIND_PROTOCOL),
    REASON(LWS_CALLBACK_HTTP_DROP_PROTOCOL),
    REASON(LWS_CALLBACK_CHECK_ACCESS_RIGHTS),
    REASON(LWS_CALLBACK_PROCESS_HTML),
    REASON(LWS_CALLBACK_ADD_HEADERS),
    REASON(LWS_CALLBACK_SESSION_INFO),
    REASON(LWS_CALLBACK_GS_EVENT),
    REASON(LWS_CALLBACK_HTTP_PMO),
    REASON(LWS_CALLBACK_CLIENT_HTTP_WRITEABLE),
    REASON(LWS_CALLBACK_OPENSSL_PERFORM_SERVER_CERT_VERIFICATION),
    REASON(LWS_CALLBACK_RAW_RX),
    REASON(LWS_CALLBACK_RAW_CLOSE),
    REASON(LWS_CALLBACK_RAW_WRITEABLE),
    REASON(LWS_CALLBACK_RAW_ADOPT),
    REASON(LWS_CALLBACK_RAW_ADOPT_FILE),
    REASON(LWS_CALLBACK_RAW_RX_FILE),
    REASON(LWS_CALLBACK_RAW_WRITEABLE_FILE),
    REASON(LWS_CALLBACK_RAW_CLOSE_FILE),
    REASON(LWS_CALLBACK_SSL_INFO),
    REASON(LWS_CALLBACK_CHILD_CLOSING),
    REASON(LWS_CALLBACK_CGI_PROCESS_ATTACH),
    REASON(LWS_CALLBACK_EVENT_WAIT_CANCELLED),
    REASON(LWS_CALLBACK_VHOST_CERT_AGING),
    REASON(LWS_CALLBACK_TIMER),
    REASON(LWS_CALLBACK_VHOST_CERT_UPDATE),
    REASON(LWS_CALLBACK_CLIENT_CLOSED),
    REASON(LWS_CALLBACK_CLIENT_HTTP_DROP_PROTOCOL),
    REASON(LWS_CALLBACK_WS_SERVER_BIND_PROTOCOL),
    REASON(LWS_CALLBACK_WS_SERVER_DROP_PROTOCOL),
    REASON(LWS_CALLBACK_WS_CLIENT_BIND_PROTOCOL),
    REASON(LWS_CALLBACK_WS_CLIENT_DROP_PROTOCOL),
    REASON(LWS_CALLBACK_RAW_SKT_BIND_PROTOCOL),
    REASON(LWS_CALLBACK_RAW_SKT_DROP_PROTOCOL),
    REASON(LWS_CALLBACK_RAW_FILE_BIND_PROTOCOL),
    REASON(LWS_CALLBACK_RAW_FILE_DROP_PROTOCOL),
    REASON(LWS_CALLBACK_CLIENT_HTTP_BIND_PROTOCOL),
    REASON(LWS_CALLBACK_HTTP_CONFIRM_UPGRADE),
    REASON(LWS_CALLBACK_RAW_PROXY_CLI_RX),
    REASON(LWS_CALLBACK_RAW_PROXY_SRV_RX),
    REASON(LWS_CALLBACK_RAW_PROXY_CLI_CLOSE),
    REASON(LWS_CALLBACK_RAW_PROXY_SRV_CLOSE),
    REASON(LWS_CALLBACK_RAW_PROXY_CLI_WRITEABLE),
    REASON(LWS_CALLBACK_RAW_PROXY_SRV_WRITEABLE),
    REASON(LWS_CALLBACK_RAW_PROXY_CLI_ADOPT),
    REASON(LWS_CALLBACK_RAW_PROXY_SRV_ADOPT),
    REASON(LWS_CALLBACK_RAW_PROXY_CLI_BIND_PROTOCOL),
    REASON(LWS_CALLBACK_RAW_PROXY_SRV_BIND_PROTOCOL),
    REASON(LWS_CALLBACK_RAW_PROXY_CLI_DROP_PROTOCOL),
    REASON(LWS_CALLBACK_RAW_PROXY_SRV_DROP_PROTOCOL),
    REASON(LWS_CALLBACK_USER),
#if LWS_LIBRARY_VERSION_NUMBER >= 4001000
    REASON(LWS_CALLBACK_RAW_CONNECTED),
    REASON(LWS_CALLBACK_VERIFY_BASIC_AUTHORIZATION),
    REASON(LWS_CALLBACK_WSI_TX_CREDIT_GET),
    REASON(LWS_CALLBACK_CLIENT_HTTP_REDIRECT),
    REASON(LWS_CALLBACK_MQTT_NEW_CLIENT_INSTANTIATED),
    REASON(LWS_CALLBACK_MQTT_IDLE),
    REASON(LWS_CALLBACK_MQTT_CLIENT_ESTABLISHED),
    REASON(LWS_CALLBACK_MQTT_SUBSCRIBED),
    REASON(LWS_CALLBACK_MQTT_CLIENT_WRITEABLE),
    REASON(LWS_CALLBACK_MQTT_CLIENT_RX),
    REASON(LWS_CALLBACK_MQTT_UNSUBSCRIBED),
    REASON(LWS_CALLBACK_MQTT_DROP_PROTOCOL),
    REASON(LWS_CALLBACK_MQTT_CLIENT_CLOSED),
    REASON(LWS_CALLBACK_MQTT_ACK),
    REASON(LWS_CALLBACK_MQTT_RESEND),
#endif
};
#undef REASON

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

}  // namespace

LockedLwsCallback lws_callback_obj{"LockedLwsCallback"};

void LockedLwsCallback::set(callback_type function) {
    const std::lock_guard<LockdepRecursiveMutex> lock(m);
    func = std::move(function);
}

void LockedLwsCallback::clear() {
    set({});
}

int LockedLwsCallback::call(lws* wsi, lws_callback_reasons reason, void* user, void* in,
                            std::size_t len) {
    const std::lock_guard<LockdepRecursiveMutex> lock(m);
    if (func)
        return func(wsi, reason, user, in, len);
    trace.debug("No function to process lws callback(%p, %d, %p, %p, %zu)\n",
                static_cast<void*>(wsi), static_cast<int>(reason), user, in, len);
    return 0;
}

int websock_worker::__callback_lws_process(lws* wsi, lws_callback_reasons reason, void* user,
                                           void* in, std::size_t len) {
    return lws_callback_obj.call(wsi, reason, user, in, len);
}

int websock_worker::worker_lws_callback(lws* wsi, lws_callback_reasons reason, void* /*user*/,
                                        void* in, std::size_t len) {
    called_back = true;
    if (ping_noanswer >= max_unanswered_pings) {
        trace.debug("%s->There are no %d pong answer in a row from server\n", worker_name,
                    ping_noanswer);
        ping_noanswer = 0;
        lws_callback_process_active = false;
    }
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
    from_ipc.set_user_notifier(ipc_notifier_binded);
    trace.debug("Connection established - reset connection delay\n");
    connection_delay = initial_connection_delay;
    notify_connected();
    time_monotonic(thread_monotime);
    lws_callback_on_writable(wsi);
    rearm_ping_timer();
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
    return last ? queue_received() : 0;
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

int websock_worker::queue_received() {
    trace.debug("%s->%s: Recieve final msg len %zu from websocket\n", worker_name,
                "process_client_receive", buffer_info->text().size());
    trace.debug("%s->Send to Queue\n", worker_name);
    buffer_info->dump();
    to_ipc.enqueue(buffer_info);
    drop_received();
    return 0;
}

int websock_worker::process_client_receive_pong() {
    log_handler(__func__, __LINE__);
    ping_noanswer = 0;
    return 0;
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
        lws_callback_on_writable(wsi);
    return 0;
}

void websock_worker::process_client_writeable_dequeue_cb(lws* wsi, const buffer_info_ptr& buffer) {
    trace.debug("%s->From queue\n", worker_name);
    buffer->dump();
    if (!process_internal_message(*buffer))
        lws_send(wsi, buffer->text().data(), buffer->text().size(), LWS_WRITE_TEXT);
}

bool websock_worker::is_ping_due() const {
    timespec now{};
    return lws_conn_established && time_monotonic(now) - thread_monotime.tv_sec >= ping_period_s;
}

void websock_worker::send_due_ping(lws* wsi) {
    if (!is_ping_due() || lws_partial_buffered(wsi) != 0)
        return;
    time_monotonic(thread_monotime);
    if (lws_send(wsi, nullptr, 0, LWS_WRITE_PING) > 0)
        ++ping_noanswer;
    lws_callback_on_writable(wsi);
    rearm_ping_timer();
}

int websock_worker::process_protocol_destroy() {
    log_handler(__func__, __LINE__);
    return 0;
}

void websock_worker::log_handler(const char* handler, int line) const {
    trace.debug("%s->%s:%d\n", worker_name, handler, line);
}

const char* lws_callback_reason_name(int reason) {
    for (const reason_entry& known : reason_names)
        if (known.reason == reason)
            return known.name;
    return "UNKNOWN_LWS_CALLBACK_REASON";
}
