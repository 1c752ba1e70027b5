#include "access_point.h"

#include <fcntl.h>
#include <sys/select.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "input.h"
#include "platform-specific/vexor_command.h"

namespace {

constexpr std::size_t mib_buffer = 2048;

constexpr std::string_view default_tool_output = "wlan1     get_mib:53284\n";  // 5 GHz, 20 MHz, 36

constexpr std::array<ap_info_s, 2> neighbours = {{
    {{0xaa, 0, 0, 0, 0, 1}, {}, -60, 6, 20, 60, 0x1006, {}},
    {{0xaa, 0, 0, 0, 0, 2}, {}, -70, 44, 80, 80, 0xe12a, {}},
}};
constexpr std::array<sta_info_s, 2> stations = {{
    {{2, 0, 0, 0, 0, 1}, {}, {40, 45, 0, 0}, 0, 0, {}},
    {{2, 0, 0, 0, 0, 2}, {}, {20, 25, 0, 0}, 1, 1, {}},
}};
constexpr std::array<std::int32_t, 4> channels = {1, 6, 11, 36};

template <typename List>
void put_list(char* buffer, std::size_t count_offset, const List& list) {
    const auto count = static_cast<std::uint32_t>(list.size());
    std::memcpy(buffer + count_offset, &count, sizeof count);
    std::memcpy(buffer + count_offset + sizeof count, list.data(), sizeof list);
}

// No character of a shell line may mean anything but itself.
bool is_plain(std::string_view command) {
    return std::all_of(command.begin(), command.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
               std::strchr(" ._:,+=@%/-", c) != nullptr;
    });
}

}  // namespace

AccessPoint& AccessPoint::instance() {
    static AccessPoint access_point;
    return access_point;
}

AccessPoint::AccessPoint() {
    setenv("LUMD_PLATFORM_DIR", folder().c_str(), 1);
    put_file("factory.json", R"({"board":"b","hw":"h","serial":"s","mac":"00:11:22:33:44:50"})");
    put_file("antennas.json", R"({"antennas":[]})");
    put_file("radios.json",
             R"({"radios":[{"ifname":"wlan0","driver":"rtl8192cd","bands":["2.4GHz"],)"
             R"("antenna-gain":{"type":"configurable"}},)"
             R"({"ifname":"wlan1","driver":"g6","bands":["5GHz"]}]})");
    for (const std::string name :
         {"wlan0", "wlan0-va0", "wlan0-va1", "wlan1", "wlan1-va0", "wlan1-va1"}) {
        std::filesystem::create_directories(folder() + "/proc/" + name);
        std::filesystem::create_directories(folder() + "/proc/net/rtk_wifi6/" + name);
        put_file("/sys/class/net/" + name + "/flags", "0x1003\n");
    }
    std::filesystem::create_directories(folder() + "/tmp");
    put_file("/var/run/hostapd.pid", "");
    // What the agent says in the system's log is neither kept nor passed on.
    std::filesystem::create_symlink("/dev/null", folder() + "/syslog");
    setlogmask(LOG_MASK(LOG_EMERG));
    lab::set_root(folder());
    lab::install(this);
    reset();
}

AccessPoint::~AccessPoint() {
    lab::install(nullptr);
    lab::set_root("");
}

void AccessPoint::reset() {
    answers_scans_ = answers_all_ = false;
    result_ = 0;
    tool_output_ = default_tool_output;
}

void AccessPoint::answer(std::string_view bytes, std::uint16_t claimed_length, int result) {
    answers_scans_ = answers_all_ = true;
    bytes_ = bytes;
    claimed_length_ = claimed_length;
    result_ = result;
}

void AccessPoint::answer_scans(std::string_view bytes) {
    answers_scans_ = true;
    bytes_ = bytes;
}

void AccessPoint::put_file(const std::string& path, std::string_view content) const {
    const std::filesystem::path file = folder() + (path.front() == '/' ? "" : "/") + path;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream{file, std::ios::binary} << content;
}

void AccessPoint::set_present(const std::string& path, bool present) const {
    const std::string file = folder() + path;
    if (!present)
        unlink(file.c_str());
    else if (const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, S_IRUSR); fd >= 0)
        close(fd);
}

int AccessPoint::ioctl(unsigned long request, const std::string&, void* data,
                       std::uint16_t& length) {
    const bool vendor = request == rtl8192cd_vexor_request || request == g6_vexor_request;
    auto* const bytes = static_cast<char*>(data);
    if (vendor) {
        vendor_command(bytes);
    } else if (request == rtl8192cd_get_mib_request && answers_all_) {
        bytes_.copy(bytes, mib_buffer);
        length = claimed_length_;
    } else if (request == rtl8192cd_get_mib_request) {
        constexpr std::uint32_t channel_6 = 0x1006;
        std::memcpy(bytes, &channel_6, sizeof channel_6);
        length = sizeof channel_6;
    }
    return result_;
}

void AccessPoint::vendor_command(char* buffer) const {
    constexpr std::size_t count_offset = 4;
    constexpr std::size_t station_count_offset = 8;
    vexor_cmd_s command{};
    std::memcpy(&command, buffer, sizeof command);
    const bool scan =
        command == VEXOR_CMD_CUSTOM_SCAN_RESULTS || command == VEXOR_CMD_RRM_SCAN_RESULTS;
    if (scan ? answers_scans_ : answers_all_)
        bytes_.copy(buffer, vexor_buffer_size);
    else if (scan)
        put_list(buffer, count_offset, neighbours);
    else if (command == VEXOR_CMD_GET_ASSOC_STAS)
        put_list(buffer, station_count_offset, stations);
    else if (command == VEXOR_CMD_GET_AVAILABLE_CHANNELS)
        put_list(buffer, count_offset, channels);
}

// One entry takes one command: a line end in it would begin another.
void AccessPoint::written(const std::string&, const std::string& content) {
    fuzz::require(content.find_first_of("\r\n") == std::string::npos);
}

// The tools: nothing is started, and no input may reach the shell's own language.
extern "C" FILE* popen(const char* command, const char*) {
    fuzz::require(is_plain(command));
    const std::string& output = AccessPoint::instance().tool_output();
    if (output.empty())
        return std::fopen("/dev/null", "r");
    return fmemopen(const_cast<char*>(output.data()), output.size(), "r");
}

extern "C" int pclose(FILE* pipe) {
    return std::fclose(pipe);
}

// The driver paces itself by waits for nothing; inputs do not.
extern "C" int select(int, fd_set*, fd_set*, fd_set*, timeval*) {
    return 0;
}
