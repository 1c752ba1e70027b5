// msgbusctl: sends one message on the local message bus, or shows who is there and what goes over
// it.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

#include "ctl_list.h"
#include "ctl_monitor.h"
#include "ctl_options.h"
#include "ctl_send.h"
#include "logsink.h"

using namespace msgbusctl;

namespace {

struct Verb {
    const char* name;
    std::string_view options;  // their letters
    std::size_t words;         // at most, itself among them
    int (*run)(const Options&);
};

constexpr std::array<Verb, 5> kVerbs{{{"send", "smwt", 3, run_send},
                                      {"call", "smwt", 3, run_call},
                                      {"list", "sJ", 1, run_list},
                                      {"monitor", "sJMCW", 1, run_monitor},
                                      {"names", "s", 1, run_names}}};

const Verb& verb_of(const Options& options) {
    if (options.words.empty())
        misuse("say what to do: send, call, list, monitor or names");
    const auto* const verb = std::find_if(kVerbs.begin(), kVerbs.end(), [&](const Verb& known) {
        return options.words.front() == known.name;
    });
    if (verb == kVerbs.end())
        misuse("'" + options.words.front() + "' is none of send, call, list, monitor and names");
    return *verb;
}

void check(const Verb& verb, const Options& options) {
    for (const char letter : options.given)
        if (verb.options.find(letter) == std::string_view::npos)
            misuse(std::string{verb.name} + " takes no " + option_name(letter));
    if (options.words.size() > verb.words)
        misuse("'" + options.words[verb.words] + "' is too much for " + verb.name);
}

// A closed one would become that of the bus, and what is printed there a frame.
void open_standard_streams() {
    int fd = 0;
    while ((fd = open("/dev/null", O_RDWR)) >= 0 && fd <= STDERR_FILENO)
        continue;
    if (fd >= 0)
        close(fd);
}

}  // namespace

int main(int argc, char** argv) {
    open_standard_streams();
    logsink_set_name("msgbusctl");
    const Options options = parse_options(argc, argv);
    const Verb& verb = verb_of(options);
    check(verb, options);
    return verb.run(options);
}
