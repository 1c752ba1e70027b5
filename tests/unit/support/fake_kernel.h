// FakeKernel: the radio side of the kernel as a small working model. What is set through it is what
// the next question reads; every request is kept in order; faults can be put on top.
//
// It lays out the records by the kernel's own offsets, independent of the program's headers.
#ifndef TESTS_FAKE_KERNEL_H
#define TESTS_FAKE_KERNEL_H

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kernel.h"
#include "temporary_folder.h"

class FakeKernel : public lab::Kernel {
  public:
    enum Request : unsigned long {
        SCAN_TRIGGER = 0x8B18,
        RTL8192CD_BSSTRANS = 0x8BA6,
        RTL8192CD_VEXOR = 0x8BBF,
        RTL8192CD_SET_MIB = 0x89F1,
        RTL8192CD_GET_MIB = 0x89F2,
        G6_VEXOR = 0x89F4,
        G6_BSSTRANS = 0x89F6
    };
    enum Command : std::uint32_t {
        CUSTOM_SCAN = 0,
        CUSTOM_SCAN_STOP = 1,
        CUSTOM_SCAN_RESULTS = 2,
        RRM_SCAN_RESULTS = 3,
        GET_ASSOC_STAS = 4,
        GET_AVAILABLE_CHANNELS = 5
    };
    static constexpr std::size_t buffer_size = 131070;

    using Mac = std::array<std::uint8_t, 6>;
    struct Neighbour {
        Mac bssid{};
        std::int32_t signal = 0;
        std::int32_t channel = 0;
        std::int32_t bw = 0;
        std::int32_t tx_power = 0;
        std::uint16_t chanspec = 0;
    };
    struct Station {
        Mac mac{};
        std::array<std::int32_t, 4> rssi{};
        std::uint8_t roam_attempt = 0;
        std::uint8_t is_no_balance = 0;
    };
    struct Interface {
        std::map<std::string, std::string> mibs;  // values as the bytes that the driver gives
        std::vector<std::int32_t> channels;
        std::vector<Neighbour> heard;      // by the generic scan
        std::vector<Neighbour> rrm_heard;  // by the RRM scan
        std::vector<Station> stations;
        std::vector<std::uint16_t> scanning;  // channels of the running generic scan
        bool scan_runs = false;
        std::vector<Mac> asked_to_move;  // stations, by BSS transition requests
    };
    // One request as it came.
    struct Call {
        unsigned long request = 0;
        std::string ifname;
        std::uint16_t length = 0;
        std::string data;  // `length` bytes; the whole buffer of a vendor command
        bool without_data = false;

        [[nodiscard]] std::uint32_t word(std::size_t offset) const {
            std::uint32_t value = 0;
            std::memcpy(&value, data.data() + offset, sizeof value);
            return value;
        }
    };
    struct Written {
        std::string path;
        std::string content;
        bool operator==(const Written&) const = default;
    };

    // Installs itself with a root folder of its own; removes both at the end.
    FakeKernel() {
        for (const char* folder : {"/proc/net/rtk_wifi6", "/sys/class/net", "/tmp", "/var/run"})
            std::filesystem::create_directories(root() + folder);
        lab::set_root(root());
        lab::install(this);
    }
    ~FakeKernel() override {
        lab::install(nullptr);
        lab::set_root("");
    }
    FakeKernel(const FakeKernel&) = delete;
    FakeKernel& operator=(const FakeKernel&) = delete;

    // --- the model ---

    [[nodiscard]] const std::string& root() const { return root_.path(); }
    Interface& interface(const std::string& ifname) { return interfaces_[ifname]; }

    // The interface exists, with its entries below /proc and /sys, and is up or down.
    void add_interface(const std::string& ifname, bool up = true) {
        for (const std::string folder : {"/proc/", "/proc/net/rtk_wifi6/", "/sys/class/net/"})
            std::filesystem::create_directories(root() + folder + ifname);
        put_file("/sys/class/net/" + ifname + "/flags", up ? "0x1003\n" : "0x1002\n");
        interfaces_[ifname];
    }
    void remove_interface(const std::string& ifname) {
        for (const std::string folder : {"/proc/", "/proc/net/rtk_wifi6/", "/sys/class/net/"})
            std::filesystem::remove_all(root() + folder + ifname);
        interfaces_.erase(ifname);
    }
    void set_mib(const std::string& ifname, const std::string& name, std::int32_t value) {
        std::string bytes(sizeof value, '\0');
        std::memcpy(bytes.data(), &value, sizeof value);
        interfaces_[ifname].mibs[name] = bytes;
    }
    // As text, as the set ioctl carried it.
    [[nodiscard]] std::string mib_text(const std::string& ifname, const std::string& name) const {
        const auto found = set_texts_.find({ifname, name});
        return found == set_texts_.end() ? "" : found->second;
    }
    // A file of the virtual /proc, /sys, /tmp or /var/run; its folders are made.
    void put_file(const std::string& path, const std::string& content) {
        std::filesystem::create_directories(std::filesystem::path{root() + path}.parent_path());
        std::ofstream{root() + path} << content;
    }
    [[nodiscard]] std::string file(const std::string& path) const {
        std::ostringstream content;
        content << std::ifstream{root() + path}.rdbuf();
        return content.str();
    }

    // --- faults ---

    // Every ioctl of that number fails; 0 ends it.
    void fail(unsigned long request, int error) { request_errors_[request] = error; }
    void fail_command(Command command, int error) { command_errors_[command] = error; }
    // Answers with that count, whatever is in the model.
    void claim_count(Command command, std::uint32_t count) { claimed_counts_[command] = count; }
    // Answers a MIB with that length, whatever its value has.
    void claim_mib_length(std::uint16_t length) { claimed_mib_length_ = length; }

    // --- what happened ---

    [[nodiscard]] std::vector<Call> calls() const {
        const std::lock_guard lock{mutex_};
        return calls_;
    }
    [[nodiscard]] std::vector<Written> writes() const {
        const std::lock_guard lock{mutex_};
        return writes_;
    }
    void forget() {
        const std::lock_guard lock{mutex_};
        calls_.clear();
        writes_.clear();
    }
    // One word per request, in order: "wlan0 scan", "wlan0 stop", "wlan0 mib rrm_scan_chan=6", ...
    [[nodiscard]] std::vector<std::string> history() const {
        std::vector<std::string> result;
        for (const Call& call : calls())
            result.push_back(call.ifname + " " + describe(call));
        return result;
    }

    // `observer` sees each request before it is carried out.
    void watch(std::function<void(const std::string& request)> observer) {
        const std::lock_guard lock{mutex_};
        observer_ = std::move(observer);
    }

    // --- lab::Kernel ---

    int ioctl(unsigned long request, const std::string& ifname, void* data,
              std::uint16_t& length) override {
        const std::lock_guard lock{mutex_};
        auto* const bytes = static_cast<char*>(data);
        const bool vexor = request == RTL8192CD_VEXOR || request == G6_VEXOR;
        Call call{request, ifname, length, {}, data == nullptr};
        if (bytes != nullptr)
            call.data.assign(bytes, vexor ? buffer_size : length);
        calls_.push_back(call);
        if (observer_)
            observer_(call.ifname + " " + describe(call));
        if (const auto error = request_errors_.find(request);
            error != request_errors_.end() && error->second != 0)
            return -error->second;
        const auto found = interfaces_.find(ifname);
        if (found == interfaces_.end())
            return -ENODEV;
        if (vexor)
            return command(call.word(0), found->second, bytes);
        return simple(call, found->second, bytes, length);
    }

    void written(const std::string& path, const std::string& content) override {
        const std::lock_guard lock{mutex_};
        writes_.push_back({path, content});
    }

  private:
    static constexpr std::size_t list_offset = 8;
    static constexpr std::size_t stations_offset = 12;

    template <typename T>
    static void put(char* at, T value) {
        std::memcpy(at, &value, sizeof value);
    }

    static std::string describe(const Call& call) {
        static const std::array<const char*, 6> commands = {"scan",        "stop",     "results",
                                                            "rrm-results", "stations", "channels"};
        switch (call.request) {
            case RTL8192CD_VEXOR:
            case G6_VEXOR:
                return call.word(0) < commands.size() ? commands[call.word(0)] : "?";
            case RTL8192CD_SET_MIB:
                return std::string{"set "} + call.data.c_str();
            case RTL8192CD_GET_MIB:
                return std::string{"get "} + call.data.c_str();
            case SCAN_TRIGGER:
                return "trigger";
            default:
                return "move";
        }
    }

    int command(std::uint32_t code, Interface& interface, char* buffer) {
        const auto kind = static_cast<Command>(code);
        if (const auto error = command_errors_.find(kind);
            error != command_errors_.end() && error->second != 0)
            return -error->second;
        switch (kind) {
            case CUSTOM_SCAN:
                start_scan(interface, buffer);
                return 0;
            case CUSTOM_SCAN_STOP:
                interface.scan_runs = false;
                return 0;
            case CUSTOM_SCAN_RESULTS:
                neighbours(interface.heard, buffer);
                break;
            case RRM_SCAN_RESULTS:
                neighbours(interface.rrm_heard, buffer);
                break;
            case GET_ASSOC_STAS:
                stations(interface.stations, buffer);
                break;
            case GET_AVAILABLE_CHANNELS:
                channels(interface.channels, buffer);
                break;
            default:
                return -EOPNOTSUPP;
        }
        if (const auto claimed = claimed_counts_.find(kind); claimed != claimed_counts_.end())
            put(buffer + (kind == GET_ASSOC_STAS ? 8 : 4), claimed->second);
        return 0;
    }

    static void start_scan(Interface& interface, const char* buffer) {
        std::uint32_t count = 0;
        std::memcpy(&count, buffer + 4, sizeof count);
        interface.scanning.resize(count);
        if (count != 0)
            std::memcpy(interface.scanning.data(), buffer + list_offset, count * 2);
        interface.scan_runs = true;
    }

    // How many entries of `size` bytes the buffer takes, at most.
    static std::size_t fitting(std::size_t count, std::size_t offset, std::size_t size) {
        return std::min(count, (buffer_size - offset) / size);
    }

    static void neighbours(const std::vector<Neighbour>& list, char* buffer) {
        const std::size_t count = fitting(list.size(), list_offset, 28);
        put(buffer + 4, static_cast<std::uint32_t>(count));
        for (std::size_t i = 0; i < count; ++i) {
            char* const entry = buffer + list_offset + i * 28;
            std::memcpy(entry, list[i].bssid.data(), 6);
            put(entry + 8, list[i].signal);
            put(entry + 12, list[i].channel);
            put(entry + 16, list[i].bw);
            put(entry + 20, list[i].tx_power);
            put(entry + 24, list[i].chanspec);
        }
    }

    static void stations(const std::vector<Station>& list, char* buffer) {
        const std::size_t count = fitting(list.size(), stations_offset, 28);
        put(buffer + 8, static_cast<std::uint32_t>(count));
        for (std::size_t i = 0; i < count; ++i) {
            char* const entry = buffer + stations_offset + i * 28;
            std::memcpy(entry, list[i].mac.data(), 6);
            std::memcpy(entry + 8, list[i].rssi.data(), 16);
            put(entry + 24, list[i].roam_attempt);
            put(entry + 25, list[i].is_no_balance);
        }
    }

    static void channels(const std::vector<std::int32_t>& list, char* buffer) {
        const std::size_t count = fitting(list.size(), list_offset, 4);
        put(buffer + 4, static_cast<std::uint32_t>(count));
        if (count != 0)
            std::memcpy(buffer + list_offset, list.data(), count * 4);
    }

    int simple(const Call& call, Interface& interface, char* data, std::uint16_t& length) {
        switch (call.request) {
            case RTL8192CD_SET_MIB:
                return set_mib_text(call.ifname, interface, data);
            case RTL8192CD_GET_MIB:
                return get_mib(interface, data, length);
            case RTL8192CD_BSSTRANS:
            case G6_BSSTRANS: {
                Mac mac{};
                std::memcpy(mac.data(), data, mac.size());
                interface.asked_to_move.push_back(mac);
                return 0;
            }
            default:
                return 0;
        }
    }

    int set_mib_text(const std::string& ifname, Interface& interface, const std::string& text) {
        const std::size_t equals = text.find('=');
        if (equals == std::string::npos)
            return -EINVAL;
        const std::string name = text.substr(0, equals);
        const std::string value = text.substr(equals + 1);
        set_texts_[{ifname, name}] = value;
        std::string bytes(sizeof(std::int32_t), '\0');
        put(bytes.data(), static_cast<std::int32_t>(std::strtol(value.c_str(), nullptr, 10)));
        interface.mibs[name] = bytes;
        return 0;
    }

    int get_mib(const Interface& interface, char* data, std::uint16_t& length) const {
        const auto found = interface.mibs.find(data);
        if (found == interface.mibs.end())
            return -EINVAL;
        std::memcpy(data, found->second.data(), found->second.size());
        length = claimed_mib_length_ != 0 ? claimed_mib_length_
                                          : static_cast<std::uint16_t>(found->second.size());
        return 0;
    }

    const TemporaryFolder root_;
    mutable std::mutex mutex_;
    std::map<std::string, Interface> interfaces_;
    std::map<std::pair<std::string, std::string>, std::string> set_texts_;
    std::map<unsigned long, int> request_errors_;
    std::map<Command, int> command_errors_;
    std::map<Command, std::uint32_t> claimed_counts_;
    std::uint16_t claimed_mib_length_ = 0;
    std::vector<Call> calls_;
    std::function<void(const std::string&)> observer_;
    std::vector<Written> writes_;
};

#endif
