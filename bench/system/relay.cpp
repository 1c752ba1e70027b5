// bench_relay: how much and how fast a relay carries between a local side and a websocket.
//
//   bench_relay lumd SOCKET      prints the port it listens on, then waits for lumd (portal mode)
//   bench_relay mqtt PORT WSPORT an MQTT broker with a plain and a websocket listener
//   bench_relay bare             prints the port, then waits for bench_bare_client
//
// Prints one line "NAME VALUE" per figure: messages per second and microseconds.

#include <algorithm>
#include <array>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <semaphore>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "peers.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int local_module = 3;  // whom lumd's portal mode talks to
constexpr int agent_module = 2;
constexpr std::ptrdiff_t most_in_flight = 64;
constexpr int rounds = 3;  // the best one counts: others use the machine too
constexpr std::size_t latency_messages = 3000;
constexpr std::chrono::microseconds latency_period{1000};

struct Load {
    const char* name;
    std::size_t bytes;
    std::size_t messages;
    std::ptrdiff_t in_flight;
};
constexpr std::array<Load, 2> loads = {
    {{"1K", 1024, 20000, most_in_flight}, {"64K", 65536, 1000, 4}}};

// A JSON object of exactly `bytes` bytes; lumd looks into what it sends to the service.
std::string make_message(std::size_t bytes, std::size_t number) {
    std::array<char, 64> head;
    std::snprintf(head.data(), head.size(), "{\"number\":%010zu,\"pad\":\"", number);
    std::string text = head.data();
    text.append(bytes - text.size() - 2, 'x');
    return text + "\"}";
}

std::size_t number_of(std::string_view message) {
    return std::strtoull(std::string(message.substr(10, 10)).c_str(), nullptr, 10);
}

void report(const std::string& name, double value) {
    std::printf("%s %.1f\n", name.c_str(), value);
    std::fflush(stdout);
}

// One direction of a relay, with a bounded number of messages on their way.
void carry(Peer& from, Peer& to, const Load& load) {
    std::counting_semaphore<most_in_flight> room{load.in_flight};
    std::thread sender([&] {
        const std::string message = make_message(load.bytes, 0);
        for (std::size_t i = 0; i < load.messages; i++) {
            room.acquire();
            from.send(message);
        }
    });
    for (std::size_t i = 0; i < load.messages; i++) {
        if (to.receive().size() != load.bytes)
            fail("a message of another length has come");
        room.release();
    }
    sender.join();
}

double best_rate(const Load& load, const std::function<void()>& run) {
    double best = 0;
    for (int round = 0; round < rounds; round++) {
        const auto start = Clock::now();
        run();
        const std::chrono::duration<double> taken = Clock::now() - start;
        best = std::max(best, static_cast<double>(load.messages) / taken.count());
    }
    return best;
}

void measure_throughput(Peer& local, Peer& service, std::span<const Load> some) {
    for (const Load& load : some) {
        const std::string name = load.name;
        report("up_" + name, best_rate(load, [&] { carry(local, service, load); }));
        report("down_" + name, best_rate(load, [&] { carry(service, local, load); }));
        report("both_" + name, best_rate(load, [&] {
                   std::thread other([&] { carry(local, service, load); });
                   carry(service, local, load);
                   other.join();
               }));
    }
}

// Microseconds from send to receipt, one message a period, ascending.
std::vector<double> delays(Peer& from, Peer& to) {
    std::vector<Clock::time_point> sent(latency_messages);
    std::vector<double> result(latency_messages);
    std::thread sender([&] {
        const auto start = Clock::now();
        for (std::size_t i = 0; i < latency_messages; i++) {
            std::this_thread::sleep_until(start + i * latency_period);
            const std::string message = make_message(256, i);
            sent[i] = Clock::now();
            from.send(message);
        }
    });
    for (std::size_t i = 0; i < latency_messages; i++) {
        const std::size_t number = number_of(to.receive());
        if (number != i)
            fail("a message is lost or out of order");
        result[i] = std::chrono::duration<double, std::micro>(Clock::now() - sent[i]).count();
    }
    sender.join();
    std::sort(result.begin(), result.end());
    return result;
}

void report_delays(const std::string& name, const std::vector<double>& sorted) {
    report(name + "_p50", sorted[sorted.size() / 2]);
    report(name + "_p99", sorted[sorted.size() * 99 / 100]);
}

void measure_latency(Peer& local, Peer& service) {
    std::vector<double> up;
    std::thread other([&] { up = delays(local, service); });
    const std::vector<double> down = delays(service, local);
    other.join();
    report_delays("up", up);
    report_delays("down", down);
}

int listen_and_tell() {
    int port = 0;
    const int listener = Stream::listen_tcp(port);
    std::printf("port %d\n", port);
    std::fflush(stdout);
    return listener;
}

// lumd tells its local side about the link first.
void warm_up(Peer& local, Peer& service) {
    const std::string message = make_message(64, 0);
    service.send(message);
    while (local.receive() != message)
        continue;
    local.send(message);
    static_cast<void>(service.receive());
}

void measure(Peer& local, Peer& service, std::span<const Load> some) {
    warm_up(local, service);
    measure_latency(local, service);
    measure_throughput(local, service, some);
}

void measure_lumd(const std::string& socket_path) {
    const auto local = make_bus_module(socket_path, local_module, agent_module);
    const auto service = make_service(listen_and_tell());
    measure(*local, *service, loads);
}

void measure_mqtt(int port, int websocket_port) {
    const auto local = make_mqtt_on_tcp(port);
    const auto service = make_mqtt_on_websocket(websocket_port);
    // Messages of 64 KiB stall between the broker's websocket listener and this client.
    measure(*local, *service, std::span(loads).first(1));
}

// The client sends as fast as it can messages of the size that the last message named, or
// discards what comes; a pong says that it has read all.
void measure_bare() {
    Stream stream(Stream::accept_tcp(listen_and_tell()));
    Websocket::accept_handshake(stream);
    Websocket link(stream, false);
    const auto discard = [&](const Load& load) {
        const std::string message = make_message(load.bytes, 0);
        for (std::size_t i = 0; i < load.messages; i++)
            link.write(Websocket::TEXT, message);
        link.write(Websocket::PING, "all");
        while (link.read() != "all")
            continue;
    };
    const auto order = [&](const Load& load) {
        link.write(Websocket::BINARY,
                   std::to_string(load.bytes) + " " + std::to_string(load.messages));
    };
    const auto take = [&](const Load& load) {
        for (std::size_t i = 0; i < load.messages; i++)
            static_cast<void>(link.read());
    };
    for (const Load& load : loads) {
        const std::string name = load.name;
        report("up_" + name, best_rate(load, [&] {
                   order(load);
                   take(load);
               }));
        report("down_" + name, best_rate(load, [&] { discard(load); }));
        report("both_" + name, best_rate(load, [&] {
                   order(load);
                   const std::string message = make_message(load.bytes, 0);
                   std::thread other([&] {
                       for (std::size_t i = 0; i < load.messages; i++)
                           link.write(Websocket::TEXT, message);
                       link.write(Websocket::PING, "all");
                   });
                   for (std::size_t left = load.messages + 1; left > 0; left--)
                       static_cast<void>(link.read());
                   other.join();
               }));
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string kind = argc > 1 ? argv[1] : "";
    if (kind == "lumd" && argc == 3)
        measure_lumd(argv[2]);
    else if (kind == "mqtt" && argc == 4)
        measure_mqtt(std::atoi(argv[2]), std::atoi(argv[3]));
    else if (kind == "bare" && argc == 2)
        measure_bare();
    else
        fail("usage: bench_relay lumd SOCKET | mqtt PORT WSPORT | bare");
    return EXIT_SUCCESS;
}
