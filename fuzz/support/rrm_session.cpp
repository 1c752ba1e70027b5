#include "rrm_session.h"

#include <memory>

#include "clock.h"
#include "live_driver.h"
#include "report.h"

namespace {

volatile bool run_flag = true;

constexpr std::string_view accepted =
    R"({"version":"2.4","service":"rrm","cmd":"subscribe-response","status":"success",)"
    R"("config":{"use-80211v":1,"use-80211r":1}})";

void put(safe_queue& queue, std::string_view text) {
    const auto message = std::make_shared<buffer_info_t>();
    message->append(text.data(), static_cast<unsigned>(text.size()));
    queue.enqueue(message);
}

}  // namespace

RrmSession::RrmSession()
    : worker_(fuzz::live_driver(), from_websocket_, to_websocket_, from_ipc_, to_ipc_, run_flag,
              "site-1") {
    service_sends(accepted);
    pass();
}

RrmSession::~RrmSession() {
    if (connected_)
        worker_.__disconnect();
}

void RrmSession::service_sends(std::string_view text) {
    put(from_websocket_, text);
}

void RrmSession::bus_sends(std::string_view text) {
    put(from_ipc_, text);
}

void RrmSession::pass() {
    worker_.execute();
    fuzz::check_reports(to_websocket_);
}

void RrmSession::turn() {
    if (!connected_)
        connected_ = worker_.__connect();
    if (!connected_)
        return;
    if (worker_.condition(run_flag)) {
        pass();
        return;
    }
    worker_.__disconnect();
    fuzz::check_reports(to_websocket_);
    connected_ = false;
}

// A survey takes five passes at the most, each of a few seconds for every channel.
void RrmSession::let_time_pass() {
    constexpr int steps = 6;
    constexpr int step = 60;  // seconds
    for (int i = 0; i < steps; ++i) {
        fuzz::advance_clock(step);
        pass();
    }
}
