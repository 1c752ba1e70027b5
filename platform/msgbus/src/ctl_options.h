// What msgbusctl is told on its command line, and how it tells that this was wrong.
#ifndef PLATFORM_MSGBUS_CTL_OPTIONS_H
#define PLATFORM_MSGBUS_CTL_OPTIONS_H

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "frame.h"

namespace msgbusctl {

struct Options {
    Options();

    std::string socket = msgbus::default_socket_path();
    std::uint8_t module;  // to be
    bool wait = false;
    int seconds;
    bool json = false;
    std::vector<std::uint8_t> modules;  // to show; none: all
    std::vector<std::string> commands;  // the same
    std::string file;                   // to write to as well; empty: none
    std::vector<std::string> words;     // the verb and what stands behind it
    std::string given;                  // the letter of each option, see option_name()
};

// Ends the program when the user wants help or has mistyped.
[[nodiscard]] Options parse_options(int argc, char** argv);

// "-m" or "--json".
[[nodiscard]] std::string option_name(char letter);

// Ends the program with one sentence.
[[noreturn]] void fail(const std::string& what, int status = EXIT_FAILURE);

// The same for what the user got wrong.
[[noreturn]] void misuse(const std::string& what);

// The module that the user means; misuse() when there is none.
[[nodiscard]] std::uint8_t module_of(std::string_view text);

// All of the text on standard output, or fail().
void print(std::string_view text);

}  // namespace msgbusctl

#endif
