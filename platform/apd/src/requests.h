// Requests answers what comes over the message bus to the configuration store (module 1), the
// network manager (6) and the scan daemon (34).
//
// One thread. Borrows store and manager.
#ifndef PLATFORM_APD_REQUESTS_H
#define PLATFORM_APD_REQUESTS_H

#include <functional>
#include <memory>
#include <string>

#include "bus_module.h"
#include "config_store.h"
#include "manager.h"

namespace apd {

class Requests {
  public:
    enum Module { kStore = 1, kManager = 6, kAgentEvents = 31, kScan = 34 };
    using Request = std::shared_ptr<BusModule::Request>;

    Requests(ConfigStore& store, Manager& manager) : store_(store), manager_(manager) {}

    // One request to that module; what it does not know gets an answer with "status" "error".
    void take(Module module, const Request& request);

  private:
    using Handler = void (Requests::*)(const Request&);
    struct Row;

    void get(const Request& request);
    void show(const Request& request);
    void set(const Request& request);
    void changes(const Request& request);
    void commit(const Request& request);
    void revert(const Request& request);
    void status(const Request& request);
    void settings(const Request& request);
    void update_radio(const Request& request);
    void reset_radio(const Request& request);
    void update_ft(const Request& request);
    void reset_ft(const Request& request);
    void update_mac_lists(const Request& request);
    void lock_scan(const Request& request);
    void unlock_scan(const Request& request);

    static const Row kRows[];

    ConfigStore& store_;
    Manager& manager_;
};

}  // namespace apd

#endif
