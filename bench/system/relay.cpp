// bench_relay: how much and how fast a relay carries between a local side and a websocket.
//
//   bench_relay lumd SOCKET      prints the port it listens on, then waits for lumd (portal mode)
//   bench_relay direct SOCKET    the same, with its module where lumd expects the broker
//   bench_relay mqtt PORT WSPORT an MQTT broker with a plain and a websocket listener
//   bench_relay bare             prints the port, then waits for bench_bare_client
//
// Prints one line "NAME VALUE" per figure: messages per second and microseconds. With a further
// word, "threads", it tells instead what a message costs the two ends, and when others are to
// look at what it costs them: before each load it prints "begin NAME", behind it "end NAME MESSAGES
// NANOSECONDS WAKEUPS" of its own processor time, and each time it waits for a line on its standard
// input.

#include <sys/resource.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <iostream>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "delays.h"
#include "peers.h"

namespace {

constexpr int local_module = 3;  // whom lumd's portal mode talks to
constexpr int agent_module = 2;
constexpr std::ptrdiff_t most_in_flight = 64;
constexpr std::chrono::milliseconds sending_time{700};
constexpr std::size_t end_bytes = 64;  // of the message that says that no more come

struct Load {
    const char* name;
    std::size_t bytes;
    std::ptrdiff_t in_flight;
};
constexpr std::array<Load, 2> loads = {{{"1K", 1024, most_in_flight}, {"64K", 65536, 4}}};

void report(const std::string& name, double value) {
    std::printf("%s %.1f\n", name.c_str(), value);
    std::fflush(stdout);
}

double rate(std::size_t messages, Clock::time_point start, Clock::time_point end = Clock::now()) {
    const std::chrono::duration<double> taken = end - start;
    return static_cast<double>(messages) / taken.count();
}

struct Carried {
    std::size_t messages;
    double a_second;
};

// One direction, with a bounded number on their way.
Carried carry(Peer& from, Peer& to, const Load& load) {
    std::counting_semaphore<most_in_flight> room{load.in_flight};
    const auto start = Clock::now();
    std::thread sender([&] {
        const std::string message = make_message(load.bytes);
        while (Clock::now() - start < sending_time) {
            room.acquire();
            from.send(message);
        }
        from.send(make_message(end_bytes));
    });
    std::size_t received = 0;
    while (to.receive().size() == load.bytes) {
        received++;
        room.release();
    }
    const double result = rate(received, start);
    sender.join();
    return {received, result};
}

void measure_throughput(Peer& local, Peer& service) {
    for (const Load& load : loads) {
        const std::string name = load.name;
        report("up_" + name, carry(local, service, load).a_second);
        report("down_" + name, carry(service, local, load).a_second);
        Carried up{};
        std::thread other([&] { up = carry(local, service, load); });
        const Carried down = carry(service, local, load);
        other.join();
        report("both_up_" + name, up.a_second);
        report("both_down_" + name, down.a_second);
    }
}

void send_periodically(const std::function<void(const std::string&)>& send) {
    const auto start = Clock::now();
    for (std::size_t i = 0; i < delay_messages; i++) {
        std::this_thread::sleep_until(start + i * delay_period);
        send(make_message(delay_message_bytes));
    }
}

Percentiles delays(Peer& from, Peer& to) {
    std::vector<double> values;
    std::thread sender(
        [&] { send_periodically([&](const std::string& message) { from.send(message); }); });
    while (values.size() < delay_messages)
        values.push_back(delay_of(to.receive()));
    sender.join();
    return percentiles(values);
}

void report_delays(const std::string& name, const Percentiles& values) {
    report(name + "_p50", values.p50);
    report(name + "_p99", values.p99);
}

void measure_latency(Peer& local, Peer& service) {
    Percentiles up{};
    std::thread other([&] { up = delays(local, service); });
    const Percentiles down = delays(service, local);
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
    const std::string message = make_message(end_bytes);
    service.send(message);
    while (local.receive() != message)
        continue;
    local.send(message);
    static_cast<void>(service.receive());
}

// Of this process so far.
struct Spent {
    long long nanoseconds;
    long wakeups;
};

Spent spent() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return {time.tv_sec * 1'000'000'000LL + time.tv_nsec, usage.ru_nvcsw};
}

void let_others_look() {
    std::fflush(stdout);
    std::string line;
    if (!std::getline(std::cin, line))
        fail("nobody looks");
}

void measure_costs(const std::string& name, const std::function<std::size_t()>& carry_all) {
    std::printf("begin %s\n", name.c_str());
    let_others_look();
    const Spent before = spent();
    const std::size_t messages = carry_all();
    const Spent after = spent();
    std::printf("end %s %zu %lld %ld\n", name.c_str(), messages,
                after.nanoseconds - before.nanoseconds, after.wakeups - before.wakeups);
    let_others_look();
}

void measure_threads(Peer& local, Peer& service) {
    for (const Load& load : loads) {
        const std::string name = load.name;
        measure_costs("up_" + name, [&] { return carry(local, service, load).messages; });
        measure_costs("down_" + name, [&] { return carry(service, local, load).messages; });
    }
}

void measure(Peer& local, Peer& service, bool threads) {
    warm_up(local, service);
    if (threads) {
        measure_threads(local, service);
        return;
    }
    measure_latency(local, service);
    measure_throughput(local, service);
}

void measure_lumd(const std::string& socket_path, bool threads) {
    const auto local = make_bus_module(socket_path, local_module, agent_module);
    const auto service = make_service(listen_and_tell());
    measure(*local, *service, threads);
}

// The broker's place is here.
void measure_direct(const std::string& socket_path, bool threads) {
    const int bus = Stream::listen_unix(socket_path);
    const int listener = listen_and_tell();
    const auto local = make_bus_neighbour(bus, local_module, agent_module);
    const auto service = make_service(listener);
    measure(*local, *service, threads);
}

void measure_mqtt(int port, int websocket_port, bool threads) {
    const auto local = make_mqtt_on_tcp(port);
    const auto service = make_mqtt_on_websocket(websocket_port);
    measure(*local, *service, threads);
}

// The bare client does what it is ordered in binary messages and discards all others; a pong says
// that it has read all.
class BareClient {
  public:
    BareClient() : stream_(Stream::accept_tcp(listen_and_tell())) {
        Websocket::accept_handshake(stream_);
    }

    double send(const Load& load) {
        const auto start = Clock::now();
        order_messages(load);
        std::size_t received = 0;
        while (link_.read().size() == load.bytes)
            received++;
        return rate(received, start);
    }

    double discard(const Load& load) {
        const auto start = Clock::now();
        const std::size_t sent = push(load, start);
        while (link_.read() != all)
            continue;
        return rate(sent, start);
    }

    void both(const Load& load) {
        const auto start = Clock::now();
        std::size_t sent = 0;
        order_messages(load);
        std::thread other([&] { sent = push(load, start); });
        std::size_t received = 0;
        double up = 0;
        Clock::time_point all_read{};
        while (up == 0 || all_read == Clock::time_point{}) {
            const std::string_view message = link_.read();
            if (message == all)
                all_read = Clock::now();
            else if (message.size() == load.bytes)
                received++;
            else
                up = rate(received, start, Clock::now());
        }
        other.join();
        const std::string name = load.name;
        report("both_up_" + name, up);
        report("both_down_" + name, rate(sent, start, all_read));
    }

    void measure_latency() {
        link_.write(Websocket::BINARY, "delays");
        std::thread sender([&] {
            send_periodically([&](const std::string& m) { link_.write(Websocket::TEXT, m); });
        });
        std::vector<double> values;
        std::string answer;
        while (values.size() < delay_messages || answer.empty()) {
            const std::string_view message = link_.read();
            if (message.size() == delay_message_bytes)
                values.push_back(delay_of(message));
            else
                answer = message;
        }
        sender.join();
        Percentiles down{};
        std::sscanf(answer.c_str(), "%lf %lf", &down.p50, &down.p99);
        report_delays("up", percentiles(values));
        report_delays("down", down);
    }

  private:
    static constexpr const char* all = "all";

    void order_messages(const Load& load) {
        link_.write(Websocket::BINARY, "send " + std::to_string(load.bytes) + " " +
                                           std::to_string(sending_time.count()));
    }

    std::size_t push(const Load& load, Clock::time_point start) {
        const std::string message = make_message(load.bytes);
        std::size_t sent = 0;
        for (; Clock::now() - start < sending_time; sent++)
            link_.write(Websocket::TEXT, message);
        link_.write(Websocket::PING, all);
        return sent;
    }

    Stream stream_;
    Websocket link_{stream_, false};
};

void measure_bare() {
    BareClient client;
    client.measure_latency();
    for (const Load& load : loads) {
        const std::string name = load.name;
        report("up_" + name, client.send(load));
        report("down_" + name, client.discard(load));
        client.both(load);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const bool threads = argc > 1 && std::string(argv[argc - 1]) == "threads";
    const int count = threads ? argc - 1 : argc;
    const std::string kind = count > 1 ? argv[1] : "";
    if (kind == "lumd" && count == 3)
        measure_lumd(argv[2], threads);
    else if (kind == "direct" && count == 3)
        measure_direct(argv[2], threads);
    else if (kind == "mqtt" && count == 4)
        measure_mqtt(std::atoi(argv[2]), std::atoi(argv[3]), threads);
    else if (kind == "bare" && count == 2 && !threads)
        measure_bare();
    else
        fail("usage: bench_relay lumd|direct SOCKET [threads] | mqtt PORT WSPORT [threads] | bare");
    return EXIT_SUCCESS;
}
