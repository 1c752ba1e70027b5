// lumctl status: how the running agent does.
#ifndef LUMCTL_STATUS_H
#define LUMCTL_STATUS_H

#include <optional>
#include <string>
#include <vector>

#include "agent_process.h"
#include "bus_view.h"
#include "finding.h"
#include "surroundings.h"
#include "websock_cfg.h"

class json_writer;

// One look at everything; nothing is asked of the agent itself.
class agent_status {
  public:
    // `config_path`: of the agent that is meant. Empty: the only one that runs, else the one of
    // `default_path`.
    agent_status(const std::string& config_path, const std::string& default_path);

    // The same for a person, each part judged.
    [[nodiscard]] report judge() const;

    // The same as members of an object, "status" and "findings" of judge() among them.
    void write(json_writer& object) const;

  private:
    void read_config();
    void look_at_link();
    void look_at_log();
    [[nodiscard]] bool needs_radios() const { return mode_ == WS_INSTANCE_RRM; }
    void judge_process(report& found) const;
    void judge_mode(report& found) const;
    void judge_link(report& found) const;
    void judge_subscription(report& found) const;
    void judge_bus(report& found) const;
    void judge_siblings(report& found) const;
    void judge_log(report& found) const;
    void write_process(json_writer& object) const;
    void write_link(json_writer& object) const;
    void write_bus(json_writer& object) const;
    void write_log(json_writer& object) const;

    std::size_t agents_ = 0;  // that run, this one among them
    std::optional<agent_process> process_;
    std::string config_path_;
    std::optional<websock_cfg_t> config_;
    std::optional<ws_instance_id> mode_;  // it runs in; without a process: it would run in
    std::string log_path_;
    bool may_see_sockets_ = true;
    std::vector<tcp_socket> link_;    // connections to the service's port
    std::optional<long> subscribed_;  // age of the connected flag, seconds
    bus_view bus_;
    sibling hostapd_;
    sibling guardd_;
    std::string log_error_;  // why the log cannot be read
    std::vector<std::string> complaints_;
};

#endif
