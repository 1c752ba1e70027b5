// websock_cfg_t: what the command line and the configuration file say.
#ifndef LUMD_WEBSOCK_CFG_H
#define LUMD_WEBSOCK_CFG_H

#include <array>
#include <cstddef>
#include <string>
#include <vector>

enum ws_instance_id {
    WS_INSTANCE_PORTAL = 0,
    WS_INSTANCE_RRM = 1,
    WS_INSTANCE_WIDS = 2,
    WS_INSTANCE_MAX = 3
};

// Names of the services' workers, which are the subprotocols of their links too (RFC 6455, 1.9).
inline constexpr std::array<const char*, WS_INSTANCE_MAX> websock_names = {
    "websock-roaming", "websock-rrm", "websock-wids"};

// Bytes of the buffer that a line of the configuration file is read into: a longer line is read in
// pieces.
inline constexpr int config_line_size = 255;

// One service's endpoint and back-off.
struct config_instance_t {
    char ap_location[256];  // location label of this access point
    char domain[256];       // server host name or address
    char path[256];         // request path, with its leading "/"
    int port;
    volatile bool run;                     // configured, so its mode may run
    std::size_t initial_connection_delay;  // seconds
    std::size_t max_connection_delay;      // seconds
};

// What is wrong with the file, in words. Nothing is told of a URL that lacks its port or path.
struct config_fault {
    enum class kind {
        unreadable,
        no_equals,
        blanks,
        unknown_key,
        scheme,
        host,
        port,
        more,
        no_mode
    };

    kind what;
    int line;  // 0: the whole file
    std::string text;
};

// Built once by main before any worker exists; read-only afterwards.
class websock_cfg_t {
  public:
    // Reads options "f:d:p:P:" and the file that -f names. An unknown option ends the process with
    // status 255; a file that cannot be opened or holds a rejected URL sets `error`.
    websock_cfg_t(int argc, const char** argv);

    // Reads one configuration file; false when it cannot be opened or holds a rejected URL.
    bool parse_file(const char* path);

    // Splits the URL at `line` + `prefix_len`, in place, into the service's endpoint. False for a
    // scheme other than ws.
    bool setup_service_config(ws_instance_id id, char* line, int prefix_len);

    std::array<config_instance_t, WS_INSTANCE_MAX> instance{};
    int log_level = 0;             // from the file
    int reconnect_retries = 3;     // nothing reads it
    int error = 0;                 // 1: the file could not be read or held a rejected URL
    std::string wids_mac_list_id;  // from the file
    std::string file;              // that -f named

    // What is wrong with the file, in the order of its lines, then what is wrong with the whole.
    // Of single lines at most most_faults, then one of the kind `more`.
    std::vector<config_fault> faults;
    static constexpr std::size_t most_faults = 20;

  private:
    [[nodiscard]] bool apply_line(char* line, bool begins_line);
    [[gnu::format(printf, 4, 5)]] void add_fault(config_fault::kind what, int line,
                                                 const char* format, ...);
    void look_at_unknown(const char* text);
    void look_at_scheme(const char* scheme);
    void look_at_endpoint(const char* host, const char* port);
    // Returns the configuration file's path, null without -f.
    const char* parse_options(int argc, const char** argv);

    int line_ = 0;  // that is being read
};

// Length of the key, its "=" included, that a line of the configuration file begins with; 0 when it
// begins with none, and is ignored.
std::size_t config_key_length(const char* line);

// Cuts `s` at its first line feed or carriage return; returns the length it had before.
int fixup_config_string(char* s);

#endif
