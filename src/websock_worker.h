// websock_worker: one websocket client link to one cloud service (RFC 6455, no TLS).
#ifndef LUMD_WEBSOCK_WORKER_H
#define LUMD_WEBSOCK_WORKER_H

#include <libwebsockets.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "LockdepMutex.h"
#include "abstract_worker.h"
#include "link_cause.h"
#include "link_diary.h"
#include "safe_queue.h"
#include "thread_annotations.h"
#include "timer_processor.h"
#include "websock_cfg.h"

// The services, numbered like ws_instance_id.
enum WsServiceType { PORTAL = 0, RRM = 1, WIDS = 2 };

// Receivers of the library's log lines, one per service.
void portal_lwsl_convert_log(int level, const char* line);
void rrm_lwsl_convert_log(int level, const char* line);
void wids_lwsl_convert_log(int level, const char* line);

// Keeps the link up (randomised exponential back-off, keep-alive pings) and relays whole text
// messages: `from_ipc` to the service, the service to `to_ipc`. The partner learns the link's state
// from internal messages in `to_ipc`; what it sends while the link is down is dropped.
//
// Everything runs on the worker's thread but ipc_notifier(), which runs on the partner's. Lock
// order: ctx_mutex, then the gate's mutex. No queue lock is ever held around either.
class websock_worker : public abstract_worker {
  public:
    // Queues and run flag are borrowed and outlive the worker. Delays in seconds.
    websock_worker(safe_queue& from_ipc_queue, safe_queue& to_ipc_queue,
                   const std::string& server_domain, const std::string& request_path,
                   int server_port, const volatile bool& worker_run_flag, std::size_t initial_delay,
                   std::size_t max_delay, ws_instance_id instance);
    ~websock_worker() override;

    // Waits out the back-off, then issues the connect; the handshake completes later.
    bool __connect() override;
    // One service pass, which does the waiting: the socket, a message of the partner and, at the
    // latest, 100 ms end it.
    bool execute() override;
    void __disconnect() override;
    bool condition(const volatile bool& flag) override;

  private:
    // The unit tests look at state that no message shows.
    friend class websock_worker_peer;

    static constexpr int ping_timer = 0;  // id in tp

    // libwebsockets calls back with the address of `sul`, its first member.
    struct service_bound {
#if LWS_LIBRARY_VERSION_NUMBER >= 4001000
        lws_sorted_usec_list_t sul;
#endif
        websock_worker* worker;
    };

    struct context_deleter {
        void operator()(lws_context* context) const { lws_context_destroy(context); }
    };

    // --- websock_worker.cpp: connection, back-off, sending ---
    [[nodiscard]] bool _connect();
    void follow_log_level() const;
    void fill_creation_info();
    void fill_connect_info() LUMD_REQUIRES(ctx_mutex);
    void close_context() LUMD_REQUIRES(ctx_mutex);
    void tell_end();
    // For the worker's own thread, which alone makes and destroys the context.
    [[nodiscard]] lws_context* own_context() const LUMD_NO_THREAD_SAFETY_ANALYSIS {
        return ws_context.get();
    }
    int service(int timeout_ms);
    void bound_service();
    void unbound_service();
#if LWS_LIBRARY_VERSION_NUMBER >= 4001000
    static void bound_reached(lws_sorted_usec_list_t* sul);
#endif
    void ask_writeable_when_due();
    void ask_writeable(lws* wsi);
    void drop_received();
    void hand_over();
    [[nodiscard]] int get_connect_delay();
    void delay_loop();
    [[nodiscard]] bool delay_with_periodic_cb();
    void delay_loop_dequeue_cb(const buffer_info_ptr& buffer);
    void ipc_notifier();
    int lws_send(lws* wsi, unsigned char* data, std::size_t len, lws_write_protocol protocol);
    void notify(const char* cmd);
    void notify_connected() {
        notify("connected");
    }
    void notify_disconnected() {
        notify("disconnected");
    }
    // True: the message was for this worker and is not sent.
    [[nodiscard]] bool process_internal_message(const buffer_info_t& buffer);
    void process_internal_unlink();

    // --- websock_worker_callbacks.cpp: what libwebsockets reports ---
    int worker_lws_callback(lws* wsi, lws_callback_reasons reason, void* user, void* in,
                            std::size_t len);
    int process_client_connection_error();
    int process_client_established(lws* wsi);
    int process_closed();
    int process_client_receive(lws* wsi, const void* in, std::size_t len);
    void queue_received();
    [[nodiscard]] bool append_received(const void* in, std::size_t len);
    int process_client_writeable(lws* wsi);
    void process_client_writeable_dequeue_cb(lws* wsi, const buffer_info_ptr& buffer);
    int process_protocol_destroy();
    void log_handler(const char* handler, int line) const;

    // --- websock_worker_keepalive.cpp: is the other end still there ---
    void start_keepalive();
    void stop_keepalive();
    void rearm_ping_timer();
    void ping_timeout();
    [[nodiscard]] bool is_ping_due() const;
    void send_due_ping(lws* wsi);
    void send_overdue_ping();
    int process_client_receive_pong();
    void drop_silent_link();

    LockdepMutex ctx_mutex;  // keeps the context alive while the partner's thread wakes it
    timer_processor tp;
    const char* const worker_name;
    const WsServiceType type;
    safe_queue& from_ipc;
    safe_queue& to_ipc;
    lws_context_creation_info creation_info{};  // rebuilt on every connect, like the next two
    lws_client_connect_info connect_info{};
    link_cause cause;  // to outlive the context, whose end the library reports
    std::unique_ptr<lws_context, context_deleter> ws_context
        LUMD_GUARDED_BY(ctx_mutex);  // null while not connected
    lws_callback_function* const callback_ptr;
    void (*const logger_callback)(int level, const char* line);  // null: unknown service
    const std::string domain;
    const std::string path;
    const int port;
    link_diary diary;
    buffer_info_ptr buffer_info;            // the message being received, never null
    std::vector<buffer_info_ptr> received;  // whole, in this service call; for the partner
    std::array<lws_protocols, 2> protocols{};
    int ping_noanswer = 0;  // pings since the last pong
    bool lws_callback_process_active = false;
    std::atomic<bool> lws_conn_established = false;  // the handshake completed
    bool traffic = false;                            // a message moved in this service call
    bool ctx_unlink_connection = false;              // final: no new connection is made
    timespec thread_monotime{};                      // of the last ping or of the handshake
    const timer_callback_type binded_ping_timeout;
    std::size_t connection_delay;  // back-off base, seconds
    const std::size_t initial_connection_delay;
    const std::size_t max_connection_delay;
    const std::function<void()> ipc_notifier_binded;
    const std::function<void(const buffer_info_ptr&)> delay_loop_dequeue_cb_binded;
    const std::function<bool()> delay_with_periodic_cb_binded;
    const volatile bool& running;
    service_bound bound{};
    std::chrono::steady_clock::time_point next_ask;  // for WRITEABLE while there is nothing to send
    lws* link = nullptr;                             // the established connection
    std::atomic<bool> send_due = false;              // the partner has enqueued since the last pass
    bool ask_again = false;                          // the library has refused to report WRITEABLE
};

#endif
