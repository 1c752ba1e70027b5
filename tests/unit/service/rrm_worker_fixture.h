// RrmWorkerTest: an RRM worker on the test's own thread, driven pass by pass, between a service, a
// message bus and an access point that the test plays.
#ifndef TESTS_RRM_WORKER_FIXTURE_H
#define TESTS_RRM_WORKER_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kernel.h"
#include "log_capture.h"
#include "mock_driver.h"
#include "rrm_worker.h"
#include "safe_queue.h"
#include "temporary_folder.h"
#include "test_bus.h"
#include "test_clock.h"

// State of a worker that no message shows: what is overwritten before it is used, and the tables of
// the load balancer that there is not yet.
class rrm_worker_peer {
  public:
    explicit rrm_worker_peer(rrm_worker& worker) : w(worker) {}

    [[nodiscard]] int rrm_response_timeout() const { return w.rrm_response_timeout; }
    [[nodiscard]] bool disable_vexor_rrm_scanning() const { return w.disable_vexor_rrm_scanning; }
    [[nodiscard]] unsigned scan_count() const { return w.scan_count; }
    [[nodiscard]] environment_t& environment() const { return w.environment; }
    [[nodiscard]] sta_environment_t& sta_environment() const { return w.sta_environment; }
    [[nodiscard]] sta_block_t& sta_block() const { return w.sta_block; }
    [[nodiscard]] bool& blacklist_enabled() const { return w.blacklist_enabled; }
    [[nodiscard]] bool& no_balance_enterprise() const { return w.no_balance_enterprise; }
    [[nodiscard]] int fbt_reassoc_deadline() const { return w.fbt_reassoc_deadline; }
    [[nodiscard]] bool fbt_over_ds() const { return w.fbt_over_ds; }

    void rrm_probe_response_timeout() { w.rrm_probe_response_timeout(); }
    void rrm_blacklist_timeout() { w.rrm_blacklist_timeout(); }

  private:
    rrm_worker& w;
};

class RrmWorkerTest : public testing::Test {
  protected:
    // hostapd is up, the configuration store answers, and the link to the service is down.
    RrmWorkerTest() {
        for (const char* name : {"/tmp", "/var/run"})
            std::filesystem::create_directories(root + name);
        lab::set_root(root);
        touch(hostapd_pid);
        start_worker();
    }
    ~RrmWorkerTest() override {
        worker.reset();
        lab::set_root("");
    }

    static constexpr const char* hostapd_pid = "/var/run/hostapd.pid";
    static constexpr const char* guardd_pid = "/var/run/guardd.pid";
    static constexpr const char* notify = "/tmp/.orvanta_notify";
    static constexpr const char* notify_hostapd_started = "/tmp/.orvanta_notify_hostapd_started";
    static constexpr const char* notify_guardd_started = "/tmp/.orvanta_notify_guardd_started";
    static constexpr const char* notify_config_updated = "/tmp/.orvanta_notify_config_updated";
    static constexpr const char* notify_timezone = "/tmp/.orvanta_notify_timezone_changed";
    static constexpr const char* connected_flag = "/tmp/.orvanta-connected";

    // A new worker in place of the present one.
    void start_worker(const std::string& location = "site-1") {
        worker.reset();
        worker = std::make_unique<rrm_worker>(driver, from_websocket, to_websocket, from_ipc,
                                              to_ipc, run_flag, location);
    }
    rrm_worker_peer peer() { return rrm_worker_peer{*worker}; }

    // What the worker sends when hostapd starts: "subscribe-request" while it asks for the
    // subscription, "rrm-config-changed" once it has it, otherwise nothing. Not kept as a report.
    std::string answer_to_hostapds_start() {
        const std::size_t before = reports().size();
        announce(notify_hostapd_started);
        pass();
        const std::string cmd =
            reports().size() > before ? test_bus::member(sent.back(), "cmd").value_or("") : "";
        sent.resize(before);
        return cmd;
    }
    // Whether the worker has the subscription. Starts nothing anew.
    bool is_subscribed() {
        const std::size_t before = reports().size();
        announce(notify_config_updated);
        pass();
        const bool reported = reports().size() > before;
        sent.resize(before);
        return reported;
    }
    // Whether clients are steered; the worker is subscribed.
    bool is_steering() {
        const std::size_t before = reports().size();
        bus_sends(trap_event("auth"));
        const bool reported = reports().size() > before;
        sent.resize(before);
        return reported;
    }
    // Whether fast-transition parameters are taken.
    bool takes_fast_transition() {
        const int before = driver.fbt_starts;
        service_commands("fbt-info");
        return driver.fbt_starts > before;
    }
    void switch_steering(bool on) {
        service_commands("rrm-info", on ? R"("use-80211v":1)" : R"("use-80211v":0)");
    }
    // The access point's domain as the reports tell it.
    std::string domain() {
        const std::size_t before = reports().size();
        service_commands("rrm-request-mode");
        const std::string text = test_bus::member(last_report(), "domain").value_or("(none)");
        sent.resize(before);
        return text;
    }

    // One turn of the worker's loop; what its condition said.
    bool pass() {
        if (!worker->condition(run_flag))
            return false;
        return worker->execute();
    }
    // Moves the monotonic clock and lets due timers fire.
    void advance(int seconds) {
        clock.advance(seconds);
        worker->execute();
    }

    // A message that waits for the worker's next pass.
    static void put(safe_queue& queue, const std::string& text) {
        const auto buffer = std::make_shared<buffer_info_t>();
        buffer->append(text.data(), static_cast<unsigned>(text.size()));
        queue.enqueue(buffer);
    }
    // Put a message into the worker's queue and let it run one pass.
    void service_sends(const std::string& text) { deliver(from_websocket, text); }
    void bus_sends(const std::string& text) { deliver(from_ipc, text); }
    // A service message in its envelope; `fields` as in R"("code":503,"status":"error")".
    void service_commands(const std::string& cmd, const std::string& fields = "") {
        service_sends(command(cmd, fields));
    }
    static std::string command(const std::string& cmd, const std::string& fields = "") {
        return R"({"version":"2.4","service":"rrm","cmd":")" + cmd + '"' +
               (fields.empty() ? "" : "," + fields) + "}";
    }
    // A client's event as hostapd tells it over the bus.
    static std::string trap_event(const std::string& type) {
        return R"({"command":"wifi-client-trap","event":{"type":")" + type + R"("}})";
    }
    void link(const std::string& state) {
        service_sends(R"({"version":"2.4","service":"internal-ipc","cmd":")" + state + R"("})");
    }
    // The link comes up and the service accepts the access point; earlier reports are forgotten.
    void subscribe(const std::string& config = "") {
        link("connected");
        service_commands(
            "subscribe-response",
            R"("status":"success")" + (config.empty() ? std::string{} : R"(,"config":)" + config));
        forget_reports();
    }

    // With IEEE 802.11v steering on.
    void subscribe_steering() { subscribe(R"({"use-80211v":1})"); }
    void answer_503() { service_commands("subscribe-response", R"("status":"busy","code":503)"); }

    // A generic survey of five passes that is in its first one.
    void begin_survey() {
        service_commands("rrm-update", R"("rrm-scan-channels":"1 6 11")");
        ASSERT_TRUE(driver.in_progress);
        forget_reports();
    }
    void send_event(driver_event event, int radio = 0) {
        rrm_sta_s sta;
        sta.mac = "aa:bb:cc:00:00:01";
        driver.events.push_back({event, radio, sta});
        worker->execute();
    }

    // All messages for the websocket worker since the last forget_reports(), as texts.
    const std::vector<std::string>& reports() {
        while (to_websocket.dequeue(
            [this](const buffer_info_ptr& b) { sent.emplace_back(b->text()); }))
            ;
        return sent;
    }
    // Empty when there is none.
    std::string last_report() { return reports().empty() ? std::string{} : sent.back(); }
    // Those with that "cmd".
    std::vector<std::string> reports_of(const std::string& cmd) {
        std::vector<std::string> result;
        for (const std::string& text : reports()) {
            if (test_bus::member(text, "cmd") == cmd)
                result.push_back(text);
        }
        return result;
    }
    std::size_t subscribe_requests() { return reports_of("subscribe-request").size(); }
    void forget_reports() {
        reports();
        sent.clear();
    }

    // A sibling's announcement: the specific file, then the general one.
    void announce(const char* specific) {
        touch(specific);
        touch(notify);
    }
    // Files as the worker sees them.
    void touch(const std::string& path) { std::ofstream{root + path}; }
    bool exists(const std::string& path) { return std::filesystem::exists(root + path); }
    void remove(const std::string& path) { std::filesystem::remove(root + path); }

    TestBus bus;
    FakeVaultd vaultd{bus};
    TestClock clock;
    LogCapture log;
    const TemporaryFolder folder;
    const std::string root = folder.path();
    volatile bool run_flag = true;
    testing::NiceMock<MockDriver> driver{&run_flag};
    safe_queue from_websocket;
    safe_queue to_websocket;
    safe_queue from_ipc;
    safe_queue to_ipc;
    std::unique_ptr<rrm_worker> worker;

  private:
    void deliver(safe_queue& queue, const std::string& text) {
        put(queue, text);
        worker->execute();
    }

    std::vector<std::string> sent;
};

#endif
