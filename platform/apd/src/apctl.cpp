// apctl: looks at and changes the settings of an access point, as a client of apd on the message
// bus.

#include <getopt.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "json.h"
#include "msgbus.h"
#include "text_values.h"

namespace {

using apd::Json;

constexpr int kExitUsage = 2;
constexpr int kStore = 1;         // the module that answers
constexpr int kLastModule = 254;  // tools take theirs from the end
constexpr int kOwnModules = 50;
constexpr int kModuleTries = 5;
constexpr int kAnswerSeconds = 20;
constexpr std::array<std::uint8_t, 2> kOptions = {0xFE, 0x00};

constexpr const char* kUsage =
    "usage: apctl status\n"
    "       apctl get PATH\n"
    "       apctl set PATH VALUE [PATH VALUE]...\n"
    "       apctl unset PATH...\n"
    "       apctl show [PATH] [--stored | --candidate]\n"
    "       apctl changes\n"
    "       apctl commit\n"
    "       apctl revert\n"
    "       apctl settings\n"
    "\n"
    "  status    what the radios do\n"
    "  get       the value in force, of one setting or of all below\n"
    "  set       change settings, to be committed\n"
    "  unset     take settings away, to be committed\n"
    "  show      all settings in force; --stored: without what the service has set;\n"
    "            --candidate: with what is to be committed\n"
    "  changes   what is to be committed\n"
    "  commit    store the changes and go there\n"
    "  revert    forget the changes\n"
    "  settings  which settings there are, and what they take\n"
    "\n"
    "  -j, --json  for programs\n"
    "  -h, --help  show this\n"
    "\n"
    "Examples:\n"
    "  apctl set /interface/wlan0/wlan/radio/channel 11\n"
    "  apctl set /interface/wlan0-va0/vap/ssid office && apctl commit\n";

[[noreturn]] void fail(const std::string& what, int status = EXIT_FAILURE) {
    std::fprintf(stderr, "apctl: %s\n", apd::without_controls(what).c_str());
    std::exit(status);
}

[[noreturn]] void misuse(const std::string& what) {
    fail(what + " (see apctl --help)", kExitUsage);
}

struct Context {
    void operator()(msgbus_context* context) const { msgbus_release(context); }
};

class Client {
  public:
    Client() {
        // Another tool may have the place.
        for (int i = 0; i < kModuleTries && !context_; i++)
            context_.reset(msgbus_init(kLastModule - static_cast<int>(getpid() + i) % kOwnModules,
                                       kOptions.data(), kOptions.size()));
        if (!context_)
            fail("the message bus is not there, or not open to this user");
    }

    // The answer to a request; ends the program when there is none or it is a refusal.
    Json ask(const Json& request) {
        const std::string text = apd::compact(request.get());
        const std::string command = apd::member_text(request.get(), "command") + "-response";
        msgbus_peer_start(context_.get());
        msgbus_send(context_.get(), text.data(), kStore, text.size());
        Json answer{msgbus_wait_answer(context_.get(), command.c_str(), nullptr, kAnswerSeconds)};
        msgbus_peer_stop(context_.get());
        if (!answer)
            fail("apd does not answer: is it running?");
        if (apd::member_text(answer.get(), "status") == "error")
            fail(apd::member_text(answer.get(), "reason"));
        return answer;
    }

    Json ask(const char* command) {
        const Json request = apd::new_object();
        apd::set_text(request.get(), "command", command);
        return ask(request);
    }

  private:
    std::unique_ptr<msgbus_context, Context> context_;
};

void print(const std::string& text) {
    std::printf("%s\n", text.c_str());
}

void print_json(json_object* node) {
    print(json_object_to_json_string_ext(
        node, JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED | JSON_C_TO_STRING_NOSLASHESCAPE));
}

// One line a setting: path and value, as "set" takes them.
void print_leaves(const std::string& path, json_object* node) {
    apd::for_each_leaf(node, [&](const std::string& below, json_object* value) {
        print(path + below + ' ' + apd::shown_text(value));
    });
}

// A text, unless it reads as an object of JSON.
Json value_of_word(const std::string& word) {
    if (word.starts_with('{')) {
        Json value = apd::parse_json(word);
        if (!value)
            misuse("a value begins with '{' and is no JSON");
        return value;
    }
    return Json{json_object_new_string(word.c_str())};
}

struct Command {
    std::vector<std::string> words;  // the verb and what stands behind it
    bool json = false;
    std::string which;  // of the layers; empty: all that is in force
};

void get(Client& client, const Command& command) {
    const Json request = apd::new_object();
    apd::set_text(request.get(), "command", "get");
    apd::set_text(request.get(), "path", command.words[1]);
    const Json answer = client.ask(request);
    json_object* const value = apd::member(answer.get(), "value");
    if (command.json || json_object_is_type(value, json_type_object) != 0)
        print_json(value);
    else
        print(apd::shown_text(value));
}

void change(Client& client, const std::string& path, Json value) {
    const Json request = apd::new_object();
    apd::set_text(request.get(), "command", "set");
    apd::set_text(request.get(), "path", path);
    if (value)
        json_object_object_add(request.get(), "value", value.release());
    client.ask(request);
}

void set(Client& client, const Command& command) {
    for (std::size_t i = 1; i + 1 < command.words.size(); i += 2)
        change(client, command.words[i], value_of_word(command.words[i + 1]));
}

void unset(Client& client, const Command& command) {
    for (std::size_t i = 1; i < command.words.size(); i++)
        change(client, command.words[i], nullptr);
}

void show(Client& client, const Command& command) {
    const Json request = apd::new_object();
    apd::set_text(request.get(), "command", "show");
    apd::set_text(request.get(), "which", command.which);
    const Json answer = client.ask(request);
    json_object* tree = apd::member(answer.get(), "value");
    const std::string path = command.words.size() > 1 ? command.words[1] : "";
    if (!path.empty())
        tree = apd::find_path(tree, path);
    if (tree == nullptr)
        fail("there is nothing at " + apd::for_log(path));
    if (command.json)
        print_json(tree);
    else
        print_leaves(path, tree);
}

// What a command answers with a list: as it is for programs, otherwise by `print_one`.
void print_list(Client& client, const Command& command,
                const std::function<void(json_object*)>& print_one) {
    const Json answer = client.ask(command.words.front().c_str());
    json_object* const list = apd::member(answer.get(), "value");
    if (command.json)
        print_json(list);
    else
        apd::for_each_element(list, print_one);
}

void changes(Client& client, const Command& command) {
    print_list(client, command, [](json_object* one) {
        const std::string path = apd::member_text(one, "path");
        if (apd::member(one, "before") != nullptr)
            print("- " + path + ' ' + apd::member_text(one, "before"));
        if (apd::member(one, "now") != nullptr)
            print("+ " + path + ' ' + apd::member_text(one, "now"));
    });
}

void print_radio(const std::string& name, json_object* radio) {
    std::string line = name + ": " + apd::member_text(radio, "state");
    if (const std::string channel = apd::member_text(radio, "channel"); !channel.empty())
        line += ", channel " + channel;
    if (const std::string power = apd::member_text(radio, "tx-power"); !power.empty())
        line += ", " + power + " dBm";
    if (apd::member_text(radio, "scan") == "locked")
        line += ", is being scanned with";
    if (const std::string trouble = apd::member_text(radio, "trouble"); !trouble.empty())
        line += " (" + trouble + ')';
    print(line);
    apd::for_each_member(radio, [](const std::string& vap, json_object* value) {
        if (json_object_is_type(value, json_type_object) != 0)
            print("  " + vap + ": \"" + apd::member_text(value, "ssid") + "\", " +
                  apd::member_text(value, "stations") + " stations");
    });
}

void status(Client& client, const Command& command) {
    const Json answer = client.ask("status");
    json_object* const value = apd::member(answer.get(), "value");
    if (command.json) {
        print_json(value);
        return;
    }
    apd::for_each_member(value, [](const std::string& name, json_object* one) {
        if (json_object_is_type(one, json_type_object) != 0)
            print_radio(name, one);
        else
            print(name + ": " + apd::scalar_text(one));
    });
}

void commit(Client& client, const Command&) {
    client.ask("commit");
}

void revert(Client& client, const Command&) {
    client.ask("revert");
}

void settings(Client& client, const Command& command) {
    print_list(client, command, [](json_object* one) {
        print(apd::member_text(one, "path") + "  " + apd::member_text(one, "takes"));
    });
}

struct Verb {
    const char* name;
    void (*run)(Client&, const Command&);
    std::size_t least;  // words behind it
    std::size_t most;
};
constexpr std::size_t kAny = 1000;
constexpr Verb kVerbs[] = {
    {"status", status, 0, 0},  {"get", get, 1, 1},       {"set", set, 2, kAny},
    {"unset", unset, 1, kAny}, {"show", show, 0, 1},     {"changes", changes, 0, 0},
    {"commit", commit, 0, 0},  {"revert", revert, 0, 0}, {"settings", settings, 0, 0},
};

// What could not be printed was not told.
[[noreturn]] void finish() {
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        fail("cannot write the output");
    std::exit(EXIT_SUCCESS);
}

Command parse_options(int argc, char** argv) {
    constexpr std::array<option, 5> options{{{"help", no_argument, nullptr, 'h'},
                                             {"json", no_argument, nullptr, 'j'},
                                             {"stored", no_argument, nullptr, 'S'},
                                             {"candidate", no_argument, nullptr, 'C'},
                                             {nullptr, 0, nullptr, 0}}};
    Command command;
    for (int letter = 0; (letter = getopt_long(argc, argv, "hj", options.data(), nullptr)) != -1;) {
        switch (letter) {
            case 'h':
                std::fputs(kUsage, stdout);
                finish();
            case 'j':
                command.json = true;
                break;
            case 'S':
                command.which = "stored";
                break;
            case 'C':
                command.which = "candidate";
                break;
            default:
                std::exit(kExitUsage);
        }
    }
    command.words.assign(argv + optind, argv + argc);
    if (command.words.empty())
        misuse("a command is missing");
    return command;
}

}  // namespace

int main(int argc, char** argv) {
    const Command command = parse_options(argc, argv);
    for (const Verb& verb : kVerbs) {
        if (command.words.front() != verb.name)
            continue;
        const std::size_t behind = command.words.size() - 1;
        if (behind < verb.least || behind > verb.most || (verb.run == set && behind % 2 != 0))
            misuse("'" + command.words.front() + "' has too few or too many words behind it");
        if (!command.which.empty() && verb.run != show)
            misuse("--" + command.which + " is for 'show' alone");
        Client client;
        verb.run(client, command);
        finish();
    }
    misuse("there is no command '" + apd::for_log(command.words.front()) + "'");
}
