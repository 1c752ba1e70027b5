// Frames that the bus brings to the bus worker, and messages that it carries to the bus: what goes
// through it stays as it is.
#include <memory>

#include "input.h"
#include "ipc_worker.h"
#include "quiet.h"
#include "stub_bus.h"

namespace {

void check_inwards(ipc_worker& worker, safe_queue& to_daemon, const std::string& payload) {
    stub_bus::deliver(payload);
    worker.execute();
    std::string taken;
    const bool any =
        to_daemon.dequeue([&](const buffer_info_ptr& message) { taken = message->text(); });
    fuzz::require(any ? taken == payload : payload.empty() || payload.front() == '\0');
}

void check_outwards(ipc_worker& worker, safe_queue& from_daemon, const std::string& text) {
    const auto message = std::make_shared<buffer_info_t>();
    message->append(text.data(), static_cast<unsigned>(text.size()));
    from_daemon.enqueue(message);
    worker.execute();
    fuzz::require(text.empty() || stub_bus::sent() == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const volatile bool run = true;
    static safe_queue to_daemon;
    static safe_queue from_daemon;
    static ipc_worker worker(to_daemon, from_daemon, LUMDMOD, run);
    fuzz::log_everything();
    static const bool connected = worker.__connect();
    fuzz::require(connected);
    for (const std::string& text : fuzz::records(fuzz::as_text(data, size))) {
        check_inwards(worker, to_daemon, text);
        check_outwards(worker, from_daemon, text);
    }
    return 0;
}
