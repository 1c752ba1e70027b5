// One opening handshake with a service (RFC 6455, 4), as the agent makes it, and its orderly end.
#ifndef LUMCTL_HANDSHAKE_H
#define LUMCTL_HANDSHAKE_H

#include <libwebsockets.h>

#include <chrono>
#include <memory>
#include <string>

struct handshake_result {
    bool established = false;
    int http_status = 0;      // 0: no answer
    std::string subprotocol;  // that the service took; empty: none
    std::string error;        // the library's words
    bool timed_out = false;
    bool closed = false;  // the service has answered the Close frame, or closed itself
};

class handshake {
  public:
    // `address` is numeric, so that the library need not look it up; `host` is what the service is
    // told.
    handshake(std::string address, std::string host, int port, std::string path,
              std::string subprotocol);

    // At most `limit` for the opening and as long for the end.
    [[nodiscard]] handshake_result run(std::chrono::seconds limit);

  private:
    struct context_deleter {
        void operator()(lws_context* context) const { lws_context_destroy(context); }
    };

    static int callback(lws* wsi, lws_callback_reasons reason, void* user, void* in,
                        std::size_t len);
    int take(lws* wsi, lws_callback_reasons reason, const char* in, std::size_t len);
    [[nodiscard]] bool begin();
    // Until `flag` or the deadline.
    void serve_until(const bool& flag, std::chrono::seconds limit);

    const std::string address_;
    const std::string host_;
    const int port_;
    const std::string path_;
    const std::string subprotocol_;
    lws_protocols protocols_[2]{};
    std::unique_ptr<lws_context, context_deleter> context_;
    lws* link_ = nullptr;
    handshake_result result_;
    bool opened_ = false;  // or failed to
    bool ended_ = false;
};

#endif
