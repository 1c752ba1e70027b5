// AccessPoint: the platform below the agent, played within the process: a kernel with two radios,
// the command-line tools, the unit's own files and a folder in place of /proc, /sys, /tmp and
// /var/run.
#ifndef FUZZ_ACCESS_POINT_H
#define FUZZ_ACCESS_POINT_H

#include <cstdint>
#include <string>
#include <string_view>

#include "kernel.h"
#include "temporary_folder.h"

class AccessPoint : public lab::Kernel {
  public:
    // The one access point of the process: hostapd is up and both radios live, "wlan0" (rtl8192cd)
    // and "wlan1" (g6), each with two VAPs.
    static AccessPoint& instance();
    ~AccessPoint() override;
    AccessPoint(const AccessPoint&) = delete;
    AccessPoint& operator=(const AccessPoint&) = delete;

    // Ends what an input has set below.
    void reset();

    // From now on the kernel gives these bytes to every vendor command and MIB question, with that
    // length for a MIB and that result (0 or more, or a negative errno). The bytes are borrowed.
    void answer(std::string_view bytes, std::uint16_t claimed_length, int result);

    // The same to the questions for neighbours alone.
    void answer_scans(std::string_view bytes);

    // What every command-line tool prints from now on.
    void print(std::string_view output) { tool_output_ = output; }
    [[nodiscard]] const std::string& tool_output() const { return tool_output_; }

    [[nodiscard]] const std::string& folder() const { return folder_.path(); }

    // Makes an empty file of those that put_file() makes, or removes it.
    void set_present(const std::string& path, bool present) const;

    // A file below /proc, /sys, /tmp or /var/run, or of the platform's folder by its bare name.
    void put_file(const std::string& path, std::string_view content) const;

    int ioctl(unsigned long request, const std::string& ifname, void* data,
              std::uint16_t& length) override;
    void written(const std::string& path, const std::string& content) override;

  private:
    AccessPoint();
    void vendor_command(char* buffer) const;

    const TemporaryFolder folder_;
    std::string tool_output_;
    bool answers_scans_ = false;
    bool answers_all_ = false;
    std::string_view bytes_;
    std::uint16_t claimed_length_ = 0;
    int result_ = 0;
};

#endif
