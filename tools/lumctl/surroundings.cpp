#include "surroundings.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <utility>

#include "MacAddr.h"
#include "agent_process.h"
#include "antcfg.h"
#include "captured_log.h"
#include "factorydata.h"
#include "files.h"
#include "krds.h"

namespace {

constexpr const char* hostapd_pid_file = "/var/run/hostapd.pid";
constexpr const char* guardd_pid_file = "/var/run/guardd.pid";
constexpr std::size_t small_file = 4096;
constexpr int base_16 = 16;
constexpr long interface_up = 1;  // IFF_UP of net/if.h

constexpr const char* notify_folder = "/tmp/";
constexpr const char* general_notify_file = ".orvanta_notify";
constexpr const char* notify_files[] = {
    general_notify_file, ".orvanta_notify_hostapd_started", ".orvanta_notify_guardd_started",
    ".orvanta_notify_config_updated", ".orvanta_notify_timezone_changed"};
// The agent looks ten times a second, except while it waits for an answer on the bus, 20 s.
constexpr long notify_patience = 30;  // seconds

constexpr const char* platform_check = "platform files";
constexpr const char* platform_advice = "see FILES in lumd(8) for its form";

sibling look_at(const char* path) {
    sibling daemon;
    daemon.announced = access(path, F_OK) == 0;
    const std::string text = read_file(path, small_file).value_or("");
    daemon.pid = static_cast<pid_t>(std::strtol(text.c_str(), nullptr, 10));
    daemon.alive = is_alive(daemon.pid);
    return daemon;
}

void check_sibling(report& found, const char* name, const sibling& daemon) {
    if (daemon.announced && !daemon.alive)
        return found.warning(
            name, describe(daemon),
            "lumd takes it for running: remove the file, or start " + std::string(name));
    found.ok(name, describe(daemon));
}

// The first line that the platform's libraries have logged, which says what is wrong.
std::string first_complaint() {
    const std::vector<std::string> lines = take_captured_log();
    return lines.empty() ? std::string() : lines.front();
}

std::string platform_folder() {
    const char* const folder = std::getenv("LUMD_PLATFORM_DIR");
    return folder != nullptr && *folder != '\0' ? folder : "/etc/lumd";
}

void check_factory(report& found) {
    factorydata_record record{};
    if (factorydata_load(&record) != 0)
        return found.broken(platform_check, first_complaint(), platform_advice);
    const std::string mac = record.mac;
    const bool is_mac = libhubd::MacAddr::from_str(record.mac).is_valid() &&
                        mac.find_first_of(":-0123456789abcdefABCDEF") != std::string::npos;
    if (!is_mac)
        return found.broken(
            platform_check,
            platform_folder() + "/factory.json: 'mac' is '" + mac + "', no MAC address",
            platform_advice);
    found.ok(platform_check, platform_folder() + "/factory.json: MAC " + mac);
}

struct registry_summary {
    int radios = 0;
    bool configurable_gain = false;
};

registry_summary look_at_registry() {
    registry_summary summary;
    KRDS::for_each_radio([&](const std::string&, const KRDS::RadioDescription& radio) {
        ++summary.radios;
        if (radio.antenna_gain_type == KRDS::AntennaGainType::CONFIGURABLE)
            summary.configurable_gain = true;
        return false;
    });
    return summary;
}

registry_summary check_registry(report& found) {
    const registry_summary summary = look_at_registry();
    for (const std::string& complaint : take_captured_log())
        found.broken(platform_check, complaint, platform_advice);
    if (summary.radios > 0)
        found.ok(platform_check,
                 platform_folder() + "/radios.json: " + std::to_string(summary.radios) + " radios");
    else if (found.worst() != severity::broken)
        found.broken(platform_check, platform_folder() + "/radios.json: no radios",
                     platform_advice);
    return summary;
}

// Asked for an antenna without a name, the library complains of the file or of that name.
void check_antennas(report& found, bool needed) {
    const std::string path = platform_folder() + "/antennas.json";
    if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
        if (needed)
            return found.warning(platform_check,
                                 path +
                                     ": is not there, but a radio's antenna "
                                     "gain is configurable",
                                 platform_advice);
        return found.ok(platform_check, path + ": is not there (optional)");
    }
    antcfg_record record{};
    static_cast<void>(antcfg_get("", nullptr, &record));
    const std::string complaint = first_complaint();
    if (complaint.starts_with("cannot use"))
        return found.broken(platform_check, complaint, platform_advice);
    found.ok(platform_check, path + ": can be read");
}

void check_radio(report& found, const std::string& ifname) {
    if (ifname.find('/') != std::string::npos || ifname.starts_with("."))
        return found.broken("radios", "'" + ifname + "' is no interface name",
                            "correct radios.json");
    const auto flags = read_file("/sys/class/net/" + ifname + "/flags", small_file);
    if (!flags)
        return found.broken("radios",
                            ifname + ": /sys/class/net/" + ifname + " " + reason_text(errno),
                            "load the radio's driver, or correct radios.json");
    const bool up = (std::strtol(flags->c_str(), nullptr, base_16) & interface_up) != 0;
    found.ok("radios", ifname + ": " + (up ? "up" : "down"));
}

std::string list_text(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : ", ") + name;
    return text;
}

// The names that are there, and whether one is older than the agent leaves it.
struct notify_summary {
    std::vector<std::string> names;
    bool general = false;
    bool old = false;
};

notify_summary look_at_notify_files() {
    notify_summary summary;
    for (const char* const name : notify_files) {
        const std::optional<long> age = age_of_file(notify_folder + std::string(name));
        if (!age)
            continue;
        summary.names.emplace_back(name);
        summary.general = summary.general || name == general_notify_file;
        summary.old = summary.old || *age > notify_patience;
    }
    return summary;
}

}  // namespace

sibling look_at_hostapd() {
    return look_at(hostapd_pid_file);
}

sibling look_at_guardd() {
    return look_at(guardd_pid_file);
}

std::string describe(const sibling& daemon) {
    if (!daemon.announced)
        return "not running (no pid file)";
    if (daemon.pid <= 0)
        return "its pid file names no process";
    const std::string pid = "pid " + std::to_string(daemon.pid);
    return daemon.alive ? "running, " + pid : pid + " of its pid file does not run";
}

void check_siblings(report& found, bool needed) {
    const sibling hostapd = look_at_hostapd();
    const sibling guardd = look_at_guardd();
    if (needed && !hostapd.announced && !guardd.announced)
        found.broken("hostapd",
                     std::string("neither ") + hostapd_pid_file + " nor " + guardd_pid_file +
                         " is there: lumd waits for one of them",
                     "start hostapd so that it writes its pid file");
    else
        check_sibling(found, "hostapd", hostapd);
    check_sibling(found, "guardd", guardd);
}

void check_notify_files(report& found, bool agent_runs) {
    const notify_summary summary = look_at_notify_files();
    if (summary.names.empty())
        return found.ok("notify files", "none left over in /tmp");
    const std::string text = list_text(summary.names) + " in /tmp";
    if (!agent_runs || !summary.old)
        return found.ok("notify files", text + " wait for lumd");
    if (summary.general)
        return found.warning("notify files", text + ": lumd has not taken them",
                             "look whether lumd hangs, and who owns the files");
    found.warning("notify files", text + " without " + general_notify_file + ": lumd does not look",
                  "create /tmp/" + std::string(general_notify_file) + ", or remove them");
}

void check_platform_files(report& found) {
    report own;
    static_cast<void>(take_captured_log());
    KRDS::reload();
    const registry_summary registry = check_registry(own);
    report all;
    check_factory(all);
    for (const finding& one : own.findings())
        all.add(one);
    check_antennas(all, registry.configurable_gain);
    for (const finding& one : all.findings())
        found.add(one);
}

void check_radios(report& found) {
    KRDS::for_each_radio([&found](const std::string& ifname, const KRDS::RadioDescription&) {
        check_radio(found, ifname);
        return false;
    });
    static_cast<void>(take_captured_log());
}
