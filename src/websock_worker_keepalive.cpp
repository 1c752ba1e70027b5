// Whether the other end is still there: a ping every 30 seconds, and when to give the link up.
#include <array>
#include <ctime>

#include "lum_trace.h"
#include "websock_worker.h"

namespace {

constexpr std::time_t ping_period_s = 30;
constexpr int ping_timeout_s = 60;  // without a ping sent: the socket takes nothing any more
constexpr int max_unanswered_pings = 3;
constexpr int poll_once = -1;  // a service call that does not wait

// Service calls for an overdue ping: after minutes the library first sends one of its own.
constexpr int overdue_ping_calls = 4;

}  // namespace

void websock_worker::start_keepalive() {
    time_monotonic(thread_monotime);
    rearm_ping_timer();
}

void websock_worker::stop_keepalive() {
    tp.del_timer(ping_timer);
}

void websock_worker::rearm_ping_timer() {
    tp.del_timer(ping_timer);
    tp.add_timer(binded_ping_timeout, ping_timer, ping_timeout_s);
}

void websock_worker::ping_timeout() {
    trace.debug("%s", __func__);
    cause.note("no ping can be sent any more");
    can_run = false;
}

bool websock_worker::is_ping_due() const {
    timespec now{};
    return lws_conn_established && time_monotonic(now) - thread_monotime.tv_sec >= ping_period_s;
}

// The callback asked for here looks for the missing pongs.
void websock_worker::send_due_ping(lws* wsi) {
    if (!is_ping_due() || lws_partial_buffered(wsi) != 0)
        return;
    time_monotonic(thread_monotime);
    std::array<unsigned char, LWS_PRE> head{};
    if (lws_send(wsi, head.data() + head.size(), 0, LWS_WRITE_PING) > 0)
        ++ping_noanswer;
    ask_writeable(wsi);
    rearm_ping_timer();
}

// A process that was stopped, or got no processor, finds the timer overdue together with the ping
// that would have put it off. A healthy link takes the ping at once.
void websock_worker::send_overdue_ping() {
    for (int calls = 0; calls < overdue_ping_calls && link != nullptr && is_ping_due(); ++calls) {
        ask_writeable(link);
        service(poll_once);
    }
}

int websock_worker::process_client_receive_pong() {
    log_handler(__func__, __LINE__);
    ping_noanswer = 0;
    return 0;
}

void websock_worker::drop_silent_link() {
    if (ping_noanswer < max_unanswered_pings)
        return;
    trace.debug("%s->There are no %d pong answer in a row from server\n", worker_name,
                ping_noanswer);
    cause.note("no pong came for 3 pings");
    static_assert(max_unanswered_pings == 3);
    ping_noanswer = 0;
    lws_callback_process_active = false;
}
