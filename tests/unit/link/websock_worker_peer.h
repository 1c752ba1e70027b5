// websock_worker_peer: a worker between two queues and a RawService, stepped by the test.
#ifndef TESTS_WEBSOCK_WORKER_PEER_H
#define TESTS_WEBSOCK_WORKER_PEER_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "raw_service.h"
#include "websock_worker.h"

constexpr std::chrono::seconds patience{20};  // for what ought to happen at once

class websock_worker_peer {
  public:
    explicit websock_worker_peer(ws_instance_id instance = WS_INSTANCE_RRM, std::size_t initial = 1,
                                 std::size_t maximum = 1, const std::string& path = "/agent")
        : worker_(from_ipc, to_ipc, "127.0.0.1", path, service.port(), run, initial, maximum,
                  instance) {}

    // --- steps ---
    // Waits, then connects; the wait is none with the delays that this peer is made with.
    bool attempt() { return worker_.__connect(); }
    // Connects without the back-off before it.
    bool connect() { return worker_._connect(); }
    void disconnect() { worker_.__disconnect(); }
    void delay_loop() { worker_.delay_loop(); }
    int connect_delay() { return worker_.get_connect_delay(); }
    bool process_internal(const std::string& text) {
        buffer_info_t buffer;
        buffer.append(text.data(), static_cast<unsigned>(text.size()));
        return worker_.process_internal_message(buffer);
    }
    int receive(const void* in, std::size_t len) {
        return worker_.process_client_receive(worker_.link, in, len);
    }
    int callback(lws_callback_reasons reason) {
        return worker_.worker_lws_callback(worker_.link, reason, nullptr, nullptr, 0);
    }

    // Lets both sides work until `done`; false when that takes too long.
    bool until(const std::function<bool()>& done) {
        const auto deadline = std::chrono::steady_clock::now() + patience;
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            step();
        }
        return true;
    }
    bool execute() { return worker_.execute(); }
    void step() {
        service.pump();
        worker_.execute();
        service.pump();
    }

    // A link that the partner has been told about.
    bool establish() {
        return connect() && until([this] { return established() && service.open(); });
    }

    void enqueue(const std::string& text) {
        const auto message = std::make_shared<buffer_info_t>();
        message->append(text.data(), static_cast<unsigned>(text.size()));
        from_ipc.enqueue(message);
    }

    // Everything that has come for the partner since the last call.
    std::vector<std::string> received() {
        std::vector<std::string> texts;
        while (to_ipc.dequeue(
            [&](const buffer_info_ptr& message) { texts.emplace_back(message->text()); })) {
        }
        return texts;
    }
    // The same as soon as there are `count`.
    std::vector<std::string> wait_received(std::size_t count) {
        std::vector<std::string> texts;
        until([&] {
            for (std::string& text : received())
                texts.push_back(std::move(text));
            return texts.size() >= count;
        });
        return texts;
    }

    // --- state ---
    [[nodiscard]] bool established() const { return worker_.lws_conn_established; }
    [[nodiscard]] bool usable() { return worker_.condition(run); }
    [[nodiscard]] bool has_context() {
        const mutex_guard lock(worker_.ctx_mutex);
        return worker_.ws_context != nullptr;
    }
    [[nodiscard]] std::string name() const { return worker_.worker_name; }
    [[nodiscard]] bool has_converter() const { return worker_.logger_callback != nullptr; }
    [[nodiscard]] int unanswered_pings() const { return worker_.ping_noanswer; }
    void set_unanswered_pings(int count) { worker_.ping_noanswer = count; }
    // Whether the worker's event had been raised; it no longer is then.
    bool take_event() { return worker_.process_eventfd(0) > 0; }
    [[nodiscard]] const void* worker() const { return &worker_; }
    [[nodiscard]] bool can_run() const { return worker_.can_run; }
    void set_can_run() { worker_.can_run = true; }
    [[nodiscard]] std::size_t back_off() const { return worker_.connection_delay; }

    RawService service;
    safe_queue from_ipc;
    safe_queue to_ipc;
    volatile bool run = true;

  private:
    websock_worker worker_;
};

inline const std::string connected_text =
    R"({"version":"2.4","service":"internal-ipc","cmd":"connected"})";
inline const std::string disconnected_text =
    R"({"version":"2.4","service":"internal-ipc","cmd":"disconnected"})";

#endif
