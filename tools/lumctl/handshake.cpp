#include "handshake.h"

#include <poll.h>

#include <utility>

namespace {

constexpr int service_step_ms = 10;
constexpr std::size_t longest_name = 128;
constexpr int switching_protocols = 101;  // RFC 9110, 15.2.2

// One pass that does not wait: from 4.1 on the library waits for an event whatever it is told,
// unless the number is negative.
#if LWS_LIBRARY_VERSION_NUMBER >= 4001000
constexpr int no_wait = -1;
#else
constexpr int no_wait = 1;
#endif

}  // namespace

handshake::handshake(std::string address, std::string host, int port, std::string path,
                     std::string subprotocol)
    : address_(std::move(address)),
      host_(std::move(host)),
      port_(port),
      path_(std::move(path)),
      subprotocol_(std::move(subprotocol)) {
    protocols_[0].name = subprotocol_.c_str();
    protocols_[0].callback = callback;
    protocols_[0].user = this;
}

handshake_result handshake::run(std::chrono::seconds limit) {
    lws_set_log_level(0, nullptr);
    if (begin())
        serve_until(opened_, limit);
    result_.timed_out = !opened_ && result_.error.empty();
    if (result_.established) {
        lws_callback_on_writable(link_);  // to send the Close frame
        serve_until(ended_, limit);
    }
    result_.closed = ended_;
    context_.reset();
    return result_;
}

bool handshake::begin() {
    lws_context_creation_info creation{};
    creation.port = CONTEXT_PORT_NO_LISTEN;
    creation.protocols = protocols_;
    creation.gid = static_cast<decltype(creation.gid)>(-1);
    creation.uid = static_cast<decltype(creation.uid)>(-1);
    context_.reset(lws_create_context(&creation));
    lws_client_connect_info connection{};
    connection.context = context_.get();
    connection.address = address_.c_str();
    connection.port = port_;
    connection.path = path_.c_str();
    connection.host = host_.c_str();
    connection.origin = host_.c_str();
    connection.protocol = subprotocol_.c_str();
    connection.ietf_version_or_minus_one = -1;
    if (context_ && lws_client_connect_via_info(&connection) != nullptr)
        return true;
    if (result_.error.empty())
        result_.error = "the websocket library cannot connect";
    return false;
}

void handshake::serve_until(const bool& flag, std::chrono::seconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!flag && std::chrono::steady_clock::now() < deadline) {
        if (lws_service(context_.get(), no_wait) < 0)
            return;
        poll(nullptr, 0, service_step_ms);
    }
}

int handshake::callback(lws* wsi, lws_callback_reasons reason, void* /*user*/, void* in,
                        std::size_t len) {
    const lws_protocols* const protocol = wsi != nullptr ? lws_get_protocol(wsi) : nullptr;
    if (protocol == nullptr || protocol->user == nullptr)
        return 0;
    return static_cast<handshake*>(protocol->user)
        ->take(wsi, reason, static_cast<const char*>(in), len);
}

int handshake::take(lws* wsi, lws_callback_reasons reason, const char* in, std::size_t len) {
    switch (reason) {
        case LWS_CALLBACK_CLIENT_FILTER_PRE_ESTABLISH: {
            char name[longest_name] = "";
            if (lws_hdr_copy(wsi, name, sizeof name, WSI_TOKEN_PROTOCOL) > 0)
                result_.subprotocol = name;
            return 0;
        }
        case LWS_CALLBACK_CLIENT_ESTABLISHED:
            link_ = wsi;
            result_.http_status = switching_protocols;
            result_.established = opened_ = true;
            return 0;
        case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
            result_.http_status = static_cast<int>(lws_http_client_http_response(wsi));
            result_.error = in != nullptr && len > 0 ? std::string(in, len) : "no reason given";
            opened_ = true;
            return 0;
        case LWS_CALLBACK_CLIENT_WRITEABLE:
            lws_close_reason(wsi, LWS_CLOSE_STATUS_NORMAL, nullptr, 0);
            return -1;
        case LWS_CALLBACK_CLOSED_CLIENT_HTTP:
            opened_ = true;
            return 0;
        case LWS_CALLBACK_CLIENT_CLOSED:
            ended_ = true;
            return 0;
        default:
            return 0;
    }
}
