// bench_bare_client PORT: the least that a libwebsockets client can do. It discards what comes and
// does what the server orders in binary messages:
//
//   send BYTES MS  sends such messages for so long, then a short one
//   delays         sends a message a period and, once as many have come, tells how late they came

#include <libwebsockets.h>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <string>
#include <vector>

#include "delays.h"

namespace {

constexpr std::size_t end_bytes = 64;

lws_context* context = nullptr;
lws* link = nullptr;
bool over = false;

struct {
    std::size_t bytes = 0;
    Clock::time_point until;
} flood;

struct {
    lws_sorted_usec_list_t timer{};
    Clock::time_point start;
    std::size_t made = 0;
    std::vector<double> received;
    std::deque<std::string> waiting;
    bool measuring = false;
} periodic;

void write_text(const std::string& text) {
    static std::vector<unsigned char> frame;
    frame.assign(LWS_PRE, 0);
    frame.insert(frame.end(), text.begin(), text.end());
    lws_write(link, frame.data() + LWS_PRE, text.size(), LWS_WRITE_TEXT);
}

void send_flood() {
    static std::vector<unsigned char> frame;
    const bool last = Clock::now() >= flood.until;
    const std::size_t bytes = last ? end_bytes : flood.bytes;
    frame.assign(LWS_PRE + bytes, 'x');
    lws_write(link, frame.data() + LWS_PRE, bytes, LWS_WRITE_TEXT);
    if (last)
        flood.bytes = 0;
    else
        lws_callback_on_writable(link);
}

void write_waiting() {
    if (flood.bytes > 0) {
        send_flood();
        return;
    }
    for (; !periodic.waiting.empty(); periodic.waiting.pop_front())
        write_text(periodic.waiting.front());
}

void period_over(lws_sorted_usec_list_t* timer) {
    for (; periodic.made < delay_messages &&
           periodic.start + periodic.made * delay_period <= Clock::now();
         periodic.made++)
        write_text(make_message(delay_message_bytes));
    if (periodic.made < delay_messages)
        lws_sul_schedule(context, 0, timer, period_over, delay_period.count());
}

void obey(const std::string& order) {
    unsigned milliseconds = 0;
    if (std::sscanf(order.c_str(), "send %zu %u", &flood.bytes, &milliseconds) == 2) {
        flood.until = Clock::now() + std::chrono::milliseconds(milliseconds);
        lws_callback_on_writable(link);
        return;
    }
    periodic.measuring = true;
    periodic.start = Clock::now();
    period_over(&periodic.timer);
}

void note_delay(std::string_view message) {
    periodic.received.push_back(delay_of(message));
    if (periodic.received.size() < delay_messages)
        return;
    const Percentiles result = percentiles(periodic.received);
    periodic.waiting.push_back(std::to_string(result.p50) + " " + std::to_string(result.p99));
    periodic.measuring = false;
    lws_callback_on_writable(link);
}

int handle(lws* wsi, lws_callback_reasons reason, void*, void* in, std::size_t len) {
    const std::string_view message(static_cast<const char*>(in), in != nullptr ? len : 0);
    switch (reason) {
        case LWS_CALLBACK_CLIENT_ESTABLISHED:
            link = wsi;
            return 0;
        case LWS_CALLBACK_CLIENT_RECEIVE:
            if (lws_frame_is_binary(wsi))
                obey(std::string(message));
            else if (periodic.measuring)
                note_delay(message);
            return 0;
        case LWS_CALLBACK_CLIENT_WRITEABLE:
            write_waiting();
            return 0;
        case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
        case LWS_CALLBACK_CLIENT_CLOSED:
            over = true;
            return 0;
        default:
            return 0;
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::array<lws_protocols, 2> protocols{{{"bench", handle, 0, 0, 0, nullptr, 0}, {}}};
    lws_context_creation_info creation{};
    creation.port = CONTEXT_PORT_NO_LISTEN;
    creation.protocols = protocols.data();
    lws_set_log_level(0, nullptr);
    context = lws_create_context(&creation);
    lws_client_connect_info connection{};
    connection.context = context;
    connection.address = connection.host = connection.origin = "127.0.0.1";
    connection.port = argc == 2 ? std::atoi(argv[1]) : 0;
    connection.path = "/";
    connection.protocol = "bench";
    connection.ietf_version_or_minus_one = -1;
    if (context == nullptr || lws_client_connect_via_info(&connection) == nullptr)
        return EXIT_FAILURE;
    while (!over && lws_service(context, 0) >= 0)
        continue;
    lws_context_destroy(context);
    return EXIT_SUCCESS;
}
