#include "config_findings.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "files.h"
#include "logsink.h"
#include "lum_trace.h"
#include "text.h"

namespace {

constexpr const char* check_name = "configuration";
constexpr std::size_t longest_config = std::size_t{1024} * 1024;  // bytes; nobody writes such a one
constexpr std::size_t longest_delay = 86400;                      // seconds
constexpr int highest_port = 65535;

constexpr const char* url_form = "write ws://HOST:PORT/PATH";

struct fault_kind {
    severity how;
    const char* advice;
};

// Indexed by config_fault::kind.
constexpr fault_kind fault_kinds[] = {
    {severity::broken, "correct the file's rights"},
    {severity::warning, "write KEY=VALUE, or '#' before it"},
    {severity::warning, "write KEY=VALUE without blanks, at the beginning of the line"},
    {severity::warning, "see lumd.conf(5) for the keys"},
    {severity::broken, url_form},
    {severity::broken, url_form},
    {severity::broken, url_form},
    {severity::warning, "correct what stands above, and look again"},
    {severity::broken, url_form},
};

struct service_key {
    const char* key;
    const char* mode;
};

// Indexed by ws_instance_id.
constexpr std::array<service_key, WS_INSTANCE_MAX> services = {{
    {"roam_service_url", "portal"},
    {"orvanta_service_url", "RRM"},
    {"mac-list-service-url", "WIDS"},
}};

std::optional<ws_instance_id> service_of(const std::string& key) {
    for (std::size_t id = 0; id < services.size(); id++)
        if (strcasecmp(key.c_str(), services[id].key) == 0)
            return static_cast<ws_instance_id>(id);
    return std::nullopt;
}

bool is_number(const std::string& text, const char* digits = "0123456789") {
    return !text.empty() && text.find_first_not_of(digits) == std::string::npos;
}

bool is_hexadecimal(const std::string& text) {
    return strncasecmp(text.c_str(), "0x", 2) == 0 &&
           is_number(text.substr(2), "0123456789abcdefABCDEF");
}

std::string trimmed(const std::string& text) {
    constexpr const char* blanks = " \t\r\n";
    const std::size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

std::string quoted(const std::string& text) {
    return "'" + printable(text) + "'";
}

std::string lower_case(std::string text) {
    for (char& c : text)
        c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    return text;
}

// What the agent makes of one URL, by its own function.
websock_cfg_t with_url(ws_instance_id id, std::string url) {
    const char* const no_options[] = {"lumctl", nullptr};
    websock_cfg_t config(1, const_cast<const char**>(no_options));
    config.setup_service_config(id, url.data(), 0);
    trace.set_log_level(0);
    return config;
}

std::string describe(const config_instance_t& service) {
    return "ws://" + std::string(service.domain) + ":" + std::to_string(service.port) +
           service.path;
}

}  // namespace

const char* mode_name(ws_instance_id id) {
    return services[id].mode;
}

websock_cfg_t read_agent_config(const std::string& path) {
    const char* arguments[] = {"lumctl", "-f", path.c_str(), nullptr};
    websock_cfg_t config(3, arguments);
    trace.set_log_level(0);
    logsink_set_file(nullptr);
    return config;
}

std::optional<ws_instance_id> mode_of(const websock_cfg_t& config) {
    for (std::size_t id = 0; id < config.instance.size(); id++)
        if (config.instance[id].run)
            return static_cast<ws_instance_id>(id);
    return std::nullopt;
}

std::optional<finding> unusable_config(const std::string& path) {
    const auto broken = [&path](std::string text, std::string advice) {
        return finding{severity::broken, check_name, std::move(text), std::move(advice), path, 0};
    };
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return broken(reason_text(errno), "write it, see lumd.conf(5), or name another with -f");
    if (S_ISDIR(status.st_mode))
        return broken("is a directory", "name a file in it with -f");
    if (!S_ISREG(status.st_mode))
        return broken("is no regular file", "lumd would wait there; name another with -f");
    const std::optional<std::string> text = read_file(path, longest_config + 1);
    if (!text)
        return broken(errno == EACCES ? "not allowed to read it" : std::strerror(errno),
                      "run as root, or correct the file's rights");
    if (text->size() > longest_config)
        return broken("longer than 1 MiB: not examined", "this is no configuration of lumd");
    if (text->find('\0') != std::string::npos)
        return broken("holds binary data", "put a text file in its place");
    return std::nullopt;
}

std::vector<finding> config_examiner::examine(const std::string& text,
                                              const websock_cfg_t& config) {
    std::size_t begin = 0;
    while (begin < text.size() && !stopped_) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        ++line_;
        add_faults(config);
        examine_line(text.substr(begin, end - begin));
        begin = end + 1;
    }
    line_ = 0;
    return std::exchange(findings_, {});
}

// Of this line.
void config_examiner::add_faults(const websock_cfg_t& config) {
    for (const config_fault& fault : config.faults) {
        if (fault.line != line_)
            continue;
        const fault_kind& kind = fault_kinds[static_cast<std::size_t>(fault.what)];
        add(kind.how, fault.text, kind.advice);
        stopped_ = fault.what == config_fault::kind::scheme;
    }
}

// The agent's buffer holds the line end too, and a zero.
void config_examiner::examine_line(const std::string& text) {
    constexpr std::size_t most = config_line_size - 1;
    if (text.size() > most)
        add(severity::warning,
            "longer than " + std::to_string(most) + " characters: lumd reads it in pieces",
            "make it shorter");
    for (std::size_t at = 0; (at < text.size() || at == 0) && !stopped_; at += most)
        examine_piece(text.substr(at, most), at == 0);
}

void config_examiner::examine_piece(const std::string& text, bool begins_line) {
    const std::size_t length = config_key_length(text.c_str());
    if (length == 0)
        return;
    if (!begins_line)
        add(severity::warning,
            "a later piece of this line is taken as " + quoted(text.substr(0, length - 1)),
            "make the line shorter");
    std::string value = text.substr(length);
    value.resize(std::min(value.find('\r'), value.size()));
    examine_value(lower_case(text.substr(0, length - 1)), value);
}

void config_examiner::examine_value(const std::string& key, const std::string& value) {
    const auto [first, is_new] = seen_.emplace(key, line_);
    if (!is_new)
        add(severity::warning,
            quoted(key) + " stands in line " + std::to_string(first->second) + " too",
            "keep one of them: a later value replaces an earlier one");
    if (const auto id = service_of(key))
        examine_url(*id, value);
    else if (key == "log_level" || key.ends_with("_delay"))
        examine_number(key, value);
}

void config_examiner::examine_url(ws_instance_id id, const std::string& value) {
    if (trimmed(value).empty())
        return add(severity::warning,
                   "no URL: the " + std::string(mode_name(id)) + " mode stays disabled",
                   std::string(url_form) + ", or remove the line");
    const std::size_t scheme_end = value.find("://");
    if (scheme_end == std::string::npos)
        return examine_endpoint(id, value, value);
    examine_endpoint(id, value.substr(scheme_end + std::strlen("://")), value);
}

// `rest`: what stands behind the scheme.
void config_examiner::examine_endpoint(ws_instance_id id, const std::string& rest,
                                       const std::string& value) {
    const config_instance_t service = with_url(id, value).instance[id];
    if (!service.run)
        return examine_incomplete_url(rest);
    const std::string host = service.domain;
    const std::size_t port_at = rest.find(':') + 1;
    url_lines_[id] = line_;
    if (host.find_first_of(" \t/[]@") != std::string::npos)
        add(severity::broken, quoted(host) + " is no host name", url_form);
    examine_port(rest.substr(port_at, rest.find('/', port_at) - port_at), service.port);
    if (std::strpbrk(service.path, " \t") != nullptr)
        add(severity::warning, "the path " + quoted(service.path) + " holds a blank",
            "remove it: a service refuses such a request");
}

void config_examiner::examine_incomplete_url(const std::string& rest) {
    const char* const missing = rest.find(':') == std::string::npos ? "port" : "path";
    add(severity::broken, "the URL has no " + std::string(missing) + ": its mode stays disabled",
        url_form);
}

void config_examiner::examine_port(const std::string& text, int port) {
    if (port > 0 && port <= highest_port && !is_number(text))
        add(severity::warning, "port " + quoted(text) + " is read as " + std::to_string(port),
            "write the number alone");
}

void config_examiner::examine_number(const std::string& key, const std::string& value) {
    const std::string plain = trimmed(value);
    if (is_number(plain) || (key == "log_level" && is_hexadecimal(value)))
        return;
    add(severity::warning,
        quoted(key) + " is " + quoted(plain) + ", which is no plain number: lumd reads " +
            std::to_string(std::strtoul(value.c_str(), nullptr, 10)),
        "write a number, see lumd.conf(5)");
}

std::vector<finding> config_examiner::examine_whole(const websock_cfg_t& config) {
    const std::optional<ws_instance_id> mode = mode_of(config);
    if (!mode) {
        add(severity::broken, "no mode is enabled: lumd would end at once",
            "give one of the services a URL, ws://HOST:PORT/PATH");
        return std::exchange(findings_, {});
    }
    line_ = url_lines_[*mode];
    add(severity::ok, std::string(mode_name(*mode)) + " mode, " + describe(config.instance[*mode]),
        "");
    for (std::size_t id = *mode + 1U; id < config.instance.size(); id++) {
        if (!config.instance[id].run)
            continue;
        line_ = url_lines_[id];
        add(severity::warning,
            quoted(services[id].key) + " has no effect: " + services[*mode].key + " decides",
            "remove one of the two");
    }
    examine_delays(config);
    return std::exchange(findings_, {});
}

// All services have the same delays.
void config_examiner::examine_delays(const websock_cfg_t& config) {
    const std::size_t initial = config.instance[0].initial_connection_delay;
    const std::size_t most = config.instance[0].max_connection_delay;
    const auto found =
        seen_.find(initial > most ? "initial_connection_delay" : "max_connection_delay");
    line_ = found != seen_.end() ? found->second : 0;
    if (initial > most)
        add(severity::warning,
            "the first delay, " + std::to_string(initial) + " s, is above the longest, " +
                std::to_string(most) + " s",
            "set max_connection_delay to at least initial_connection_delay");
    if (std::max(initial, most) > longest_delay)
        add(severity::warning, "a delay of more than a day", "delays are seconds; 60 is usual");
}

void config_examiner::add(severity how, std::string text, std::string advice) {
    findings_.push_back({how, check_name, std::move(text), std::move(advice), path_, line_});
}
