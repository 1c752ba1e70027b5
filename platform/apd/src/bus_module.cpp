#include "bus_module.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "logsink.h"
#include "text_values.h"

namespace apd {

namespace {

// What every client joins with; opaque to this side.
constexpr std::array<std::uint8_t, 2> kOptions = {0xFE, 0x00};
constexpr int kAtOnce = 64;  // messages before others have their turn

}  // namespace

BusModule::BusModule(int module, Handler handler)
    : module_(module),
      handler_(std::move(handler)),
      event_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

BusModule::~BusModule() {
    context_.reset();
    close(event_fd_);
}

bool BusModule::join() {
    if (context_)
        return true;
    context_.reset(msgbus_init_with_event(module_, kOptions.data(), kOptions.size(), event_fd_));
    if (!context_)
        return false;
    msgbus_peer_start(context_.get());
    if (msgbus_get_module_loop(context_.get()) == 0)
        context_.reset();
    return is_joined();
}

void BusModule::dispatch() {
    std::uint64_t count = 0;
    static_cast<void>(!read(event_fd_, &count, sizeof count));
    for (int i = 0; context_ && i < kAtOnce; i++) {
        std::unique_ptr<message_s, FrameReleaser> frame{msgbus_poll_no_wait(context_.get())};
        if (!frame) {
            if (msgbus_get_module_loop(context_.get()) == 0)
                context_.reset();
            return;
        }
        take(std::move(frame));
    }
    // More may wait, of which nothing tells again.
    const std::uint64_t one = 1;
    static_cast<void>(!write(event_fd_, &one, sizeof one));
}

void BusModule::take(std::unique_ptr<message_s, FrameReleaser> frame) {
    const std::string_view text{reinterpret_cast<const char*>(frame->payload), frame->header.len};
    Json message = parse_json(text);
    if (json_object_is_type(member(message.get(), "command"), json_type_string) == 0) {
        logsink_message(SINK_WARNING, "module %d sends what is no request: %s", frame->header.src,
                        for_log(text).c_str());
        return;
    }
    handler_(std::make_shared<Request>(*this, std::move(frame), std::move(message)));
}

void BusModule::send(int module, const Json& message) {
    if (!context_)
        return;
    const std::string text = compact(message.get());
    msgbus_send(context_.get(), text.data(), static_cast<std::uint8_t>(module), text.size());
}

void BusModule::answer(const message_s& request, const Json& answer) {
    if (!context_)
        return;
    const std::string text = compact(answer.get());
    msgbus_send_answer(context_.get(), &request, text.data(), text.size());
}

}  // namespace apd
