#include "realtek_ioctl_ops.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "driver_io.h"
#include "driver_realtek.h"
#include "lum_trace.h"
#include "realtek_scan_result_entry.h"
#include "rrm_sta_realtek.h"

namespace {

// A socket of its own, closed at the end of its scope.
class socket_handle {
  public:
    socket_handle() : fd_(open()) {}
    socket_handle(const socket_handle&) = delete;
    socket_handle& operator=(const socket_handle&) = delete;
    ~socket_handle() {
        if (fd_ >= 0)
            close(fd_);
    }
    [[nodiscard]] int get() const { return fd_; }

    static int open() { return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); }

  private:
    int fd_;
};

// ioctl(2), whose number is an int in POSIX and musl, and an unsigned long in glibc. Inline also
// where nothing is optimised, so that a backtrace names the command's function.
template <typename Number>
[[gnu::always_inline]] inline int control(int (*ioctl_of_libc)(int, Number, ...), int fd,
                                          unsigned long number, iwreq& request) {
    return ioctl_of_libc(fd, static_cast<Number>(number), &request);
}

void no_filler(vexor_command&, int, unsigned) {}
void no_parser() {}

void fill_capacity(vexor_command& record, int factor, unsigned size) {
    record.scan_result.size = scan_result_s::aps::capacity(factor, size);
}

// Channels as the record carries them, in the order of their numbers: the low 16 bits of each. Left
// out is what the record has no room for.
std::vector<std::uint16_t> scan_channels(const std::set<unsigned>& channels) {
    std::vector<std::uint16_t> result;
    for (const unsigned channel : channels)
        if (result.size() < vexor_custom_scan_s::channels::room)
            result.push_back(static_cast<std::uint16_t>(channel));
    return result;
}

// How many of the reported entries the command buffer holds.
template <typename List>
std::uint16_t held(std::uint32_t reported, const char* function) {
    if (reported > List::room)
        trace.error("<%s:%d> %u entries are reported, the command buffer holds %zu\n", function,
                    __LINE__, reported, List::room);
    return static_cast<std::uint16_t>(std::min<std::size_t>(reported, List::room));
}

void append(ap_table& table, const vexor_command& answer, const driver_realtek& drv, scan_kind kind,
            const char* function) {
    const std::uint16_t count = held<scan_result_s::aps>(answer.scan_result.size, function);
    table.reserve(table.size() + count);
    for (std::uint16_t i = 0; i < count; ++i)
        table.push_back(scan_result_entry{drv, scan_result_s::aps::at(&answer, i), kind});
}

}  // namespace

const char* vexor_cmd_name(vexor_cmd_s code) {
    constexpr std::array names = {
        "VEXOR_CMD_CUSTOM_SCAN",         "VEXOR_CMD_CUSTOM_SCAN_STOP",
        "VEXOR_CMD_CUSTOM_SCAN_RESULTS", "VEXOR_CMD_RRM_SCAN_RESULTS",
        "VEXOR_CMD_GET_ASSOC_STAS",      "VEXOR_CMD_GET_AVAILABLE_CHANNELS",
        "VEXOR_CMD_GET_DETAILS_PMKID",   "VEXOR_CMD_MAX"};
    return code < names.size() ? names[code] : "UNKNOWN";
}

realtek_ioctl_ops::realtek_ioctl_ops(const driver_realtek& owner, const std::string& ifname,
                                     family_t family)
    : drv(owner), cmd(family.vexor), bsstrans(family.bsstrans) {
    assign(owner, ifname);
}

realtek_ioctl_ops::~realtek_ioctl_ops() {
    reset();
}

int realtek_ioctl_ops::assign(const driver_realtek& owner, const std::string& ifname) {
    reset();
    drv = owner;
    auto& name = request.ifr_ifrn.ifrn_name;
    std::memset(name, 0, sizeof name);
    ifname.copy(name, sizeof name - 1);
    fd = socket_handle::open();
    if (fd < 0) {
        trace.error("<%s:%d> cannot create socket for the ioctl call(errno = %s)\n", __func__,
                    __LINE__, std::strerror(errno));
        return -1;
    }
    return 0;
}

void realtek_ioctl_ops::reset() {
    if (fd >= 0)
        close(fd);
    fd = -1;
}

int realtek_ioctl_ops::issue(unsigned long number, void* data, std::size_t length) {
    std::memset(&request.u, 0, sizeof request.u);
    request.u.data = iw_point{data, static_cast<std::uint16_t>(length), 0};
    return control(ioctl, fd, number, request);
}

int realtek_ioctl_ops::execute(vexor_cmd_s code, const filler_t& filler, const parser_t& parser) {
    if (!is_ready()) {
        trace.warn("<%s:%d> socket is not created for action by ioctl\n", __func__, __LINE__);
        return -2;
    }
    const std::unique_ptr<std::byte[]> buffer{new (std::nothrow) std::byte[vexor_buffer_size]{}};
    if (!buffer) {
        trace.error("<%s:%d> cannot allocate memory for the Vexor command structure(errno = %s)\n",
                    __func__, __LINE__, std::strerror(errno));
        return -1;
    }
    vexor_command* const record = std::construct_at(reinterpret_cast<vexor_command*>(buffer.get()));
    record->cmd = code;
    filler(*record, vexor_capacity_factor, vexor_buffer_size);
    const int result = issue(cmd, record, vexor_buffer_length);
    if (result < 0)
        trace.error("<%s:%d> cannot execute command(errno = %s)(command = %s)\n", __func__,
                    __LINE__, std::strerror(errno), vexor_cmd_name(code));
    else
        parser();
    request.u.data.pointer = nullptr;
    return result < 0 ? -1 : 0;
}

const vexor_command& realtek_ioctl_ops::answer() const {
    return *static_cast<const vexor_command*>(request.u.data.pointer);
}

// --- scans ---

int realtek_ioctl_ops::start_scan(const std::set<unsigned>& channels) {
    const std::vector<std::uint16_t> list = scan_channels(channels);
    if (list.size() < channels.size())
        trace.error("<%s:%d> %zu of %zu channels do not fit the command\n", __func__, __LINE__,
                    channels.size() - list.size(), channels.size());
    const auto filler = [&list](vexor_command& record, int, unsigned) {
        auto* const bytes = reinterpret_cast<std::byte*>(&record);
        if (!list.empty())
            std::memcpy(bytes + vexor_custom_scan_s::channels::offset, list.data(),
                        list.size() * sizeof list.front());
        record.custom_scan.count = static_cast<std::uint32_t>(list.size());
    };
    return execute(VEXOR_CMD_CUSTOM_SCAN, filler, no_parser);
}

int realtek_ioctl_ops::stop_scan() {
    return execute(VEXOR_CMD_CUSTOM_SCAN_STOP, no_filler, no_parser);
}

int realtek_ioctl_ops::get_scan_result(ap_table& table) {
    return execute(VEXOR_CMD_CUSTOM_SCAN_RESULTS, fill_capacity, [&] { parse_scan_result(table); });
}

int realtek_ioctl_ops::get_rrm_scan_result(ap_table& table) {
    return execute(VEXOR_CMD_RRM_SCAN_RESULTS, fill_capacity,
                   [&] { parse_rrm_scan_result(table); });
}

void realtek_ioctl_ops::parse_scan_result(ap_table& table) const {
    if (answer().scan_result.size == 0)
        trace.info("<%s:%d> scanning result are absent\n", __func__, __LINE__);
    else
        append(table, answer(), drv, SCAN_ACTIVE, __func__);
}

void realtek_ioctl_ops::parse_rrm_scan_result(ap_table& table) const {
    if (answer().scan_result.size == 0)
        trace.info("<%s:%d> rrm scanning result are absent\n", __func__, __LINE__);
    else
        append(table, answer(), drv, SCAN_RRM, __func__);
}

int realtek_ioctl_ops::start_rrm_scan(unsigned channel, const std::string& ifname) {
    if (!is_ready()) {
        trace.warn("<%s:%d> socket is not created for action by ioctl\n", __func__, __LINE__);
        return -2;
    }
    if (set_mib("rrm_scan_chan", std::to_string(channel), ifname) != 0)
        return 0;
    if (issue(SIOCSIWSCAN, nullptr, 0) < 0) {
        trace.error("<%s:%d> cannot start RRM scanning(errno = %s)\n", __func__, __LINE__,
                    std::strerror(errno));
        set_mib("rrm_scan_chan", "0", ifname);
        return -1;
    }
    return 0;
}

int realtek_ioctl_ops::stop_rrm_scan(const std::string& ifname) {
    if (!is_ready())
        return -2;
    const int result = set_mib("rrm_scan_chan", "0", ifname);
    if (result != 0)
        trace.error("<%s:%d> cannot stop RRM scanning\n", __func__, __LINE__);
    return result;
}

int realtek_ioctl_ops::get_available_channels(std::set<unsigned>& channels) {
    const auto filler = [](vexor_command& record, int factor, unsigned size) {
        record.array.size = array_s::array::capacity(factor, size);
    };
    return execute(VEXOR_CMD_GET_AVAILABLE_CHANNELS, filler,
                   [&] { parse_available_channels(channels); });
}

void realtek_ioctl_ops::parse_available_channels(std::set<unsigned>& channels) const {
    if (answer().array.size == 0) {
        trace.error("<%s:%d> available channels data are absent\n", __func__, __LINE__);
        return;
    }
    const std::uint16_t count = held<array_s::array>(answer().array.size, __func__);
    for (std::uint16_t i = 0; i < count; ++i)
        channels.insert(static_cast<unsigned>(array_s::array::at(&answer(), i)));
}

// --- stations ---

int realtek_ioctl_ops::get_assoc_sta(std::vector<rrm_sta_realtek>& stations) {
    const auto filler = [](vexor_command& record, int factor, unsigned size) {
        record.assoc_stas.size = assoc_stas_s::stas::capacity(factor, size);
    };
    return execute(VEXOR_CMD_GET_ASSOC_STAS, filler, [&] { parse_assoc_sta(stations); });
}

void realtek_ioctl_ops::parse_assoc_sta(std::vector<rrm_sta_realtek>& stations) const {
    if (answer().assoc_stas.size == 0) {
        trace.info("<%s:%d> associated clients are absent\n", __func__, __LINE__);
        return;
    }
    const std::uint16_t count = held<assoc_stas_s::stas>(answer().assoc_stas.size, __func__);
    stations.reserve(stations.size() + count);
    for (std::uint16_t i = 0; i < count; ++i) {
        const sta_info_s entry = assoc_stas_s::stas::at(&answer(), i);
        const auto& m = entry.mac;
        trace.debug("mac == %02x:%02x:%02x:%02x:%02x:%02x\n", m[0], m[1], m[2], m[3], m[4], m[5]);
        stations.emplace_back(entry);
    }
}

int realtek_ioctl_ops::send_bsstrans_request(const std::string& ifname, const char* mac, int) {
    const libhubd::MacAddr address = libhubd::MacAddr::from_str(mac);
    if (!address.is_valid()) {
        trace.error("Error: Could not read sta_mac at iface %s\n", ifname.c_str());
        return -1;
    }
    const socket_handle sock;
    if (sock.get() < 0) {
        trace.error("Cannot open sock for ifname %s\n", ifname.c_str());
        return 0;
    }
    libhubd::MacAddr::bytes_type bytes = address.bytes();
    iwreq wrq{};
    ifname.copy(wrq.ifr_ifrn.ifrn_name, sizeof wrq.ifr_ifrn.ifrn_name);
    wrq.u.data = iw_point{bytes.data(), bytes.size(), 0};
    if (control(ioctl, sock.get(), bsstrans, wrq) < 0) {
        trace.error("Error: %s not found on %s\n", mac == nullptr ? "" : mac, ifname.c_str());
        return -1;
    }
    return 0;
}

int realtek_ioctl_ops::set_vexor_roam_attempt_timeout(const std::string& ifname, int timeout) {
    if (set_mib("roam_attempt_timeout", std::to_string(timeout), ifname) != 0) {
        trace.error("<%s:%d> cannot setup roam attempt timeout for iface %s\n", __func__, __LINE__,
                    ifname.c_str());
        return -1;
    }
    return 0;
}

// --- neighbours ---

bool realtek_ioctl_ops::in_2g(int channel) const {
    return drv.get().channel_band(channel) == BAND_2G;
}

int realtek_ioctl_ops::delete_neighbours(const std::string& entry) {
    if (!driver_io::write_entry(entry, "delall")) {
        trace.debug("Error rrm_nbr_del_nbr\n");
        return -1;
    }
    return 0;
}
