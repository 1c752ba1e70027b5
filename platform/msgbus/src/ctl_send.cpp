#include "ctl_send.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>

#include "connection.h"

namespace msgbusctl {

using msgbus::Connection;
using msgbus::Message;

namespace {

constexpr int kDeliverySeconds = 5;
constexpr std::uint32_t kRequestSeq = 1;
constexpr std::uint32_t kBarrierSeq = 2;

std::string read_input() {
    std::string text;
    std::array<char, 4096> piece;
    for (std::size_t count = 0; (count = std::fread(piece.data(), 1, piece.size(), stdin)) > 0;)
        text.append(piece.data(), count);
    if (std::ferror(stdin) != 0)
        fail("standard input cannot be read");
    return text;
}

std::string text_of(const Options& options) {
    const bool given = options.words.size() > 2;
    if (!given && isatty(STDIN_FILENO) == 1)
        misuse(options.words[0] + " needs a text, or one on standard input");
    std::string text = given && options.words[2] != "-" ? options.words[2] : read_input();
    if (text.size() > MSGBUS_MAX_PAYLOAD)
        fail("the message is longer than " + std::to_string(MSGBUS_MAX_PAYLOAD) + " bytes");
    return text;
}

void join(Connection& bus, const Options& options) {
    if (const int error = bus.attach(options.socket, options.module, 0))
        fail("cannot join the bus at " + options.socket + ": " +
             msgbus::describe_attach_error(error));
}

void send(Connection& bus, const Options& options, std::uint8_t dst, std::uint32_t seq,
          std::string_view text) {
    const message_header_s header = msgbus::make_header(MSGBUS_DATA, options.module, dst, seq);
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
    print(std::string{reinterpret_cast<const char*>(answer->payload), answer->header.len} + '\n');
}

int deliver(const Options& options, bool wait) {
    if (options.words.size() < 2)
        misuse(options.words[0] + " needs a destination");
    const std::uint8_t dst = module_of(options.words[1]);
    const std::string text = text_of(options);
    Connection bus;
    join(bus, options);
    send(bus, options, dst, kRequestSeq, text);
    if (wait)
        print_answer(bus, options);
    else
        confirm_delivery(bus, options);
    return EXIT_SUCCESS;
}

}  // namespace

int run_send(const Options& options) {
    return deliver(options, options.wait);
}

int run_call(const Options& options) {
    return deliver(options, true);
}

}  // namespace msgbusctl
