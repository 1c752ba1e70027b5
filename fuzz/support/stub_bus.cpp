#include "stub_bus.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <utility>

#include "cfgtree.h"
#include "msgbus.h"

struct msgbus_context {
    std::string request;  // what was sent last
    bool run = false;
    std::deque<std::string> arrived;
};

namespace {

struct Setting {
    std::string_view path_end;
    const char* value;
};
constexpr std::array settings = {
    Setting{"-va0/common/enabled", "true"},
    Setting{"-va1/common/enabled", "true"},
    Setting{"-va0/vap/ssid", "home"},
    Setting{"-va1/vap/ssid", "gu\\\"\xE9\\nst"},  // an SSID is any octets
    Setting{"/vap/w80211kv-config/enabled", "true"},
    Setting{"/vap/ft-config/enabled", "true"},
    Setting{"-va0/vap/ap-security/mode", "WPA2"},
    Setting{"-vap0/vap/ap-security/mode", "WPA2"},
    Setting{"-va1/vap/ap-security/mode", "WPA3_1X"},
    Setting{"/wlan/radio/country", "RU"},
    Setting{"/wlan/radio/limit-channels", "1 6 11 36 40"},
    Setting{"/wlan/radio/use-limit-channels", "true"},
    Setting{"/wlan/radio/bandwidth", "20/40"},
    Setting{"/orvanta/tpc", "true"},
    Setting{"/orvanta/dca", "true"},
    Setting{"/orvanta/load-balance-80211v", "true"},
};

std::string_view path_of(std::string_view request) {
    constexpr std::string_view key = "\"path\":\"";
    const std::size_t at = request.find(key);
    if (at == std::string_view::npos)
        return {};
    request.remove_prefix(at + key.size());
    return request.substr(0, request.find('"'));
}

// Slashes of a path come escaped out of the serialiser.
std::string unescaped(std::string_view text) {
    std::string result;
    for (const char c : text) {
        if (c != '\\')
            result += c;
    }
    return result;
}

stub_bus::Daemon& daemon() {
    static stub_bus::Daemon instance = stub_bus::agreeable;
    return instance;
}

// Of all modules of the process: no target has two that mind. It is there before any module and
// outlives them all: a worker that is static in a target leaves the bus at exit.
msgbus_context the_bus;

msgbus_context& context() {
    return the_bus;
}

}  // namespace

void stub_bus::serve(Daemon next) {
    daemon() = std::move(next);
}

void stub_bus::deliver(std::string_view payload) {
    context().arrived.emplace_back(payload);
}

const std::string& stub_bus::sent() {
    return context().request;
}

std::optional<std::string> stub_bus::agreeable(std::string_view request) {
    const std::string path = unescaped(path_of(request));
    for (const Setting& setting : settings) {
        if (path.ends_with(setting.path_end))
            return std::string{R"({"value":")"} + setting.value + R"("})";
    }
    return R"({"status":"ok"})";
}

extern "C" {

msgbus_context* msgbus_init(int, const uint8_t*, size_t) {
    return &context();
}

msgbus_context* msgbus_init_with_event(int module, const uint8_t* options, size_t len, int) {
    return msgbus_init(module, options, len);
}

void msgbus_release(msgbus_context* ctx) {
    *ctx = {};
}

void msgbus_set_module_loop(msgbus_context* ctx, int run) {
    ctx->run = run != 0;
}

int msgbus_get_module_loop(msgbus_context* ctx) {
    return ctx->run ? 1 : 0;
}

void msgbus_peer_start(msgbus_context* ctx) {
    ctx->run = true;
}

void msgbus_peer_stop(msgbus_context* ctx) {
    ctx->run = false;
}

message_s* msgbus_poll_no_wait(msgbus_context* ctx) {
    if (ctx->arrived.empty())
        return nullptr;
    const std::string payload = std::move(ctx->arrived.front());
    ctx->arrived.pop_front();
    auto* const frame =
        static_cast<message_s*>(std::calloc(1, sizeof(message_header_s) + payload.size() + 1));
    if (frame == nullptr)
        return nullptr;
    frame->header.len = static_cast<std::uint32_t>(payload.size());
    std::memcpy(frame->payload, payload.c_str(), payload.size() + 1);
    return frame;
}

int msgbus_has_frame(msgbus_context* ctx) {
    return ctx->arrived.empty() ? 0 : 1;
}

void msgbus_send(msgbus_context* ctx, const void* data, uint8_t, size_t len) {
    ctx->request.assign(static_cast<const char*>(data), len);
}

// Nothing is kept for later here.
void msgbus_send_later(msgbus_context* ctx, const void* data, uint8_t dst, size_t len) {
    msgbus_send(ctx, data, dst, len);
}

void msgbus_flush(msgbus_context*) {}

void msgbus_send_answer(msgbus_context*, const message_s*, const void*, size_t) {}

cfgtree_node* msgbus_wait_answer(msgbus_context* ctx, const char*, const char*, int) {
    const std::optional<std::string> answer = daemon()(ctx->request);
    return answer ? cfgtree_parse_buffer(answer->data(), answer->size()) : nullptr;
}
}
