// What is wrong with a configuration file of the agent, each with its line.
#ifndef LUMCTL_CONFIG_FINDINGS_H
#define LUMCTL_CONFIG_FINDINGS_H

#include <array>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "finding.h"
#include "websock_cfg.h"

// "portal", "RRM" or "WIDS".
[[nodiscard]] const char* mode_name(ws_instance_id id);

// Reads the file with the agent's own class, so that both make the same of it, and undoes what that
// does to the process's log.
[[nodiscard]] websock_cfg_t read_agent_config(const std::string& path);

// The first service that is enabled, whose mode the agent runs in; nothing when none is.
[[nodiscard]] std::optional<ws_instance_id> mode_of(const websock_cfg_t& config);

// Why the file is none that the agent could be given: not there, not readable, a folder, too long,
// binary. Nothing when it can be read.
[[nodiscard]] std::optional<finding> unusable_config(const std::string& path);

// Looks at a text line by line, as the agent reads it.
class config_examiner {
  public:
    explicit config_examiner(std::string path) : path_(std::move(path)) {}

    // What is wrong with single lines, in their order; `config` is what the agent made of them.
    // Once.
    [[nodiscard]] std::vector<finding> examine(const std::string& text,
                                               const websock_cfg_t& config);

    // What is wrong with the whole: no mode or several, delays. After examine().
    [[nodiscard]] std::vector<finding> examine_whole(const websock_cfg_t& config);

    // Line of the last usable URL of a service, or 0.
    [[nodiscard]] int url_line(ws_instance_id id) const { return url_lines_[id]; }

  private:
    void add_faults(const websock_cfg_t& config);
    void examine_line(const std::string& text);
    void examine_piece(const std::string& text, bool begins_line);
    void examine_value(const std::string& key, const std::string& value);
    void examine_url(ws_instance_id id, const std::string& value);
    void examine_endpoint(ws_instance_id id, const std::string& rest, const std::string& value);
    void examine_incomplete_url(const std::string& rest);
    void examine_port(const std::string& text, int port);
    void examine_number(const std::string& key, const std::string& value);
    void examine_delays(const websock_cfg_t& config);
    void add(severity how, std::string text, std::string advice);

    const std::string path_;
    std::vector<finding> findings_;
    std::array<int, WS_INSTANCE_MAX> url_lines_{};
    std::map<std::string, int> seen_;  // keys with their first line
    int line_ = 0;                     // under examination; 0: the whole file
    bool stopped_ = false;             // the agent reads no further
};

#endif
