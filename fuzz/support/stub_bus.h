// The bus client as a target links it: no broker and no socket, every request is answered at once.
// One context stands for all modules.
#ifndef FUZZ_STUB_BUS_H
#define FUZZ_STUB_BUS_H

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace stub_bus {

// Gives the answer's text to a request's text; nothing when nobody answers.
using Daemon = std::function<std::optional<std::string>(std::string_view request)>;

// Who answers from now on; at first a configuration store with two VAPs per radio, "home" and
// one with a quotation mark, a line end and a byte that is no UTF-8, and a network manager that
// agrees to everything.
void serve(Daemon daemon);
std::optional<std::string> agreeable(std::string_view request);

// Puts a frame with that payload among what has arrived.
void deliver(std::string_view payload);

// What was sent last.
const std::string& sent();

}  // namespace stub_bus

#endif
