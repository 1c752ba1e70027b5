#include "realtek_ioctl_ops_rtl8192cd.h"

#include <regex.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "driver_io.h"
#include "lum_trace.h"
#include "text.h"

namespace {

constexpr std::size_t mib_buffer_size = 2048;
constexpr std::size_t neighbour_line_size = 256;  // without the SSID
// BSSID information (IEEE 802.11, 9.4.2.36); the second has the VHT bit.
constexpr unsigned ht_bssid_information = 0x0867;
constexpr unsigned vht_bssid_information = 0x1867;

std::string neighbour_entry(const std::string& ifname) {
    return driver_io::format_cut(driver_io::path_size, "/proc/%s/rm_neighbor_report",
                                 ifname.c_str());
}

std::string custom_neighbour_entry(const std::string& ifname) {
    return driver_io::format_cut(driver_io::path_size, "/proc/%s/rm_neighbor_report_custom",
                                 ifname.c_str());
}

// An extended regular expression (regcomp(3)).
class extended_regex {
  public:
    explicit extended_regex(const char* pattern)
        : error_(regcomp(&expression_, pattern, REG_EXTENDED)) {}
    extended_regex(const extended_regex&) = delete;
    extended_regex& operator=(const extended_regex&) = delete;
    ~extended_regex() {
        if (error_ == 0)
            regfree(&expression_);
    }
    [[nodiscard]] int error() const { return error_; }
    // Finds the first match; its span in `match`.
    [[nodiscard]] bool find(const char* text, regmatch_t& match) const {
        return regexec(&expression_, text, 1, &match, 0) == 0;
    }

  private:
    regex_t expression_;
    int error_;
};

// The text behind ": " in the first line that has one and names `key`; empty without any.
std::string value_of(std::istream& lines, const char* key, const extended_regex& expression) {
    constexpr std::size_t colon_and_blank = 2;
    for (std::string line; std::getline(lines, line);) {
        regmatch_t match{};
        if (line.find(key) == std::string::npos || !expression.find(line.c_str(), match))
            continue;
        const auto begin = static_cast<std::size_t>(match.rm_so) + colon_and_blank;
        return line.substr(begin, static_cast<std::size_t>(match.rm_eo) - begin);
    }
    return {};
}

}  // namespace

rtl8192cd_ioctl_ops::rtl8192cd_ioctl_ops(const driver_realtek& owner, const std::string& ifname)
    : realtek_ioctl_ops(owner, ifname, {rtl8192cd_vexor_request, rtl8192cd_bsstrans_request}) {}

// --- MIBs ---

int rtl8192cd_ioctl_ops::set_mib(const std::string& name, const std::string& value,
                                 const std::string&) {
    std::string text = name + "=" + value;
    const std::size_t length = text.size() + 1;
    errno = E2BIG;
    if (length > UINT16_MAX || issue(rtl8192cd_set_mib_request, text.data(), length) < 0) {
        trace.error("<%s:%d> cannot set MIB parametr '%s=%s'(errno = %s)()\n", __func__, __LINE__,
                    name.c_str(), value.c_str(), std::strerror(errno));
        return -1;
    }
    return 0;
}

int rtl8192cd_ioctl_ops::get_mib(const std::string& name, std::span<std::byte> out,
                                 const std::string&) {
    std::array<char, mib_buffer_size> buffer{};
    if (name.size() + 1 > buffer.size()) {
        trace.error("<%s:%d> invalid parameter name: %s\n", __func__, __LINE__, name.c_str());
        return -1;
    }
    name.copy(buffer.data(), name.size());
    const int rc = issue(rtl8192cd_get_mib_request, buffer.data(), name.size() + 1);
    if (rc < 0) {
        const int error = errno;
        trace.error("<%s:%d> cannot get MIB parametr '%s'(errno = (%d)%s)(rc == %d)\n", __func__,
                    __LINE__, name.c_str(), error, std::strerror(error), rc);
        return -1;
    }
    const std::size_t length = std::min({answer_length(), buffer.size(), out.size()});
    std::copy_n(std::as_bytes(std::span{buffer}).begin(), length, out.begin());
    return rc;
}

int rtl8192cd_ioctl_ops::get_actual_tx_power(std::span<std::byte> out, const std::string& ifname) {
    return get_mib("actual_tx_power", out, ifname);
}

bool rtl8192cd_ioctl_ops::get_obss_coex(const std::string& ifname) {
    if (!driver_io::accepts(ifname, __func__, __LINE__))
        return false;
    constexpr char key[] = "coexist";
    const std::string path = "/proc/" + ifname + "/" + "mib_11n";
    std::ifstream file{path};
    const extended_regex expression{": .*"};
    std::string value;
    if (!file)
        trace.error("<%s:%d> cannot open procfs entry(%s)\n", __func__, __LINE__, path.c_str());
    else if (expression.error() != 0)
        trace.error("<%s:%d> cannot create regular expression(errcode == %d)\n", __func__, __LINE__,
                    expression.error());
    else
        value = value_of(file, key, expression);
    trace.debug("<%s:%d> %s == %s\n", __func__, __LINE__, key, value.c_str());
    return to_int(value.c_str()) != 0;
}

// --- neighbours ---

int rtl8192cd_ioctl_ops::set_rrm_nbr_ap(const std::string& ifname, const libhubd::MacAddr& bssid,
                                        const std::string& ssid, int channel, int bss_load_stations,
                                        int bss_load_utilisation, std::uint8_t operating_class, int,
                                        int custom) {
    if (!driver_io::accepts(ifname, __func__, __LINE__))
        return -1;
    // The entry's format has no escape: a line end would begin another command.
    if (ssid.find_first_of("\r\n") != std::string::npos) {
        trace.error("<%s:%d> refused SSID with a line end on %s\n", __func__, __LINE__,
                    ifname.c_str());
        return -1;
    }
    const bool low_band = in_2g(channel);
    const std::string line = driver_io::format_cut(
        neighbour_line_size + ssid.size(), "add %s 0x%04X %d %d %d ssid \"%s\" bssload %d %d",
        bssid.str_solid().c_str(), low_band ? ht_bssid_information : vht_bssid_information,
        operating_class, channel, low_band ? phy_type_ht : phy_type_vht, ssid.c_str(),
        bss_load_stations, bss_load_utilisation);
    if (!driver_io::write_entry(
            custom != 0 ? custom_neighbour_entry(ifname) : neighbour_entry(ifname), line)) {
        trace.debug("Error rrm_nbr_add_nbr\n");
        return -1;
    }
    return 0;
}

int rtl8192cd_ioctl_ops::clear_vexor_nbr_ap_list(const std::string& ifname) {
    return driver_io::accepts(ifname, __func__, __LINE__)
               ? delete_neighbours(custom_neighbour_entry(ifname))
               : -1;
}

int rtl8192cd_ioctl_ops::clear_rrm_nbr_ap_list(const std::string& ifname) {
    return driver_io::accepts(ifname, __func__, __LINE__)
               ? delete_neighbours(neighbour_entry(ifname))
               : -1;
}
