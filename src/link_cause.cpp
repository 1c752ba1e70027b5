#include "link_cause.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "text.h"

namespace {

constexpr unsigned switching_protocols = 101;  // RFC 9110, 15.2.2
constexpr const char* unknown_name = "the name does not resolve";
constexpr const char* handshake_timeout = "time-out in the handshake";
constexpr const char* no_answer = "time-out: the host does not answer";

// What the library reports, and what it means; the first that is a part of the text. Both as seen
// with 4.1 and 4.3.
constexpr struct {
    const char* part;
    const char* meaning;
} reports[] = {
    {"DNS", unknown_name},
    {"Closed before conn", unknown_name},  // no name server has answered
    {"Unable to connect", no_answer},
    {"Timed out", handshake_timeout},
    {"read failed", "the connection broke off in the handshake"},
};

int heard_errno = 0;  // of the attempt in progress

// The number behind `mark` in a text, 0 without it.
int number_behind(const char* text, const char* mark) {
    const char* const found = std::strstr(text, mark);
    return found != nullptr ? to_int(found + std::strlen(mark)) : 0;
}

std::string errno_text(int error) {
    switch (error) {
        case ECONNREFUSED:
            return "the connection is refused";
        case ENETUNREACH:
        case EHOSTUNREACH:
            return "no route to the host";
        case ETIMEDOUT:
            return no_answer;
        default:
            return std::strerror(error);
    }
}

std::string reported_text(const void* in, std::size_t len) {
    return in != nullptr ? printable({static_cast<const char*>(in), len}) : "";
}

// Of a Close frame: two bytes of code and a reason, or nothing (RFC 6455, 5.5.1).
std::string close_text(const void* in, std::size_t len) {
    const auto* const bytes = static_cast<const unsigned char*>(in);
    if (bytes == nullptr || len < 2)
        return "closed by the service without a code";
    std::string text = "closed by the service, code " + std::to_string(bytes[0] << 8 | bytes[1]);
    if (len > 2)
        text += " '" + reported_text(bytes + 2, len - 2) + "'";
    return text;
}

}  // namespace

void link_cause::begin() {
    text_.clear();
    begun_ = false;
    heard_errno = 0;
}

// This and note() are called from within the library, through whose frames nothing may be thrown: a
// cause that there is no memory for stays unknown.
void link_cause::see(lws* wsi, lws_callback_reasons reason, const void* in, std::size_t len) {
    try {
        learn(wsi, reason, in, len);
    } catch (const std::bad_alloc&) {
    }
}

void link_cause::learn(lws* wsi, lws_callback_reasons reason, const void* in, std::size_t len) {
    switch (reason) {
        case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
            return note(connection_error(wsi, reported_text(in, len)));
        case LWS_CALLBACK_WS_PEER_INITIATED_CLOSE:
            return note(close_text(in, len));
        case LWS_CALLBACK_CLOSED_CLIENT_HTTP:  // how 4.1 gives up a server that does not answer
            return note(handshake_timeout);
        case LWS_CALLBACK_CLIENT_CLOSED:
            return note("the connection broke off");
        case LWS_CALLBACK_WSI_DESTROY:
            end_errno_ = errno;
            begun_ = true;
            return;
        default:
            return;
    }
}

// A connection that was destroyed had an address.
void link_cause::see_no_beginning() {
    note(begun_ ? errno_text(end_errno_) : unknown_name);
}

void link_cause::note(std::string_view text) {
    if (!text_.empty())
        return;
    try {
        text_ = text;
    } catch (const std::bad_alloc&) {
        text_.clear();
    }
}

void link_cause::hear(const char* line) {
    if (const int error = number_behind(line, "says err "); error != 0)
        heard_errno = error;
}

std::string link_cause::connection_error(lws* wsi, const std::string& reported) const {
    const int told = number_behind(reported.c_str(), "conn fail: ");
    if (told != 0 || heard_errno != 0)
        return errno_text(told != 0 ? told : heard_errno);
    const unsigned status = wsi != nullptr ? lws_http_client_http_response(wsi) : 0;
    if (status != 0 && status != switching_protocols)
        return "the service answers with HTTP status " + std::to_string(status);
    if (contains(reported, "PROTOCOL"))
        return "the service does not take the subprotocol " + std::string(subprotocol_);
    for (const auto& report : reports)
        if (contains(reported, report.part))
            return report.meaning;
    return "no websocket handshake: " + reported;
}
