// msgbusctl: sends one message on the local message bus, or shows all traffic.

#include <getopt.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

#include "connection.h"
#include "logsink.h"

using msgbus::Connection;
using msgbus::Message;

namespace {

constexpr int kExitUsage = 2;
constexpr int kDefaultAnswerSeconds = 20;
constexpr int kDeliverySeconds = 5;
constexpr int kMaxModule = MSGBUS_MONITOR - 1;
constexpr int kOwnModules = 50;  // this many at the end of the range, for short-lived tools

constexpr std::uint32_t kRequestSeq = 1;
constexpr std::uint32_t kBarrierSeq = 2;

constexpr const char* kUsage =
    "usage: msgbusctl [-s SOCKET] [-m MODULE] [-w] [-t SECONDS] send DESTINATION TEXT\n"
    "       msgbusctl [-s SOCKET] monitor\n"
    "       msgbusctl -h\n"
    "  -s SOCKET   the bus (default: $MSGBUS_SOCKET, or %s)\n"
    "  -m MODULE   send as this module (default: one from %d to %d)\n"
    "  -w          wait for the answer and print it\n"
    "  -t SECONDS  wait so long (default: %d); implies -w\n"
    "TEXT \"-\" is read from standard input.\n";

struct Options {
    std::string socket = msgbus::default_socket_path();
    int module = kMaxModule - static_cast<int>(getpid()) % kOwnModules;
    bool wait = false;
    int seconds = kDefaultAnswerSeconds;
};

void print_usage(std::FILE* out) {
    std::fprintf(out, kUsage, MSGBUS_DEFAULT_SOCKET, kMaxModule - kOwnModules + 1, kMaxModule,
                 kDefaultAnswerSeconds);
}

[[noreturn]] void fail(const std::string& what, int status = EXIT_FAILURE) {
    std::fprintf(stderr, "msgbusctl: %s\n", what.c_str());
    std::exit(status);
}

int number(std::string_view text, int maximum, const char* what) {
    int value = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || value < 0 || value > maximum)
        fail(std::string{what} + " '" + std::string{text} + "' is not a number from 0 to " +
                 std::to_string(maximum),
             kExitUsage);
    return value;
}

std::string read_input() {
    std::string text;
    std::array<char, 4096> piece;
    for (std::size_t count = 0; (count = std::fread(piece.data(), 1, piece.size(), stdin)) > 0;)
        text.append(piece.data(), count);
    return text;
}

void join(Connection& bus, const Options& options, int module, int dst) {
    const int error = bus.attach(options.socket, static_cast<std::uint8_t>(module),
                                 static_cast<std::uint8_t>(dst));
    if (error != 0)
        fail("cannot join the bus at " + options.socket + ": " +
             msgbus::describe_attach_error(error));
}

// ---- send

void send(Connection& bus, const Options& options, int dst, std::uint32_t seq,
          std::string_view text) {
    const message_header_s header =
        msgbus::make_header(MSGBUS_DATA, static_cast<std::uint8_t>(options.module),
                            static_cast<std::uint8_t>(dst), seq);
    if (!bus.send(header, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}))
        fail("lost the connection to the bus");
}

// The next frame with that number; empty in the end. Ends the program when the bus reports the
// request as undeliverable.
Message await(Connection& bus, std::uint32_t seq, Connection::Clock::time_point deadline) {
    while (bus.wait(deadline)) {
        Message frame = bus.take();
        if (frame->header.type == MSGBUS_UNDELIVERABLE && frame->header.seq == kRequestSeq)
            fail("module " + std::to_string(frame->header.src) +
                 (frame->header.len > 0
                      ? " must not be sent to: " +
                            std::string{reinterpret_cast<const char*>(frame->payload)}
                      : " is not on the bus or does not take its messages"));
        const bool has_number =
            frame->header.type == MSGBUS_DATA || frame->header.type == MSGBUS_UNDELIVERABLE;
        if (has_number && frame->header.seq == seq)
            return frame;
    }
    return nullptr;
}

// The broker handles the frames of a client in order: when a message to ourselves is back, be it
// because the policy forbids it, an undeliverable request would have come back before it.
void confirm_delivery(Connection& bus, const Options& options) {
    send(bus, options, options.module, kBarrierSeq, {});
    if (!await(bus, kBarrierSeq, Connection::Clock::now() + std::chrono::seconds{kDeliverySeconds}))
        fail("the bus does not say whether the message was delivered");
}

void print_answer(Connection& bus, const Options& options) {
    const auto deadline = Connection::Clock::now() + std::chrono::seconds{options.seconds};
    const Message answer = await(bus, kRequestSeq, deadline);
    if (!answer)
        fail(bus.connected() ? "no answer within " + std::to_string(options.seconds) + " seconds"
                             : "lost the connection to the bus");
    std::fwrite(answer->payload, 1, answer->header.len, stdout);
    std::fputc('\n', stdout);
}

int run_send(const Options& options, std::string_view destination, std::string text) {
    const int dst = number(destination, kMaxModule, "destination");
    if (text == "-")
        text = read_input();
    if (text.size() > MSGBUS_MAX_PAYLOAD)
        fail("the message is longer than " + std::to_string(MSGBUS_MAX_PAYLOAD) + " bytes");
    Connection bus;
    join(bus, options, options.module, 0);
    send(bus, options, dst, kRequestSeq, text);
    if (options.wait)
        print_answer(bus, options);
    else
        confirm_delivery(bus, options);
    return EXIT_SUCCESS;
}

// ---- monitor

std::string time_of_day() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    std::array<char, 32> text;
    const std::size_t length = std::strftime(text.data(), text.size(), "%H:%M:%S", &local);
    std::snprintf(text.data() + length, text.size() - length, ".%03ld", now.tv_nsec / 1000000);
    return text.data();
}

// On one line whatever the bytes.
std::string printable(const message_s& frame) {
    std::string text;
    for (std::size_t i = 0; i < frame.header.len; i++) {
        const std::uint8_t byte = frame.payload[i];
        std::array<char, 8> escaped{static_cast<char>(byte), '\0'};
        if (byte < ' ' || byte == 0x7F)
            std::snprintf(escaped.data(), escaped.size(), "\\x%02x", byte);
        text += escaped.data();
    }
    return text;
}

std::string describe(const message_s& frame) {
    const message_header_s header = frame.header;
    const std::string src = std::to_string(header.src);
    const std::string way = src + " -> " + std::to_string(header.dst);
    const std::string seq = " #" + std::to_string(header.seq);
    switch (header.type) {
        case MSGBUS_ATTACH:
            return src + " joins";
        case MSGBUS_DETACH:
            return src + " leaves";
        case MSGBUS_UNDELIVERABLE:
            return way + seq + " undeliverable";
        default:
            return way + seq + " uid " + std::to_string(header.src_uid) + " " + printable(frame);
    }
}

int run_monitor(const Options& options) {
    Connection bus;
    join(bus, options, 0, MSGBUS_MONITOR);
    std::fprintf(stderr, "msgbusctl: monitoring %s\n", options.socket.c_str());
    while (bus.wait(Connection::Clock::time_point::max())) {
        std::printf("%s %s\n", time_of_day().c_str(), describe(*bus.take()).c_str());
        std::fflush(stdout);
    }
    fail("the broker has ended this monitor");
}

Options parse_options(int argc, char** argv) {
    Options options;
    for (int option = 0; (option = getopt(argc, argv, "hs:m:wt:")) != -1;) {
        switch (option) {
            case 's':
                options.socket = optarg;
                break;
            case 'm':
                options.module = number(optarg, kMaxModule, "module");
                break;
            case 't':
                options.seconds = number(optarg, INT32_MAX, "time");
                [[fallthrough]];
            case 'w':
                options.wait = true;
                break;
            default:
                print_usage(option == 'h' ? stdout : stderr);
                std::exit(option == 'h' ? EXIT_SUCCESS : kExitUsage);
        }
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    logsink_set_name("msgbusctl");
    const Options options = parse_options(argc, argv);
    const int left = argc - optind;
    const std::string_view verb = left > 0 ? argv[optind] : "";
    if (verb == "send" && left == 3)
        return run_send(options, argv[optind + 1], argv[optind + 2]);
    if (verb == "monitor" && left == 1)
        return run_monitor(options);
    print_usage(stderr);
    return kExitUsage;
}
