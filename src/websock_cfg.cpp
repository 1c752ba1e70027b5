#include "websock_cfg.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "logsink.h"
#include "lum_trace.h"
#include "owned.h"
#include "text.h"

namespace {

constexpr int everything = 65535;  // log level until the file says otherwise
constexpr int highest_port = 65535;
constexpr const char* default_ap_location = "default-rrm-domain";

// Copies as much of `from` as fits behind the first `at` characters of `to`.
template <std::size_t size>
void copy_text(char (&to)[size], const char* from, std::size_t at = 0) {
    const std::size_t length = strnlen(from, size - 1 - at);
    std::memcpy(to + at, from, length);
    to[at + length] = '\0';
}

// Cuts `text` at the first `separator`; returns what follows it, null when there is none.
char* split(char* text, const char* separator) {
    char* const found = std::strstr(text, separator);
    if (found == nullptr)
        return nullptr;
    *found = '\0';
    return found + std::strlen(separator);
}

// One key of the configuration file. A handler gets the whole line, with its line end, and the
// value's offset in it; false ends the parse.
struct config_key {
    const char* prefix;
    bool (*apply)(websock_cfg_t& cfg, char* line, int value_at);
};

template <ws_instance_id id>
bool apply_service_url(websock_cfg_t& cfg, char* line, int value_at) {
    return cfg.setup_service_config(id, line, value_at);
}

template <std::size_t config_instance_t::*delay>
bool apply_delay(websock_cfg_t& cfg, char* line, int value_at) {
    for (config_instance_t& service : cfg.instance)
        service.*delay = std::strtoul(line + value_at, nullptr, 10);
    return true;
}

bool apply_ap_location(websock_cfg_t& cfg, char* line, int value_at) {
    for (config_instance_t& service : cfg.instance) {
        copy_text(service.ap_location, line + value_at);
        fixup_config_string(service.ap_location);
    }
    return true;
}

bool apply_log_level(websock_cfg_t& cfg, char* line, int value_at) {
    const char* const value = line + value_at;
    const bool hexadecimal = strncasecmp(value, "0x", 2) == 0;
    const unsigned long level =
        hexadecimal ? std::strtoul(value + 2, nullptr, 16) : std::strtoul(value, nullptr, 10);
    // Bits above those of an int are cut off.
    cfg.log_level = global_log_level = static_cast<int>(level);
    trace.set_log_level(cfg.log_level);
    return true;
}

bool apply_log_file(websock_cfg_t&, char* line, int value_at) {
    char* const value = line + value_at;
    global_log_out = true;
    fixup_config_string(value);
    global_log_file = value;
    logsink_set_file(value);
    return true;
}

bool apply_mac_list_id(websock_cfg_t& cfg, char* line, int value_at) {
    char* const value = line + value_at;
    fixup_config_string(value);
    cfg.wids_mac_list_id = value;
    return true;
}

constexpr config_key config_keys[] = {
    {"roam_service_url=", apply_service_url<WS_INSTANCE_PORTAL>},
    {"orvanta_service_url=", apply_service_url<WS_INSTANCE_RRM>},
    {"mac-list-service-url=", apply_service_url<WS_INSTANCE_WIDS>},
    {"initial_connection_delay=", apply_delay<&config_instance_t::initial_connection_delay>},
    {"max_connection_delay=", apply_delay<&config_instance_t::max_connection_delay>},
    {"ap_location=", apply_ap_location},
    {"log_level=", apply_log_level},
    {"log_file=", apply_log_file},
    {"mac-list-id=", apply_mac_list_id},
};

const config_key* find_key(const char* line) {
    for (const config_key& key : config_keys)
        if (strncasecmp(line, key.prefix, std::strlen(key.prefix)) == 0)
            return &key;
    return nullptr;  // comments, blank lines, unknown keys
}

}  // namespace

websock_cfg_t::websock_cfg_t(int argc, const char** argv) {
    trace.set_log_level(everything);
    const char* const path = parse_options(argc, argv);
    if (path == nullptr)
        return;
    file = path;
    if (!parse_file(path))
        error = 1;
    const bool unread = !faults.empty() && faults.front().what == config_fault::kind::unreadable;
    if (!unread && std::none_of(instance.begin(), instance.end(),
                                [](const config_instance_t& service) { return service.run; }))
        add_fault(config_fault::kind::no_mode, 0, "no mode is enabled");
}

const char* websock_cfg_t::parse_options(int argc, const char** argv) {
    const char* path = nullptr;
    optind = 0;  // a fresh start of getopt(3), its hidden state included
    int option = 0;
    while ((option = getopt(argc, const_cast<char**>(argv), "f:d:p:P:")) != -1) {
        if (option == 'f') {
            path = optarg;
            continue;
        }
        for (config_instance_t& service : instance) {
            switch (option) {
                case 'd':
                    copy_text(service.domain, optarg);
                    break;
                case 'p':
                    copy_text(service.path, optarg);
                    break;
                case 'P':
                    service.port = to_int(optarg);
                    break;
                default:
                    std::exit(-1);
            }
        }
    }
    return path;
}

bool websock_cfg_t::parse_file(const char* path) {
    for (config_instance_t& service : instance)
        copy_text(service.ap_location, default_ap_location);
    global_log_out = false;
    global_log_level = 0;
    logsink_set_file(nullptr);

    const file_ptr opened(std::fopen(path, "re"));
    if (!opened) {
        add_fault(config_fault::kind::unreadable, 0, "%s", std::strerror(errno));
        return false;
    }
    char line[config_line_size];
    bool begins_line = true;
    while (std::fgets(line, config_line_size, opened.get()) != nullptr) {
        line_ += begins_line ? 1 : 0;
        const bool ends_line = std::strchr(line, '\n') != nullptr;
        if (!apply_line(line, begins_line))
            return false;
        begins_line = ends_line;
    }
    if (std::ferror(opened.get()) != 0)
        add_fault(config_fault::kind::unreadable, 0, "%s", std::strerror(errno));
    return true;  // at the end of the file, be it a failing read
}

bool websock_cfg_t::apply_line(char* line, bool begins_line) {
    const config_key* const key = find_key(line);
    if (key != nullptr)
        return key->apply(*this, line, static_cast<int>(std::strlen(key->prefix)));
    if (begins_line)
        look_at_unknown(line);
    return true;
}

void websock_cfg_t::look_at_unknown(const char* text) {
    constexpr const char* blanks = " \t\r\n";
    text += std::strspn(text, blanks);
    if (*text == '\0' || *text == '#')
        return;
    std::size_t length = std::strcspn(text, "=");
    if (text[length] == '\0')
        return add_fault(config_fault::kind::no_equals, line_, "has no '=': ignored");
    while (length > 0 && std::strchr(blanks, text[length - 1]) != nullptr)
        --length;
    std::string key(text, length);
    key += '=';
    const bool known = config_key_length(key.c_str()) == key.size();
    const auto kind = known ? config_fault::kind::blanks : config_fault::kind::unknown_key;
    add_fault(kind, line_, known ? "blanks around '%.*s': ignored" : "unknown key '%.*s': ignored",
              static_cast<int>(length), text);
}

void websock_cfg_t::look_at_scheme(const char* scheme) {
    const char* const plain = scheme + std::strspn(scheme, " \t");
    add_fault(config_fault::kind::scheme, line_,
              std::strcmp(plain, "ws") == 0
                  ? "blank before '%s': lumd reads the file no further"
                  : "scheme '%s' is not usable: lumd reads the file no further",
              plain);
}

void websock_cfg_t::look_at_endpoint(const char* host, const char* port) {
    if (*host == '\0')
        add_fault(config_fault::kind::host, line_, "the URL has no host");
    if (const int number = to_int(port); number < 1 || number > highest_port)
        add_fault(config_fault::kind::port, line_, "port '%s' is not from 1 to %d", port,
                  highest_port);
}

// What decides over the whole is told however much is wrong with single lines.
void websock_cfg_t::add_fault(config_fault::kind what, int line, const char* format, ...) {
    const bool counts = line != 0 && what != config_fault::kind::scheme;
    if (counts && faults.size() > most_faults)
        return;
    char text[config_line_size + 64];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (counts && faults.size() == most_faults)
        faults.push_back({config_fault::kind::more, line, "more is wrong from here on"});
    else
        faults.push_back({what, line, printable(text)});
}

bool websock_cfg_t::setup_service_config(ws_instance_id id, char* line, int prefix_len) {
    char* const url = line + prefix_len;
    char* const after_scheme = split(url, "://");
    char* const host = after_scheme != nullptr ? after_scheme : url;
    char* const port = split(host, ":");
    char* const path = split(port != nullptr ? port : host, "/");

    if (after_scheme != nullptr && std::strcmp(url, "ws") != 0) {
        trace.debug("Proto %s is invalid\n", url);
        look_at_scheme(url);
        return false;
    }
    config_instance_t& service = instance[id];
    if (port != nullptr && path != nullptr) {
        copy_text(service.domain, host);
        copy_text(service.path, "/");
        copy_text(service.path, path, 1);
        service.port = to_int(port);
        service.run = true;
        look_at_endpoint(host, port);
    }
    fixup_config_string(service.domain);
    fixup_config_string(service.path);
    return true;
}

std::size_t config_key_length(const char* line) {
    const config_key* const key = find_key(line);
    return key != nullptr ? std::strlen(key->prefix) : 0;
}

int fixup_config_string(char* s) {
    const std::size_t length = std::strlen(s);
    s[std::strcspn(s, "\r\n")] = '\0';
    return static_cast<int>(length);
}
