// BusModule is one attachment of apd to the message bus: it hands over each request and sends its
// answer. A lost bus is joined again.
//
// One thread at a time.
#ifndef PLATFORM_APD_BUS_MODULE_H
#define PLATFORM_APD_BUS_MODULE_H

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include "json.h"
#include "msgbus.h"

namespace apd {

class BusModule {
  public:
    struct FrameReleaser {
        void operator()(message_s* frame) const { std::free(frame); }
    };

    // One request. Who holds it may answer later, and at most once.
    class Request {
      public:
        Request(BusModule& module, std::unique_ptr<message_s, FrameReleaser> frame, Json message)
            : module_(&module), frame_(std::move(frame)), message_(std::move(message)) {}

        [[nodiscard]] json_object* message() const { return message_.get(); }
        // Of the process that asks, as the kernel told the broker.
        [[nodiscard]] std::uint32_t uid() const { return frame_->header.src_uid; }
        [[nodiscard]] int sender() const { return frame_->header.src; }
        void answer(const Json& answer) const { module_->answer(*frame_, answer); }

      private:
        BusModule* module_;
        std::unique_ptr<message_s, FrameReleaser> frame_;
        Json message_;
    };
    using Handler = std::function<void(const std::shared_ptr<Request>& request)>;

    // `handler` gets each message that is a JSON object with a "command"; what is none is a line in
    // the log.
    BusModule(int module, Handler handler);
    ~BusModule();
    BusModule(const BusModule&) = delete;
    BusModule& operator=(const BusModule&) = delete;

    // Joins unless joined; takes up to a second. False when the bus is not there.
    bool join();
    [[nodiscard]] bool is_joined() const { return context_ != nullptr; }

    // Takes what has come.
    void dispatch();

    // For poll(2): readable when dispatch() has work. A broker of another user than this process's
    // does not write to it, so dispatch() is also to be called now and then.
    [[nodiscard]] int fd() const { return event_fd_; }

    void send(int module, const Json& message);

  private:
    struct ContextReleaser {
        void operator()(msgbus_context* context) const { msgbus_release(context); }
    };

    void answer(const message_s& request, const Json& answer);
    void take(std::unique_ptr<message_s, FrameReleaser> frame);

    const int module_;
    const Handler handler_;
    const int event_fd_;
    std::unique_ptr<msgbus_context, ContextReleaser> context_;
};

}  // namespace apd

#endif
