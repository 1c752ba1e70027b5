/*
 * nl_answer: what the kernel says to one generic netlink command, datagram by datagram, without a
 * socket.
 */
#ifndef PLATFORM_NL_ANSWER_H
#define PLATFORM_NL_ANSWER_H

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "nl_attributes.h"

// Called with each message: its command and attributes, which it must copy to keep.
using nl_handler = std::function<void(std::uint8_t command, const nl_attributes& attributes)>;

// Takes the datagrams that follow one command. Messages of another sequence number (late ones of a
// command that was given up) or another family are left out, and so is the rest of a datagram whose
// lengths are wrong.
class nl_answer {
  public:
    // `handler` is borrowed for the object's life.
    nl_answer(std::uint16_t family, std::uint32_t sequence, const nl_handler& handler)
        : family_(family), sequence_(sequence), handler_(handler) {}

    // `datagram` begins at a multiple of four.
    void take(std::span<const std::uint8_t> datagram);

    [[nodiscard]] bool is_over() const { return over_; }
    // Of an answer that is over: 0; what the kernel refused it with, as a negative errno; -EINTR
    // for a dump that what it tells about changed under, which may have told too little or too
    // much.
    [[nodiscard]] int result() const { return result_; }
    // The kernel's own words for a refusal; empty when it has none.
    [[nodiscard]] const std::string& reason() const { return reason_; }

  private:
    void finish(int error);

    std::uint16_t family_;
    std::uint32_t sequence_;
    const nl_handler& handler_;
    bool over_ = false;
    bool interrupted_ = false;
    int result_ = 0;
    std::string reason_;
};

// Hands each message of `family` in a datagram of events to `handler`.
void nl_read_events(std::uint16_t family, std::span<const std::uint8_t> datagram,
                    const nl_handler& handler);

#endif
