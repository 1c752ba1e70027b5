// realtek_ioctl_ops: what the back-ends of both chip families share, which is all that goes through
// the vendor command channel.
#ifndef LUMD_REALTEK_IOCTL_OPS_H
#define LUMD_REALTEK_IOCTL_OPS_H

#include <linux/wireless.h>

#include <functional>

#include "ioctl_ops.h"
#include "vexor_command.h"

class driver_realtek;

// Owns a datagram socket as its ioctl handle. Without one it stays usable as an object: commands
// then answer -2. One command at a time.
class realtek_ioctl_ops : public ioctl_ops {
  public:
    // Fills the record before it goes to the kernel: factor of the announced capacity, and bytes
    // that the record has.
    using filler_t = std::function<void(vexor_command& record, int factor, unsigned size)>;
    // Reads the answer; it must copy what it keeps.
    using parser_t = std::function<void()>;

    realtek_ioctl_ops(const realtek_ioctl_ops&) = delete;
    realtek_ioctl_ops& operator=(const realtek_ioctl_ops&) = delete;
    ~realtek_ioctl_ops() override;

    // Points the back-end at an interface: 0, or -1 without a socket.
    int assign(const driver_realtek& owner, const std::string& ifname);
    void reset();
    [[nodiscard]] bool is_ready() const { return fd >= 0; }

    // One vendor command: 0, -1 when it failed, -2 without a socket.
    int execute(vexor_cmd_s code, const filler_t& filler, const parser_t& parser);

    int start_scan(const std::set<unsigned>& channels) override;
    int stop_scan() override;
    int get_scan_result(ap_table& table) override;
    int start_rrm_scan(unsigned channel, const std::string& ifname) override;
    int stop_rrm_scan(const std::string& ifname) override;
    int get_rrm_scan_result(ap_table& table) override;
    int get_available_channels(std::set<unsigned>& channels) override;
    int get_assoc_sta(std::vector<rrm_sta_realtek>& stations) override;
    int send_bsstrans_request(const std::string& ifname, const char* mac, int value) override;
    int set_vexor_roam_attempt_timeout(const std::string& ifname, int timeout) override;

  protected:
    // Request numbers of a family.
    struct family_t {
        unsigned long vexor;
        unsigned long bsstrans;
    };
    realtek_ioctl_ops(const driver_realtek& owner, const std::string& ifname, family_t family);

    // An ioctl on the back-end's interface with `data`; its result, with errno.
    int issue(unsigned long number, void* data, std::size_t length);
    // Bytes of `data` as the last ioctl left them.
    [[nodiscard]] std::size_t answer_length() const { return request.u.data.length; }

    // dot11PHYType of a neighbour (IEEE 802.11, annex C): HT in the 2.4 GHz band, else VHT.
    static constexpr int phy_type_ht = 7;
    static constexpr int phy_type_vht = 9;
    [[nodiscard]] bool in_2g(int channel) const;
    // Empties the neighbour list behind a procfs entry: 0, or -1 when it cannot be opened.
    static int delete_neighbours(const std::string& entry);

  private:
    void parse_scan_result(ap_table& table) const;
    void parse_rrm_scan_result(ap_table& table) const;
    void parse_available_channels(std::set<unsigned>& channels) const;
    void parse_assoc_sta(std::vector<rrm_sta_realtek>& stations) const;
    [[nodiscard]] const vexor_command& answer() const;

    int fd = -1;
    iwreq request{};
    std::reference_wrapper<const driver_realtek> drv;
    const unsigned long cmd;  // request number of the vendor command channel
    const unsigned long bsstrans;
};

#endif
