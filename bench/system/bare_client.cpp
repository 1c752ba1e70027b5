// bench_bare_client PORT: the least that a libwebsockets client can do: discard what comes, and
// send messages as the server orders them ("BYTES COUNT" in a binary message).

#include <libwebsockets.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::size_t bytes = 0;
std::size_t left = 0;
bool over = false;

int send_next(lws* wsi) {
    static std::vector<unsigned char> frame;
    frame.assign(LWS_PRE + bytes, 'x');
    if (lws_write(wsi, frame.data() + LWS_PRE, bytes, LWS_WRITE_TEXT) < 0)
        return -1;
    if (--left > 0)
        lws_callback_on_writable(wsi);
    return 0;
}

int handle(lws* wsi, lws_callback_reasons reason, void*, void* in, std::size_t len) {
    switch (reason) {
        case LWS_CALLBACK_CLIENT_RECEIVE:
            if (lws_frame_is_binary(wsi)) {
                const std::string order(static_cast<const char*>(in), len);
                std::sscanf(order.c_str(), "%zu %zu", &bytes, &left);
                lws_callback_on_writable(wsi);
            }
            return 0;
        case LWS_CALLBACK_CLIENT_WRITEABLE:
            return left > 0 ? send_next(wsi) : 0;
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
    lws_context* const context = lws_create_context(&creation);
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
