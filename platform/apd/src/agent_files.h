// The files by which the agent learns what hostapd does (lumd(8), FILES).
#ifndef PLATFORM_APD_AGENT_FILES_H
#define PLATFORM_APD_AGENT_FILES_H

#include <string>

namespace apd {

class AgentFiles {
  public:
    // `folder` is /tmp for a real agent, `pid_file` /run/hostapd.pid.
    AgentFiles(std::string folder, std::string pid_file);

    // hostapd runs, and its access points are there.
    void hostapd_started(int pid) const;
    // It has gone. A pid file that hostapd has left is taken away.
    void hostapd_stopped() const;
    // The settings, or what the radios do, are other ones.
    void config_updated() const;

  private:
    void notify(const char* what) const;

    const std::string folder_;
    const std::string pid_file_;
};

}  // namespace apd

#endif
