// wids_worker: carries MAC lists from the intrusion-detection service to hubd.
#ifndef LUMD_WIDS_WORKER_H
#define LUMD_WIDS_WORKER_H

#include <functional>
#include <string>

#include "abstract_worker.h"
#include "driver_interface.h"
#include "json_reader.h"
#include "safe_queue.h"

// Accepts the list that bears this access point's list id and rejects every other; the answer goes
// out before the list is stored. No timers; the driver serves as the request side alone.
class wids_worker : public abstract_worker {
  public:
    // Everything is borrowed and outlives the worker.
    wids_worker(driver_interface& driver, safe_queue& to_service_queue,
                safe_queue& from_service_queue, const volatile bool& worker_run_flag,
                const std::string& list_id);
    ~wids_worker() override;

    bool __connect() override;
    bool execute() override;
    void __disconnect() override;
    bool condition(const volatile bool& flag) override;

  private:
    void from_service_cb(const buffer_info_ptr& buffer);
    void process_internal_message();
    void process_service_message(const json_reader& message);
    void post_reply(const char* cmd, const char* list_name);

    safe_queue& to_service;
    safe_queue& from_service;
    driver_interface& wl;
    const std::string mac_list_id;
    const std::function<void(const buffer_info_ptr&)> from_service_cb_binded;
};

#endif
