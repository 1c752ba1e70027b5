#include "status.h"

#include <netinet/tcp.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "config_findings.h"
#include "connected_flag.h"
#include "files.h"
#include "json_writer.h"
#include "log_tail.h"
#include "lum_trace.h"

namespace {

constexpr std::size_t log_tail_bytes = std::size_t{256} * 1024;
constexpr std::size_t shown_complaints = 5;

// The one that is up or nearest to it.
const tcp_socket* best_of(const std::vector<tcp_socket>& link) {
    const auto established = std::find_if(link.begin(), link.end(), [](const tcp_socket& socket) {
        return socket.state == TCP_ESTABLISHED;
    });
    if (established != link.end())
        return &*established;
    return link.empty() ? nullptr : &link.front();
}

}  // namespace

agent_status::agent_status(const std::string& config_path, const std::string& default_path) {
    const std::vector<agent_process> agents = find_agents();
    agents_ = agents.size();
    process_ = choose_agent(agents, config_path);
    if (!process_ && config_path.empty())
        process_ = choose_agent(agents, default_path);
    config_path_ = !config_path.empty()                         ? config_path
                   : process_ && !process_->config_path.empty() ? process_->config_path
                                                                : default_path;
    read_config();
    if (process_)
        look_at_link();
    subscribed_ = age_of_file(orvanta_connected_file);
    bus_ = look_at_bus(bus_socket_path());
    hostapd_ = look_at_hostapd();
    guardd_ = look_at_guardd();
    look_at_log();
}

void agent_status::read_config() {
    if (!unusable_config(config_path_)) {
        config_ = read_agent_config(config_path_);
        mode_ = mode_of(*config_);
        log_path_ = global_log_out ? global_log_file : "";
    }
    if (process_ && process_->mode)
        mode_ = process_->mode;
}

void agent_status::look_at_link() {
    if (!config_ || !mode_)
        return;
    auto sockets = sockets_of(process_->pid);
    may_see_sockets_ = sockets.has_value();
    const int port = config_->instance[*mode_].port;
    if (sockets)
        std::copy_if(sockets->begin(), sockets->end(), std::back_inserter(link_),
                     [port](const tcp_socket& socket) { return socket.remote_port == port; });
}

void agent_status::look_at_log() {
    if (log_path_.empty())
        return;
    const auto text = read_end_of_file(log_path_, log_tail_bytes);
    if (!text)
        log_error_ = reason_text(errno);
    else
        complaints_ = last_complaints(*text, shown_complaints);
}

report agent_status::judge() const {
    report found;
    judge_process(found);
    judge_mode(found);
    if (process_)
        judge_link(found);
    if (process_ && needs_radios())
        judge_subscription(found);
    judge_bus(found);
    judge_siblings(found);
    judge_log(found);
    return found;
}

void agent_status::judge_process(report& found) const {
    if (!process_ && agents_ > 0)
        return found.broken("lumd",
                            "none runs with " + config_path_ + ", but " + std::to_string(agents_) +
                                " with other files",
                            "name its file with -f");
    if (!process_)
        return found.broken("lumd", "does not run, or not where it can be seen",
                            "lumctl check tells what it lacks");
    std::string text = "runs, pid " + std::to_string(process_->pid);
    if (process_->age)
        text += ", for " + duration_text(*process_->age);
    if (process_->memory_kib)
        text += ", " + std::to_string(*process_->memory_kib) + " KiB of memory";
    found.ok("lumd", std::move(text));
}

void agent_status::judge_mode(report& found) const {
    if (!config_)
        return found.broken("mode", config_path_ + " cannot be read", "lumctl check tells why");
    if (!mode_)
        return found.broken("mode", config_path_ + " enables none", "lumctl check tells why");
    const std::string text = std::string(mode_name(*mode_)) + ", " + config_path_;
    if (process_ && mode_of(*config_) != mode_)
        return found.warning("mode", text + " says otherwise by now", "restart lumd");
    found.ok("mode", text);
}

// The kernel keeps no time of a connection's beginning.
void agent_status::judge_link(report& found) const {
    if (!may_see_sockets_)
        return found.warning("link", "not allowed to look at the process's sockets",
                             "look again as root");
    const tcp_socket* const socket = best_of(link_);
    if (socket == nullptr)
        return found.broken("link", "there is no connection to the service",
                            "lumctl check tells why");
    const std::string text = std::string(tcp_state_text(socket->state)) + ", " +
                             socket->remote_address + " port " +
                             std::to_string(socket->remote_port);
    if (socket->state != TCP_ESTABLISHED)
        return found.warning("link", text, "look again in a minute");
    found.ok("link", text + " (its age the kernel does not tell)");
}

void agent_status::judge_subscription(report& found) const {
    if (subscribed_)
        return found.ok("subscribed", "yes, for " + duration_text(*subscribed_));
    found.warning("subscribed", "no: the service has not accepted this access point",
                  "look at hostapd, and at the service");
}

void agent_status::judge_bus(report& found) const {
    if (bus_.socket_error != 0 || !bus_.error.empty())
        return found.warning("bus",
                             bus_.socket_error != 0 ? reason_text(bus_.socket_error) : bus_.error,
                             "lumctl check tells more");
    if (!bus_.modules)
        return found.ok("bus", "answers; who is there: not allowed to look");
    std::string text = "answers; on it:";
    for (const int module : *bus_.modules)
        text += " " + module_name(module) + ",";
    text.back() = bus_.modules->empty() ? '-' : '.';
    found.ok("bus", std::move(text));
}

void agent_status::judge_siblings(report& found) const {
    if (needs_radios() && !hostapd_.announced && !guardd_.announced)
        found.warning("hostapd", describe(hostapd_), "lumd waits for hostapd or guardd");
    else
        found.ok("hostapd", describe(hostapd_));
    found.ok("guardd", describe(guardd_));
}

void agent_status::judge_log(report& found) const {
    if (log_path_.empty())
        return found.ok("log", "to syslog alone");
    if (!log_error_.empty())
        return found.warning("log", log_path_ + ": " + log_error_,
                             "look again as root, or after lumd has written to it");
    if (complaints_.empty())
        return found.ok("log", log_path_ + ": no warnings of late");
    found.ok("log", log_path_ + ", its last warnings:");
    for (const std::string& complaint : complaints_)
        found.ok("", complaint);
}

void agent_status::write(json_writer& object) const {
    judge().write(object);
    object.insert_string("config", config_path_);
    if (mode_)
        object.insert_string("mode", mode_name(*mode_));
    write_process(object);
    write_link(object);
    object.insert_string("subscribed", subscribed_ ? "yes" : "no");
    if (subscribed_)
        object.insert_int("subscribed-for", static_cast<int>(*subscribed_));
    write_bus(object);
    object.insert_string("hostapd", hostapd_.announced ? "announced" : "absent");
    object.insert_string("guardd", guardd_.announced ? "announced" : "absent");
    write_log(object);
}

void agent_status::write_process(json_writer& object) const {
    if (!process_)
        return;
    json_writer process = object.make_subobject("process");
    process.insert_int("pid", process_->pid);
    if (process_->age)
        process.insert_int("age", static_cast<int>(*process_->age));
    if (process_->memory_kib)
        process.insert_int("memory-kib", static_cast<int>(*process_->memory_kib));
}

void agent_status::write_link(json_writer& object) const {
    if (!process_)
        return;
    json_writer link = object.make_subobject("link");
    const tcp_socket* const socket = best_of(link_);
    if (socket == nullptr)
        return link.insert_string("state", may_see_sockets_ ? "none" : "not allowed to look");
    link.insert_string("state", tcp_state_text(socket->state));
    link.insert_string("address", socket->remote_address);
    link.insert_int("port", socket->remote_port);
}

void agent_status::write_bus(json_writer& object) const {
    if (!bus_.modules)
        return;
    json_writer modules = object.make_array("modules");
    for (const int module : *bus_.modules)
        modules.insert_int("", module);
}

void agent_status::write_log(json_writer& object) const {
    json_writer warnings = object.make_array("warnings");
    for (const std::string& complaint : complaints_)
        warnings.insert_string("", complaint);
}
