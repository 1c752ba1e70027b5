#include "realtek_ioctl_ops_g6.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "driver_io.h"
#include "lum_trace.h"
#include "owned.h"

namespace {

// BSSID information 0x0867 in the byte order that the driver reads, whatever the band.
constexpr unsigned driver_bssid_information = 0x67080000;
// BSSID information as the element carries it, byte by byte (IEEE 802.11, 9.4.2.36); the second
// has the VHT bit.
constexpr unsigned ht_bssid_information = 0xAF490000;
constexpr unsigned vht_bssid_information = 0xAF590000;
// Wide Bandwidth Channel subelement of a neighbour report.
constexpr unsigned wide_bandwidth_id = 6;
constexpr unsigned wide_bandwidth_length = 3;

std::string neighbour_entry(const std::string& ifname) {
    return driver_io::format_cut(driver_io::path_size, "/proc/net/rtk_wifi6/%s/nb_report",
                                 ifname.c_str());
}

std::string custom_neighbour_entry(const std::string& ifname) {
    return driver_io::format_cut(driver_io::path_size, "/proc/net/rtk_wifi6/%s/nb_report_custom",
                                 ifname.c_str());
}

std::string to_hex(const std::string& text) {
    constexpr char digits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(2 * text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        hex += digits[byte >> 4];
        hex += digits[byte & 0xF];
    }
    return hex;
}

// What "iwpriv IFNAME get_mib NAME" printed, which is "IFNAME... get_mib:VALUE".
struct mib_answer {
    int items = 0;         // read of the two
    bool matches = false;  // it speaks of the interface that was asked for
    int value = -1;
    int error = EINVAL;  // errno

    [[nodiscard]] bool good() const { return items == 2 && matches && value >= 0; }
};

mib_answer ask_iwpriv(const std::string& name, const std::string& ifname) {
    mib_answer answer;
    if (!driver_io::is_interface_name(ifname) || !driver_io::is_plain_text(name))
        return answer;
    const std::string command = driver_io::format_cut(
        driver_io::iwpriv_command_size, "iwpriv %s get_mib %s", ifname.c_str(), name.c_str());
    errno = 0;
    const driver_io::pipe_ptr pipe = driver_io::open_read_pipe(command);
    if (pipe) {
        char word[128] = "";
        answer.items = std::fscanf(pipe.get(), "%127s get_mib:%d", word, &answer.value);
        answer.matches = std::string_view{word}.starts_with(ifname);
    }
    answer.error = errno;
    return answer;
}

}  // namespace

g6_ioctl_ops::g6_ioctl_ops(const driver_realtek& owner, const std::string& ifname)
    : realtek_ioctl_ops(owner, ifname, {g6_vexor_request, g6_bsstrans_request}) {}

// --- MIBs ---

int g6_ioctl_ops::set_mib(const std::string& name, const std::string& value,
                          const std::string& ifname) {
    if (!driver_io::is_interface_name(ifname) || !driver_io::is_plain_text(name) ||
        !driver_io::is_plain_text(value)) {
        trace.error("<%s:%d> refused MIB parametr '%s=%s' of '%s'\n", __func__, __LINE__,
                    name.c_str(), value.c_str(), ifname.c_str());
        return 0;
    }
    const std::string command =
        driver_io::format_cut(driver_io::iwpriv_command_size, "iwpriv %s set_mib %s=%s",
                              ifname.c_str(), name.c_str(), value.c_str());
    const driver_io::pipe_ptr pipe = driver_io::open_read_pipe(command);
    return 0;
}

int g6_ioctl_ops::get_mib(const std::string& name, std::span<std::byte> out,
                          const std::string& ifname) {
    const mib_answer answer = ask_iwpriv(name, ifname);
    if (!answer.good()) {
        trace.error(
            "<%s:%d> cannot get MIB parametr '%s'(errno = (%d)%s)(ret == %d), mib_value %d\n",
            __func__, __LINE__, name.c_str(), answer.error, std::strerror(answer.error),
            answer.items, answer.value);
        return -1;
    }
    const auto value = std::as_bytes(std::span{&answer.value, 1});
    std::copy_n(value.begin(), std::min(value.size(), out.size()), out.begin());
    return 0;
}

int g6_ioctl_ops::get_actual_tx_power(std::span<std::byte> out, const std::string& ifname) {
    return get_mib("power_target", out, ifname);
}

int g6_ioctl_ops::read_mib(const std::string& name, const std::string& ifname) {
    std::int32_t value = 0;
    get_mib(name, std::as_writable_bytes(std::span{&value, 1}), ifname);
    return value;
}

bool g6_ioctl_ops::get_obss_coex(const std::string& ifname) {
    if (!driver_io::accepts(ifname, __func__, __LINE__))
        return false;
    const std::string path = driver_io::format_cut(
        driver_io::path_size, "/proc/net/rtk_wifi6/%s/coex_2g_40m", ifname.c_str());
    int obss_value = -1;
    errno = 0;
    const file_ptr file{std::fopen(path.c_str(), "r")};
    const int ret = file ? std::fscanf(file.get(), "%d", &obss_value) : 0;
    const int error = errno;
    if (ret != 1) {
        trace.error("<%s:%d> cannot get OBSS parametr (errno = (%d)%s)(ret == %d), obss_value %d\n",
                    __func__, __LINE__, error, std::strerror(error), ret, obss_value);
        return false;
    }
    trace.debug("<%s:%d> get OBSS parametr, obss_value %d\n", __func__, __LINE__, obss_value);
    return obss_value > 0;
}

// --- neighbours ---

int g6_ioctl_ops::add_to_hostapd(const std::string& ifname, const libhubd::MacAddr& bssid,
                                 const std::string& ssid, int channel,
                                 std::uint8_t operating_class) {
    const auto use_40m = static_cast<unsigned>(read_mib("use40M", ifname));
    const auto second_offset = static_cast<unsigned>(read_mib("2ndchoffset", ifname));
    const auto number = static_cast<unsigned>(channel);
    const bool low_band = in_2g(channel);
    const std::string command = driver_io::format_cut(
        driver_io::wpa_cli_command_size,
        "wpa_cli -g /var/run/hostapd/global raw IFNAME=%s SET_NEIGHBOR %s ssid=%s "
        "nr=%s%04x%02x%02x%02x%02x%02x%02x%02x%02x",
        ifname.c_str(), bssid.str().c_str(), to_hex(ssid).c_str(), bssid.str_solid().c_str(),
        low_band ? ht_bssid_information : vht_bssid_information, operating_class, number,
        static_cast<unsigned>(low_band ? phy_type_ht : phy_type_vht), wide_bandwidth_id,
        wide_bandwidth_length, use_40m, number, second_offset);
    if (!driver_io::open_write_pipe(command)) {
        trace.debug("Error rrm_nbr_add_nbr\n");
        return -1;
    }
    return 0;
}

int g6_ioctl_ops::set_rrm_nbr_ap(const std::string& ifname, const libhubd::MacAddr& bssid,
                                 const std::string& ssid, int channel, int, int,
                                 std::uint8_t operating_class, int value, int custom) {
    if (!driver_io::accepts(ifname, __func__, __LINE__))
        return -1;
    if (add_to_hostapd(ifname, bssid, ssid, channel, operating_class) != 0)
        return -1;
    constexpr std::size_t line_size = 128;
    const std::string line = driver_io::format_cut(
        line_size, "add %s %u %u %u %u %u", bssid.str().c_str(), driver_bssid_information, 0U,
        static_cast<unsigned>(channel), 0U, static_cast<unsigned>(value));
    if (!driver_io::write_entry(
            custom != 0 ? custom_neighbour_entry(ifname) : neighbour_entry(ifname), line)) {
        trace.debug("Error rrm_nbr_add_nbr\n");
        return -1;
    }
    return 0;
}

int g6_ioctl_ops::clear_rrm_nbr_ap_list(const std::string& ifname) {
    if (!driver_io::accepts(ifname, __func__, __LINE__))
        return -1;
    const std::string command = driver_io::format_cut(
        driver_io::wpa_cli_command_size,
        "wpa_cli -g /var/run/hostapd/global raw IFNAME=%s REMOVE_ALL_NEIGHBOR", ifname.c_str());
    if (!driver_io::open_write_pipe(command)) {
        trace.debug("Error rrm_nbr_add_nbr\n");
        return -1;
    }
    return delete_neighbours(neighbour_entry(ifname));
}

int g6_ioctl_ops::clear_vexor_nbr_ap_list(const std::string& ifname) {
    return driver_io::accepts(ifname, __func__, __LINE__)
               ? delete_neighbours(custom_neighbour_entry(ifname))
               : -1;
}
