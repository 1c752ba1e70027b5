// The RRM worker's way from one message to the next, over a driver without radios behind it, beside
// what json-c alone takes for the same text.
#include <benchmark/benchmark.h>
#include <json-c/json.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "platform-specific/driver_realtek.h"
#include "platform-specific/ioctl_ops_factory.h"
#include "platform-specific/vexor_command.h"
#include "rrm_worker_fixture.h"

namespace {

struct put_object {
    void operator()(json_object* object) const { json_object_put(object); }
};
using json_ptr = std::unique_ptr<json_object, put_object>;

std::string mac_text(int number) {
    std::array<char, 32> text;
    std::snprintf(text.data(), text.size(), "00:0a:bc:00:%02x:%02x", (number >> 8) & 0xFF,
                  number & 0xFF);
    return text.data();
}

// The unit tests' access point, driven from here.
class Worker : public RrmWorkerTest {
  public:
    Worker() { trace.set_log_level(0); }

    using RrmWorkerTest::advance;
    using RrmWorkerTest::driver;
    using RrmWorkerTest::forget_reports;
    using RrmWorkerTest::last_report;
    using RrmWorkerTest::link;
    using RrmWorkerTest::reports;
    using RrmWorkerTest::service_commands;
    using RrmWorkerTest::service_sends;
    using RrmWorkerTest::subscribe;

    void fill_radios(int vaps, int clients_each) {
        for (int radio = 0; radio < 2; radio++) {
            auto& list = driver.radios[static_cast<std::size_t>(radio)].vaps;
            while (static_cast<int>(list.size()) < vaps) {
                list.push_back(list.back());
                list.back().ifname =
                    "wlan" + std::to_string(radio) + "-va" + std::to_string(list.size() - 1);
            }
            for (int i = 0; i < clients_each; i++)
                driver.add_station(radio, i % vaps, mac_text(radio * clients_each + i),
                                   -90 + i % 50);
        }
    }

  private:
    void TestBody() override {}
};

// The same tree made anew.
json_object* rebuild(json_object* tree) {
    switch (json_object_get_type(tree)) {
        case json_type_object: {
            json_object* const copy = json_object_new_object();
            json_object_object_foreach(tree, key, value)
                json_object_object_add(copy, key, rebuild(value));
            return copy;
        }
        case json_type_array: {
            json_object* const copy = json_object_new_array();
            for (std::size_t i = 0; i < json_object_array_length(tree); i++)
                json_object_array_add(copy, rebuild(json_object_array_get_idx(tree, i)));
            return copy;
        }
        case json_type_int:
            return json_object_new_int(json_object_get_int(tree));
        default:
            return json_object_new_string_len(json_object_get_string(tree),
                                              json_object_get_string_len(tree));
    }
}

// What json-c takes to build a text's tree and to serialise it.
void build_and_serialise(benchmark::State& state, const std::string& text) {
    const json_ptr tree(json_tokener_parse(text.c_str()));
    for (auto _ : state) {
        const json_ptr built(rebuild(tree.get()));
        benchmark::DoNotOptimize(
            json_object_to_json_string_ext(built.get(), JSON_C_TO_STRING_PLAIN));
    }
    state.counters["bytes"] = static_cast<double>(text.size());
}

void parse(benchmark::State& state, const std::string& text) {
    for (auto _ : state)
        benchmark::DoNotOptimize(json_ptr(json_tokener_parse(text.c_str())).get());
    state.counters["bytes"] = static_cast<double>(text.size());
}

// --- subscribe request: 2 x 7 VAPs, 512 clients ---

std::string subscribe_request(Worker& worker) {
    worker.link("disconnected");
    worker.forget_reports();
    worker.link("connected");
    return worker.last_report();
}

void build_subscribe_request(benchmark::State& state) {
    Worker worker;
    worker.fill_radios(7, 256);
    for (auto _ : state)
        benchmark::DoNotOptimize(subscribe_request(worker).size());
    state.counters["bytes"] = static_cast<double>(subscribe_request(worker).size());
}
BENCHMARK(build_subscribe_request)->Name("subscribe_request");

void json_c_subscribe_request(benchmark::State& state) {
    Worker worker;
    worker.fill_radios(7, 256);
    build_and_serialise(state, subscribe_request(worker));
}
BENCHMARK(json_c_subscribe_request)->Name("subscribe_request_json_c");

// --- "fbt-info" of 5 MiB ---

std::string large_fbt_info() {
    constexpr std::size_t bytes = std::size_t{5} * 1024 * 1024;
    constexpr int vaps = 40;
    std::string text = R"({"version":"2.4","service":"rrm","cmd":"fbt-info",)"
                       R"("fbt-reassoc-deadline":2000,"fbt-over-ds":1,"vaps":[)";
    for (int vap = 0; vap < vaps; vap++) {
        text += (vap == 0 ? "" : ",");
        text += R"({"vap_id":1,"radio_id":)" + std::to_string(vap % 2) +
                R"(,"mobility-domain":4660,"r0-key-holder-id":"r0.ap",)"
                R"("r1-key-holder-id":"001122334455","fbt-rrb-key":"0011","remotes":[)";
        const std::size_t end = bytes / vaps * static_cast<std::size_t>(vap + 1);
        for (int i = 0; text.size() < end; i++)
            text += std::string(i == 0 ? "" : ",") + R"({"mac":")" + mac_text(i) +
                    R"(","r0-key-holder-id":"r0.other","r1-key-holder-id":"00aabbccddee",)"
                    R"("fbt-rrb-key":"00112233445566778899aabbccddeeff"})";
        text += "]}";
    }
    return text + "]}";
}

void apply_fbt_info(benchmark::State& state) {
    Worker worker;
    worker.subscribe(R"({"use-80211r":1})");
    const std::string text = large_fbt_info();
    for (auto _ : state) {
        worker.driver.fbt_params.clear();
        worker.service_sends(text);
    }
    state.counters["vaps"] = static_cast<double>(worker.driver.fbt_params.size());
}
BENCHMARK(apply_fbt_info)->Name("fbt_info_5_MiB");

void parse_fbt_info(benchmark::State& state) {
    parse(state, large_fbt_info());
}
BENCHMARK(parse_fbt_info)->Name("fbt_info_5_MiB_json_c");

// --- survey: 4680 neighbours, from the vendor's answer to the report's text ---

constexpr int entries = 4680;

// A radio driver that answers every request with the same record.
class AnsweringKernel : public lab::Kernel {
  public:
    AnsweringKernel() : answer_(vexor_buffer_size, '\0') {
        vexor_command head{};
        head.cmd = VEXOR_CMD_RRM_SCAN_RESULTS;
        head.scan_result.size = entries;
        std::memcpy(answer_.data(), &head, sizeof head);
        for (int i = 0; i < entries; i++)
            put(i);
        lab::install(this);
    }
    ~AnsweringKernel() override { lab::install(nullptr); }

    int ioctl(unsigned long, const std::string&, void* data, std::uint16_t&) override {
        std::memcpy(data, answer_.data(), answer_.size());
        return 0;
    }
    void written(const std::string&, const std::string&) override {}

  private:
    void put(int number) {
        ap_info_s entry{};
        entry.bssid[4] = static_cast<std::uint8_t>(number / 256);
        entry.bssid[5] = static_cast<std::uint8_t>(number);
        entry.signal = -61;
        entry.tx_power = 68;
        entry.chanspec = 0xD028;  // channel 40 at 5 GHz, 20 MHz
        std::memcpy(answer_.data() + scan_result_s::aps::offset +
                        static_cast<std::size_t>(number) * sizeof entry,
                    &entry, sizeof entry);
    }

    std::string answer_;
};

class Survey {
  public:
    Survey() { worker_.subscribe(); }

    std::string report() {
        ap_table& table = worker_.driver.radios[0].neighbours;
        table.clear();
        ops_->get_rrm_scan_result(table);
        worker_.forget_reports();
        worker_.service_commands("rrm-update",
                                 R"("vexor-rrm-scanning":1,"rrm-scan-channels":"1 6 36")");
        worker_.advance(worker_.driver.scan_duration);
        return worker_.last_report();
    }

  private:
    Worker worker_;
    TestBus bus_;
    AnsweringKernel kernel_;
    volatile bool run_ = true;
    driver_realtek driver_{run_};
    const std::unique_ptr<ioctl_ops> ops_ = ioctl_ops_factory::get(RTL8192CD, driver_, "wlan0");
};

void report_survey(benchmark::State& state) {
    Survey survey;
    for (auto _ : state)
        benchmark::DoNotOptimize(survey.report().size());
    state.counters["bytes"] = static_cast<double>(survey.report().size());
}
// A fixed number, for the clock that the survey waits for is moved.
BENCHMARK(report_survey)->Name("scan_4680_entries")->Iterations(20);

void json_c_survey(benchmark::State& state) {
    Survey survey;
    build_and_serialise(state, survey.report());
}
BENCHMARK(json_c_survey)->Name("scan_4680_entries_json_c")->Iterations(20);

// --- overload command over 512 clients ---

void overload(benchmark::State& state) {
    Worker worker;
    worker.fill_radios(2, 512);
    worker.subscribe(R"({"use-80211v":1})");
    for (auto _ : state) {
        worker.driver.transition_requests.clear();
        worker.service_commands(
            "rrm-sta-overload",
            R"("ap-mac":"00:11:22:33:44:50","radios":[{"id":0,"roam-count":8}])");
    }
    state.counters["steered"] = static_cast<double>(worker.driver.transition_requests.size());
}
BENCHMARK(overload)->Name("overload_512_clients");

}  // namespace
