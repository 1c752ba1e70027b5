// The kernel as a lab plays it to a process that has the interposer in it, either preloaded
// (LD_PRELOAD) or linked as objects into a unit test.
//
// Files: every path below /proc/wlan*, /proc/net/rtk_wifi6, /sys/class/net and the notify, flag and
// pid files below /tmp and /var/run lead to the same path below the lab's root folder, where they
// are plain files. ioctl(2) on wireless requests is answered by the installed Kernel.
// syslog(3) lines are also appended to the file "syslog" of the root folder as "priority text".
#ifndef LAB_KERNEL_H
#define LAB_KERNEL_H

#include <cstdint>
#include <string>

namespace lab {

class Kernel {
  public:
    virtual ~Kernel() = default;

    // One ioctl with a struct iwreq (linux/wireless.h). `data` is what the request's iw_point
    // names, null when it names nothing; `length` is its 16-bit length, in and out. Returns the
    // call's result (0 or more), or a negative errno. Any thread of the process.
    virtual int ioctl(unsigned long request, const std::string& ifname, void* data,
                      std::uint16_t& length) = 0;

    // A file of the virtual /proc that was opened for writing has been closed with this content.
    virtual void written(const std::string& path, const std::string& content) = 0;
};

// Installs the kernel (borrowed); with null every wireless ioctl fails with ENODEV.
void install(Kernel* kernel);

// Sets the root folder (default: the environment variable LAB_ROOT); without one no path is
// redirected.
void set_root(const std::string& folder);
std::string root();

}  // namespace lab

#endif
