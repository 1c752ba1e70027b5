#include "ctl_list.h"

#include <array>
#include <chrono>
#include <cstring>

#include "connection.h"
#include "ctl_modules.h"
#include "ctl_table.h"
#include "tree.h"

namespace msgbusctl {

using msgbus::Connection;
using msgbus::Message;
using msgbus::Tree;

namespace {

constexpr int kListSeconds = 5;
constexpr std::uint32_t kListSeq = 1;

struct Column {
    const char* head;
    const char* member;  // of a module in the answer of the broker
};
constexpr std::array<Column, 8> kColumns{{{"module", "module"},
                                          {"name", "name"},
                                          {"pid", "pid"},
                                          {"uid", "uid"},
                                          {"sent", "sent"},
                                          {"received", "received"},
                                          {"waiting", "waiting-frames"},
                                          {"bytes", "waiting-bytes"}}};
constexpr std::size_t kNameColumn = 1;

// The frame that answers the request; ends the program when there is none.
Message ask(const Options& options) {
    Connection bus;
    if (const int error = bus.connect(options.socket))
        fail("cannot reach the bus at " + options.socket + ": " + std::strerror(error));
    bus.send(msgbus::make_header(MSGBUS_LIST, 0, 0, kListSeq), {});
    if (!bus.wait(Connection::Clock::now() + std::chrono::seconds{kListSeconds}))
        fail(bus.connected() ? "the broker does not answer"
                             : "the broker has hung up without an answer: it is older than this "
                               "msgbusctl and cannot list its modules, or it is full");
    return bus.take();
}

Tree fetch(const Options& options) {
    const Message answer = ask(options);
    const std::string text{reinterpret_cast<const char*>(answer->payload), answer->header.len};
    if (answer->header.type == MSGBUS_UNDELIVERABLE)
        fail("the broker refuses: " + text);
    Tree list{answer->header.type == MSGBUS_LIST ? cfgtree_parse(text.c_str()) : nullptr};
    if (cfgtree_get_type(cfgtree_get_child(list.get(), "modules")) != CFGTREE_ARRAY)
        fail("the answer of the broker cannot be understood");
    return list;
}

// Gives each module that has one its name.
void add_names(cfgtree_node* modules) {
    for (std::size_t i = 0; i < cfgtree_array_length(modules); i++) {
        cfgtree_node* const module = cfgtree_array_at(modules, i);
        const char* const number = cfgtree_get_param(module, "module");
        const std::optional<std::uint8_t> found = find_module(number != nullptr ? number : "");
        const char* const name = found ? name_of(*found) : nullptr;
        if (name != nullptr)
            cfgtree_set_param(module, "name", name);
    }
}

std::string table_of(const cfgtree_node* modules) {
    std::vector<Row> rows(1 + cfgtree_array_length(modules));
    for (const Column& column : kColumns) {
        rows[0].emplace_back(column.head);
        for (std::size_t i = 1; i < rows.size(); i++) {
            const char* const value =
                cfgtree_get_param(cfgtree_array_at(modules, i - 1), column.member);
            rows[i].emplace_back(value != nullptr ? value : "-");
        }
    }
    return lay_out(rows, {kNameColumn});
}

}  // namespace

int run_list(const Options& options) {
    const Tree list = fetch(options);
    cfgtree_node* const modules = cfgtree_get_child(list.get(), "modules");
    add_names(modules);
    if (options.json)
        print(cfgtree_serialize_compact(list.get()) + std::string{'\n'});
    else
        print(table_of(modules));
    return EXIT_SUCCESS;
}

int run_names(const Options&) {
    std::vector<Row> rows{{"module", "name", "what it is"}};
    for (const NamedModule& named : named_modules())
        rows.push_back({std::to_string(named.number), named.name, named.purpose});
    print(lay_out(rows, {1, 2}));
    return EXIT_SUCCESS;
}

}  // namespace msgbusctl
