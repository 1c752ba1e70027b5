// Daemon is apd as a process: the objects, in the order of their making, and the one loop that
// serves them.
#ifndef PLATFORM_APD_DAEMON_H
#define PLATFORM_APD_DAEMON_H

#include <atomic>
#include <string>
#include <vector>

#include "agent_files.h"
#include "bus_module.h"
#include "config_store.h"
#include "hostapd_link.h"
#include "manager.h"
#include "nl80211_kernel.h"
#include "nl80211_socket.h"
#include "requests.h"

namespace apd {

struct DaemonOptions {
    std::string config = "/etc/lumd/apd.json";
    std::string run_folder = "/run/apd";          // files for hostapd, what the service has set
    std::string state_folder = "/var/lib/apd";    // the last settings that could be used
    std::string hostapd = "/run/hostapd/global";  // its global control socket
    std::string hostapd_pid = "/run/hostapd.pid";
    std::string agent_folder = "/tmp";  // where the agent looks for its notify files
};

class Daemon {
  public:
    explicit Daemon(const DaemonOptions& options);

    // Serves until stop().
    void run();

    // From a signal handler.
    void stop() { over_ = true; }
    void reload() { reload_ = true; }

  private:
    void wait();
    void look_around();
    void look_for_bus();
    void look_for_hostapd();
    void serve_hostapd();
    void serve_bus();
    void reload_settings();

    ConfigStore store_;
    nl80211_socket netlink_;
    Nl80211Kernel kernel_{netlink_};
    HostapdLink hostapd_;
    AgentFiles files_;
    BusModule store_module_;
    BusModule manager_module_;
    BusModule scan_module_;
    Manager manager_;
    Requests requests_;
    std::chrono::steady_clock::time_point look_at_{};  // when hostapd and the bus are looked at
    bool bus_missed_ = false;                          // logged
    int looks_in_vain_ = 0;                            // for the first hostapd
    std::atomic<bool> over_ = false;
    std::atomic<bool> reload_ = false;
};

}  // namespace apd

#endif
