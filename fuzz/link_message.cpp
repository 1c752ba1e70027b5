// What the library reports about a link: pieces of messages from the service, messages of the
// partner at the moments when they may be sent, pongs, silence, the end. The input holds steps. A
// message goes through the link as it is.
#include <libwebsockets.h>

#include <cstring>
#include <memory>

#include "clock.h"
#include "input.h"
#include "json_reader.h"
#include "json_writer.h"
#include "quiet.h"
#include "safe_queue.h"
#include "text.h"
#include "websock_worker.h"

class websock_worker_peer {
  public:
    static int callback(websock_worker& worker, lws* wsi, lws_callback_reasons reason,
                        const void* in, std::size_t len) {
        return worker.worker_lws_callback(wsi, reason, nullptr, const_cast<void*>(in), len);
    }
    static void end_pass(websock_worker& worker) { worker.hand_over(); }
    static void disconnect(websock_worker& worker) { worker.__disconnect(); }
};

namespace {

// What the library answers about the link.
struct Library {
    std::size_t remaining = 0;  // bytes of the frame that are still to come
    bool final_fragment = true;
    int buffered = 0;
    bool write_fails = false;
    unsigned http_status = 0;
    std::string written;  // all text messages, one after the other
};
Library library;

char link_object;
lws* const link_handle = reinterpret_cast<lws*>(&link_object);

std::string take_all(safe_queue& queue) {
    std::string texts;
    while (queue.dequeue([&](const buffer_info_ptr& message) { texts += message->text(); })) {
    }
    return texts;
}

// Such a message is for the worker itself.
bool is_internal(const std::string& text) {
    const json_reader message{text.c_str()};
    return equals_ignoring_case(message.get_string("service"), internal_service);
}

class Link {
  public:
    explicit Link(fuzz::Reader input) : input_(input) { report(LWS_CALLBACK_CLIENT_ESTABLISHED); }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;
    ~Link() { websock_worker_peer::disconnect(worker_); }

    void play() {
        while (!input_.empty())
            step();
    }

  private:
    int report(lws_callback_reasons reason, std::string_view in = {}) {
        return websock_worker_peer::callback(worker_, link_handle, reason, in.data(), in.size());
    }
    void step();
    void receive();
    void send();
    void close() {
        report(LWS_CALLBACK_CLIENT_CLOSED);
        websock_worker_peer::disconnect(worker_);
        begun_.clear();
        report(LWS_CALLBACK_CLIENT_ESTABLISHED);
    }

    fuzz::Reader input_;
    const volatile bool run_ = true;
    safe_queue from_partner_;
    safe_queue to_partner_;
    websock_worker worker_{from_partner_,  to_partner_, "127.0.0.1", "/", 80, run_, 1, 1,
                           WS_INSTANCE_RRM};
    std::string begun_;  // of a message whose end is still to come
};

// A piece of a message: a byte of flags, its length, the bytes.
void Link::receive() {
    const unsigned flags = input_.byte();
    library.remaining = flags & 0x0F;
    library.final_fragment = (flags & 0x80) == 0;
    const std::string_view piece = input_.take(input_.byte());
    take_all(to_partner_);
    if (report(LWS_CALLBACK_CLIENT_RECEIVE, piece) != 0) {
        close();
        return;
    }
    websock_worker_peer::end_pass(worker_);
    begun_ += piece;
    const bool whole = library.remaining == 0 && library.final_fragment;
    fuzz::require(take_all(to_partner_) == (whole ? begun_ : ""));
    if (whole)
        begun_.clear();
}

// Up to four messages that the partner has enqueued before the link may send.
void Link::send() {
    std::string expected;
    for (unsigned left = input_.byte() % 4 + 1; left > 0; --left) {
        const std::string text{input_.take(input_.byte())};
        const auto message = std::make_shared<buffer_info_t>();
        message->append(text.data(), static_cast<unsigned>(text.size()));
        from_partner_.enqueue(message);
        expected += is_internal(text) ? "" : text;
    }
    library.written.clear();
    library.buffered = 0;
    library.write_fails = false;
    report(LWS_CALLBACK_CLIENT_WRITEABLE);
    fuzz::require(library.written == expected);
}

void Link::step() {
    switch (input_.byte() % 8) {
        case 0:
            receive();
            break;
        case 1:
            send();
            break;
        case 2:
            library.buffered = input_.byte() & 1;
            library.write_fails = (input_.byte() & 1) != 0;
            report(LWS_CALLBACK_CLIENT_WRITEABLE);
            break;
        case 3:
            report(LWS_CALLBACK_CLIENT_RECEIVE_PONG);
            break;
        case 4:
            fuzz::advance_clock(input_.byte());
            break;
        case 5:
            close();
            break;
        case 6:
            library.http_status = input_.byte() * 4;
            report(LWS_CALLBACK_CLIENT_CONNECTION_ERROR, input_.take(input_.byte()));
            break;
        default: {
            const auto reason = static_cast<lws_callback_reasons>(input_.byte());
            const bool explains = reason == LWS_CALLBACK_WS_PEER_INITIATED_CLOSE;
            report(reason, explains ? input_.take(input_.byte()) : std::string_view{});
            break;
        }
    }
}

}  // namespace

// --- the library's side of the link ---

extern "C" {

std::size_t lws_remaining_packet_payload(lws*) {
    return library.remaining;
}

int lws_is_final_fragment(lws*) {
    return library.final_fragment ? 1 : 0;
}

int lws_partial_buffered(lws*) {
    return library.buffered;
}

unsigned lws_http_client_http_response(lws*) {
    return library.http_status;
}

lws_sockfd_type lws_get_socket_fd(lws*) {
    return -1;
}

int lws_callback_on_writable(lws*) {
    return 0;
}

// The library puts the frame's head in front of what it is given.
int lws_write(lws*, unsigned char* bytes, std::size_t size, lws_write_protocol protocol) {
    std::memset(bytes - LWS_PRE, 0, LWS_PRE);
    if (library.write_fails)
        return -1;
    if (protocol == LWS_WRITE_TEXT)
        library.written.append(reinterpret_cast<const char*>(bytes), size);
    return static_cast<int>(size);
}
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::log_everything();
    library = {};
    Link link{fuzz::Reader{fuzz::as_text(data, size)}};
    link.play();
    return 0;
}
