#include "websock_worker.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

#include "json_reader.h"
#include "json_writer.h"
#include "lum_trace.h"
#include "lws_gate.h"
#include "mutex_guard.h"
#include "text.h"

namespace {

constexpr int service_period_ms = 100;
constexpr int idle_delay_us = 100000;
constexpr int max_service_calls = 64;
// Of a long message to one send(2). What is beyond it the library copies, and sends later.
constexpr std::size_t most_sent_at_once = std::size_t{256} * 1024;
// What one service call receives at most.
constexpr unsigned service_buffer_bytes = 16 * 1024;
constexpr int reconnect_pause_us = 1000000;
constexpr int every_lws_log_level = 1023;
constexpr std::size_t smallest_delay_base = 2;  // seconds

constexpr const char* timezone_command = "update-timezone";

std::time_t now_s() {
    timespec now{};
    return time_monotonic(now);
}

// strcasestr(3) for a name with one hyphen, ten times faster because there are few of them.
bool mentions_internal_service(const char* text) {
    static const std::ptrdiff_t before = std::strchr(internal_service, '-') - internal_service;
    static const std::size_t length = std::strlen(internal_service);
    for (const char* hyphen = std::strchr(text, '-'); hyphen != nullptr;
         hyphen = std::strchr(hyphen + 1, '-'))
        if (hyphen - text >= before && strncasecmp(hyphen - before, internal_service, length) == 0)
            return true;
    return false;
}

// Whether a JSON text can hold one of the two values that process_internal_message() looks for. Of
// all escapes only the hexadecimal one gives a character that is in them. Most messages are none of
// these, and the look is many times faster than making the tree of a large one.
bool may_be_internal(const char* text) {
    return mentions_internal_service(text) || std::strstr(text, timezone_command) != nullptr ||
           std::strstr(text, "\\u") != nullptr;
}

struct service_entry {
    const char* name;  // of the worker and of the subprotocol
    void (*log_converter)(int level, const char* line);
};

const service_entry& service_of(ws_instance_id instance) {
    static constexpr std::array<service_entry, 3> services = {{
        {websock_names[WS_INSTANCE_PORTAL], portal_lwsl_convert_log},
        {websock_names[WS_INSTANCE_RRM], rrm_lwsl_convert_log},
        {websock_names[WS_INSTANCE_WIDS], wids_lwsl_convert_log},
    }};
    static constexpr service_entry unknown = {"unknown", nullptr};
    const auto index = static_cast<std::size_t>(instance);
    return index < services.size() ? services[index] : unknown;
}

}  // namespace

void portal_lwsl_convert_log(int level, const char* line) {
    link_cause::hear(line);
    trace.debug("portal->libwebsocket-debug> %d: %s", level, line);
}

void rrm_lwsl_convert_log(int level, const char* line) {
    link_cause::hear(line);
    trace.debug("rrm->libwebsocket-debug> %d: %s", level, line);
}

void wids_lwsl_convert_log(int level, const char* line) {
    link_cause::hear(line);
    trace.debug("wids->libwebsocket-debug> %d: %s", level, line);
}

websock_worker::websock_worker(safe_queue& from_ipc_queue, safe_queue& to_ipc_queue,
                               const std::string& server_domain, const std::string& request_path,
                               int server_port, const volatile bool& worker_run_flag,
                               std::size_t initial_delay, std::size_t max_delay,
                               ws_instance_id instance)
    : abstract_worker(worker_run_flag, service_of(instance).name, idle_delay_us,
                      reconnect_pause_us),
      ctx_mutex("ctx_mutex"),
      worker_name(service_of(instance).name),
      type(static_cast<WsServiceType>(instance)),
      from_ipc(from_ipc_queue),
      to_ipc(to_ipc_queue),
      cause(worker_name),
      callback_ptr(__callback_lws_process),
      logger_callback(service_of(instance).log_converter),
      domain(server_domain),
      path(request_path),
      port(server_port),
      diary(worker_name, domain, port, path),
      buffer_info(std::make_shared<buffer_info_t>()),
      binded_ping_timeout([this] { ping_timeout(); }),
      connection_delay(initial_delay),
      initial_connection_delay(initial_delay),
      max_connection_delay(max_delay),
      ipc_notifier_binded([this] { ipc_notifier(); }),
      delay_loop_dequeue_cb_binded(
          [this](const buffer_info_ptr& buffer) { delay_loop_dequeue_cb(buffer); }),
      delay_with_periodic_cb_binded([this] { return delay_with_periodic_cb(); }),
      running(worker_run_flag) {}

websock_worker::~websock_worker() {
    join();
}

bool websock_worker::__connect() {
    tp.process_once();
    notify_disconnected();
    delay_loop();
    return _connect();
}

// The wait takes place in lws_service, where the socket ends it; the worker's own event makes the
// run loop's wait for one return at once. A service call that fails does not wait, so then the run
// loop does. While there is traffic the next service call follows without that detour.
bool websock_worker::execute() {
    follow_log_level();
    int result = 0;
    int calls = 0;
    do {
        traffic = false;
        ask_writeable_when_due();
        bound_service();
        result = service(service_period_ms);
        send_overdue_ping();
        tp.process_once();
        diary.look(now_s());
    } while (result >= 0 && (traffic || send_due) && ++calls < max_service_calls && can_run &&
             condition(running));
    if (result >= 0)
        put_event();
    return true;
}

// What it has brought goes to the partner all at once, which is then woken once: to wake a thread
// costs more than to carry a short message.
int websock_worker::service(int timeout_ms) {
    const int result = lws_service(own_context(), timeout_ms);
    hand_over();
    return result;
}

void websock_worker::__disconnect() {
    from_ipc.unset_user_notifier();
    const mutex_guard lock(ctx_mutex);
    trace.debug("%s->Stopping\n", worker_name);
    notify_disconnected();
    tell_end();
    lws_conn_established = false;
    stop_keepalive();
    close_context();
    lws_callback_obj.clear();
    drop_received();
}

bool websock_worker::condition(const volatile bool& flag) {
    return flag ? lws_callback_process_active : false;
}

bool websock_worker::_connect() {
    const mutex_guard lock(ctx_mutex);
    if (ctx_unlink_connection)
        return false;
    lws_callback_obj.set(
        [this](lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t len) {
            return worker_lws_callback(wsi, reason, user, in, len);
        });
    fill_creation_info();
    cause.begin();
    lws_callback_process_active = true;
    follow_log_level();
    ws_context.reset(lws_create_context(&creation_info));
    if (!ws_context) {
        trace.error("%s->Creating libwebsocket context failed\n", worker_name);
        lws_callback_obj.clear();
        return false;
    }
    fill_connect_info();
    trace.debug("%s-> %s: Try to establish connect with server %s:%d%s\n", worker_name, __func__,
                domain.c_str(), port, path.c_str());
    if (lws_client_connect_via_info(&connect_info) == nullptr) {
        cause.see_no_beginning();
        tell_end();
        close_context();
        lws_callback_obj.clear();
        return false;
    }
    trace.debug("%s->Connected\n", worker_name);
    return true;
}

// Whatever the library says is a debug message here. It formats a dozen lines for each message that
// passes: of a link it is asked for none that nobody would see.
void websock_worker::follow_log_level() const {
    const int needed = lws_conn_established ? 0 : link_cause::needed_lines;
    lws_set_log_level(trace.is_debug_enabled() ? every_lws_log_level : needed, logger_callback);
}

void websock_worker::fill_creation_info() {
    creation_info = {};
    connect_info = {};
    protocols = {};
    protocols[0].name = worker_name;
    protocols[0].callback = callback_ptr;
    protocols[0].user = this;
    protocols[0].tx_packet_size = most_sent_at_once;
    creation_info.port = CONTEXT_PORT_NO_LISTEN;
    creation_info.pt_serv_buf_size = service_buffer_bytes;
    creation_info.protocols = protocols.data();
    creation_info.gid = static_cast<decltype(creation_info.gid)>(-1);
    creation_info.uid = static_cast<decltype(creation_info.uid)>(-1);
}

void websock_worker::fill_connect_info() {
    connect_info.context = ws_context.get();
    connect_info.address = domain.c_str();
    connect_info.port = port;
    connect_info.ssl_connection = 0;
    connect_info.path = path.c_str();
    connect_info.host = domain.c_str();
    connect_info.origin = domain.c_str();
    connect_info.protocol = worker_name;
    connect_info.ietf_version_or_minus_one = -1;
}

void websock_worker::close_context() {
    if (!ws_context)
        return;
    unbound_service();
    ws_context.reset();
    link = nullptr;
    send_due = false;
    ask_again = false;
}

// Before the context goes: the connection that it takes along is no trouble.
void websock_worker::tell_end() {
    diary.down(cause.text(), now_s());
}

#if LWS_LIBRARY_VERSION_NUMBER >= 4001000

// lws_service() has no bound of its own since the library keeps its own timers. One is armed afresh
// for each pass; it arms itself again in case it is due before the pass begins to wait, when the
// library would take it and then wait without bound. poll(2) is given whole milliseconds, rounded
// down: one more makes the period be over when it returns.
void websock_worker::bound_service() {
    static_assert(std::is_standard_layout_v<service_bound>);
    bound.worker = this;
    lws_sul_schedule(own_context(), 0, &bound.sul, bound_reached,
                     (service_period_ms + 1) * LWS_US_PER_MS);
}

void websock_worker::bound_reached(lws_sorted_usec_list_t* sul) {
    reinterpret_cast<service_bound*>(sul)->worker->bound_service();
}

void websock_worker::unbound_service() {
    lws_sul_cancel(&bound.sul);
}

#else

// These versions honour the timeout that lws_service() is given.
void websock_worker::bound_service() {}
void websock_worker::unbound_service() {}

#endif

// A message of the partner asks at once. Beyond that WRITEABLE has work while a ping is due: that
// is seen to once a period. To ask an idle link every time would wake it twice a period for
// nothing.
void websock_worker::ask_writeable_when_due() {
    if (link == nullptr)
        return;
    const auto now = std::chrono::steady_clock::now();
    const bool period_over = now >= next_ask;
    if (period_over)
        next_ask = now + std::chrono::milliseconds(service_period_ms);
    const bool refused = std::exchange(ask_again, false);
    if (send_due.exchange(false) || refused || (period_over && is_ping_due()))
        ask_writeable(link);
}

// What the library refuses is asked for again in the next pass. `send_due` stays as it is: while it
// is set the partner wakes nobody.
void websock_worker::ask_writeable(lws* wsi) {
    if (lws_callback_on_writable(wsi) <= 0)
        ask_again = true;
}

// A message that a lost link has cut off must not become the head of the next link's first one.
void websock_worker::drop_received() {
    buffer_info = std::make_shared<buffer_info_t>();
}

int websock_worker::get_connect_delay() {
    const std::size_t old = connection_delay;
    if (connection_delay == 0)
        connection_delay = 1;
    connection_delay =
        connection_delay > max_connection_delay / 2 ? max_connection_delay : connection_delay * 2;
    const std::size_t base = old != 0 ? old : smallest_delay_base;
    trace.debug("Generate delay into [%zu;%zu) range\n", base / 2, base / 2 + base);
    const std::size_t delay = static_cast<std::size_t>(std::rand()) % base + base / 2;
    return static_cast<int>(std::min<std::size_t>(delay, INT_MAX));
}

void websock_worker::delay_loop() {
    const int delay = get_connect_delay();
    trace.debug("Delay before connection: %d sec\n", delay);
    tp.delay_with_periodic(delay, delay_with_periodic_cb_binded);
}

bool websock_worker::delay_with_periodic_cb() {
    if (!running)
        return false;
    from_ipc.dequeue(delay_loop_dequeue_cb_binded);
    return true;
}

void websock_worker::delay_loop_dequeue_cb(const buffer_info_ptr& buffer) {
    trace.debug("%s->From queue\n", worker_name);
    buffer->dump();
    static_cast<void>(process_internal_message(*buffer));
}

// The partner's thread. One wake-up is enough for all messages that arrive before the worker looks.
void websock_worker::ipc_notifier() {
    const mutex_guard lock(ctx_mutex);
    if (!ws_context || !lws_conn_established || send_due.exchange(true))
        return;
    put_event();
    lws_cancel_service(ws_context.get());
}

// The library puts the frame's head into LWS_PRE bytes in front of `data`, and masks what it sends
// where it lies. Null data, for want of memory, counts as not sent.
int websock_worker::lws_send(lws* wsi, unsigned char* data, std::size_t len,
                             lws_write_protocol protocol) {
    const int written = data != nullptr ? lws_write(wsi, data, len, protocol) : -1;
    if (written < 0)
        trace.error("%s->%s:Can't send msg type [%d] to websocket\n", worker_name, __func__,
                    static_cast<int>(protocol));
    else if (protocol != LWS_WRITE_PING)
        trace.info("%s->%s:Send msg type [%d] len [%d/%d]  to websocket\n", worker_name, __func__,
                   static_cast<int>(protocol), written, static_cast<int>(len));
    return written;
}

// Behind what has been received so far.
void websock_worker::notify(const char* cmd) {
    hand_over();
    json_writer message(internal_service, cmd, "", protocol_version);
    to_ipc.enqueue_json(message);
}

void websock_worker::hand_over() {
    to_ipc.enqueue_all(received);
}

bool websock_worker::process_internal_message(const buffer_info_t& buffer) {
    if (!may_be_internal(buffer.c_str()))
        return false;
    const json_reader message(buffer.c_str());
    if (message.fail())
        return false;
    const char* const command = message.get_string("command");
    if (command != nullptr && std::strcmp(command, timezone_command) == 0)
        tzset();
    const char* const service = message.get_string("service");
    if (!equals_ignoring_case(service, internal_service))
        return false;
    const char* const cmd = message.get_string("cmd");
    if (cmd == nullptr)
        return true;
    if (equals_ignoring_case(cmd, "status"))
        lws_conn_established ? notify_connected() : notify_disconnected();
    else if (std::strcmp(cmd, "unlink") == 0)
        process_internal_unlink();
    return true;
}

void websock_worker::process_internal_unlink() {
    log_handler(__func__, __LINE__);
    lws_callback_process_active = false;
    ctx_unlink_connection = true;
}
