#include "daemon.h"

#include <poll.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>

#include "factorydata.h"
#include "logsink.h"
#include "ready.h"

namespace apd {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// While a radio starts or switches.
constexpr milliseconds kBusyPace{200};
// Otherwise: whether hostapd and the message bus are still there.
constexpr milliseconds kIdlePace{1000};
// Looks for a hostapd that was started just before, until its absence is told.
constexpr int kHostapdLooks = 5;

std::optional<Mac> base_mac() {
    factorydata_record data{};
    const bool known = factorydata_load(&data) == 0;
    const std::optional<Mac> mac = known ? parse_mac(data.mac) : std::nullopt;
    if (!mac)
        logsink_message(SINK_WARNING,
                        "there is no address in the factory data: it is made from the radio's");
    return mac;
}

std::string folder_of(const std::string& path) {
    return std::filesystem::path{path}.parent_path().string();
}

void make_folder(const std::string& path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error)
        logsink_message(SINK_ERROR, "cannot make %s: %s", path.c_str(), error.message().c_str());
}

const DaemonOptions& with_folders(const DaemonOptions& options) {
    make_folder(options.run_folder);
    make_folder(options.state_folder);
    return options;
}

}  // namespace

Daemon::Daemon(const DaemonOptions& options)
    : store_({.stored = with_folders(options).config,
              .service = options.run_folder + "/service.json",
              .last_good = options.state_folder + "/last-good.json"},
             judge_access_point),
      hostapd_(options.hostapd),
      files_(options.agent_folder, options.hostapd_pid),
      store_module_(Requests::kStore,
                    [this](const auto& request) { requests_.take(Requests::kStore, request); }),
      manager_module_(Requests::kManager,
                      [this](const auto& request) { requests_.take(Requests::kManager, request); }),
      scan_module_(Requests::kScan,
                   [this](const auto& request) { requests_.take(Requests::kScan, request); }),
      manager_(
          {.store = store_,
           .hostapd = hostapd_,
           .kernel = kernel_,
           .files = files_,
           .folder = options.run_folder,
           .control_folder = folder_of(options.hostapd),
           .base_mac = base_mac(),
           .tell_agent =
               [this](const Json& trap) { manager_module_.send(Requests::kAgentEvents, trap); }}),
      requests_(store_, manager_) {
    if (!store_.load())
        logsink_message(SINK_WARNING, store_.load_last_good()
                                          ? "goes on with the settings that were usable last"
                                          : "no access point is set up");
    store_.load_service();
    manager_.reloaded();
}

void Daemon::run() {
    // Of the bus: what is asked from now on waits there.
    look_for_bus();
    tell_ready();
    while (!over_) {
        if (reload_.exchange(false))
            reload_settings();
        look_around();
        serve_hostapd();
        serve_bus();
        manager_.tick();
        wait();
    }
}

void Daemon::wait() {
    std::array<pollfd, 4> entries{{{hostapd_.fd(), POLLIN, 0},
                                   {store_module_.fd(), POLLIN, 0},
                                   {manager_module_.fd(), POLLIN, 0},
                                   {scan_module_.fd(), POLLIN, 0}}};
    const milliseconds pace = manager_.is_busy() ? kBusyPace : kIdlePace;
    static_cast<void>(poll(entries.data(), entries.size(), static_cast<int>(pace.count())));
}

void Daemon::serve_hostapd() {
    while (const std::optional<HostapdLink::Event> event = hostapd_.next_event())
        manager_.take_event(event->ifname, event->text);
}

// The bus first: what the agent asks in the meantime waits there for its answer, and would be lost
// before.
void Daemon::look_around() {
    if (steady_clock::now() < look_at_)
        return;
    look_for_bus();
    look_for_hostapd();
    look_at_ = steady_clock::now() + kIdlePace;
}

void Daemon::look_for_bus() {
    const bool joined = store_module_.join() && manager_module_.join() && scan_module_.join();
    if (!joined && !bus_missed_)
        logsink_message(SINK_WARNING, "the message bus is not there");
    bus_missed_ = !joined;
}

void Daemon::look_for_hostapd() {
    if (hostapd_.is_connected())
        static_cast<void>(hostapd_.check());
    if (manager_.has_hostapd() && !hostapd_.is_connected()) {
        if (hostapd_.is_silent())
            manager_.hostapd_fell_silent();
        else
            manager_.hostapd_went();
    }
    if (!manager_.has_hostapd() && hostapd_.connect())
        if (const std::optional<int> pid = hostapd_.pid())
            manager_.hostapd_came(*pid);
    if (manager_.has_hostapd())
        looks_in_vain_ = kHostapdLooks;  // from now on the manager tells when it goes
    else if (looks_in_vain_ < kHostapdLooks && ++looks_in_vain_ == kHostapdLooks)
        logsink_message(SINK_WARNING, "hostapd is not there: nobody answers at %s",
                        hostapd_.socket().c_str());
}

void Daemon::serve_bus() {
    for (BusModule* const module : {&store_module_, &manager_module_, &scan_module_})
        module->dispatch();
}

void Daemon::reload_settings() {
    if (!store_.load())
        return;
    logsink_message(SINK_INFO, "the settings were read anew");
    manager_.reloaded();
}

}  // namespace apd
