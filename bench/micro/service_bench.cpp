// The RRM worker's way from one message to the next, over a driver without radios behind it, beside
// what json-c alone takes for the same text.
#include <benchmark/benchmark.h>
#include <json-c/json.h>

#include <array>
#include <cstdio>
#include <memory>
#include <string>

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

void serialise(benchmark::State& state, const std::string& text) {
    const json_ptr tree(json_tokener_parse(text.c_str()));
    for (auto _ : state)
        benchmark::DoNotOptimize(
            json_object_to_json_string_ext(tree.get(), JSON_C_TO_STRING_PLAIN));
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

void serialise_subscribe_request(benchmark::State& state) {
    Worker worker;
    worker.fill_radios(7, 256);
    serialise(state, subscribe_request(worker));
}
BENCHMARK(serialise_subscribe_request)->Name("subscribe_request_json_c");

// --- "fbt-info" of 5 MiB ---

std::string large_fbt_info() {
    constexpr std::size_t bytes = 5 * 1024 * 1024;
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

// --- survey: 4680 neighbours, from the driver's table to the report's text ---

std::string survey_report(Worker& worker) {
    worker.forget_reports();
    worker.service_commands("rrm-update", R"("vexor-rrm-scanning":1,"rrm-scan-channels":"1 6 36")");
    worker.advance(worker.driver.scan_duration);
    return worker.last_report();
}

void fill_neighbours(Worker& worker) {
    constexpr int entries = 4680;
    worker.subscribe();
    auto& table = worker.driver.radios[0].neighbours;
    for (int i = 0; i < entries; i++) {
        ap_info info{};
        info.bssid = {0x00,
                      0x0a,
                      0xbc,
                      0x00,
                      static_cast<std::uint8_t>(i / 256),
                      static_cast<std::uint8_t>(i)};
        info.signal = -61;
        info.channel = 40;
        info.bw = 80;
        info.tx_power = 17;
        table.push_back(info);
    }
}

void report_survey(benchmark::State& state) {
    Worker worker;
    fill_neighbours(worker);
    for (auto _ : state)
        benchmark::DoNotOptimize(survey_report(worker).size());
    state.counters["bytes"] = static_cast<double>(survey_report(worker).size());
}
BENCHMARK(report_survey)->Name("scan_4680_entries");

void serialise_survey(benchmark::State& state) {
    Worker worker;
    fill_neighbours(worker);
    serialise(state, survey_report(worker));
}
BENCHMARK(serialise_survey)->Name("scan_4680_entries_json_c");

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
