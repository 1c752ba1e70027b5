#include "wids_worker.h"

#include "json_writer.h"
#include "lum_trace.h"
#include "text.h"

namespace {

constexpr int wake_up_wait = 100000;           // microseconds
constexpr int wids_reconnect_pause = 1000000;  // microseconds

constexpr const char* wids_service = "wids-mac-service";

}  // namespace

wids_worker::wids_worker(driver_interface& driver, safe_queue& to_service_queue,
                         safe_queue& from_service_queue, const volatile bool& worker_run_flag,
                         const std::string& list_id)
    : abstract_worker(worker_run_flag, "wids", wake_up_wait, wids_reconnect_pause),
      to_service(to_service_queue),
      from_service(from_service_queue),
      wl(driver),
      mac_list_id(list_id),
      from_service_cb_binded([this](const buffer_info_ptr& b) { from_service_cb(b); }) {}

wids_worker::~wids_worker() {
    join();
}

bool wids_worker::__connect() {
    return true;
}

bool wids_worker::execute() {
    from_service.dequeue(from_service_cb_binded);
    return true;
}

void wids_worker::__disconnect() {}

bool wids_worker::condition(const volatile bool& flag) {
    return flag;
}

void wids_worker::from_service_cb(const buffer_info_ptr& buffer) {
    const json_reader message{buffer->c_str()};
    trace.info("Got message: %s\n", buffer->c_str());
    const char* service = message.get_string("service");
    if (equals_ignoring_case(service, internal_service))
        process_internal_message();
    else if (equals_ignoring_case(service, wids_service))
        process_service_message(message);
}

// The state of the link is nothing to this worker.
void wids_worker::process_internal_message() {}

void wids_worker::process_service_message(const json_reader& message) {
    const char* list_name = message.get_string("Name");
    trace.info("Get message with name '%s' (compare with '%s')!\n", text_of(list_name),
               mac_list_id.c_str());
    if (!equals_ignoring_case(list_name, mac_list_id.c_str())) {
        trace.info("Wrong list name\n");
        post_reply("mac-list-rejected", list_name != nullptr ? list_name : "empty-name");
        return;
    }
    trace.info("Our mac list was geted, renew mac lists!\n");
    post_reply("mac-list-received", list_name);
    wl.set_wisd_bw_list(message.serialize());
}

void wids_worker::post_reply(const char* cmd, const char* list_name) {
    json_writer reply{wids_service, cmd, "", protocol_version};
    reply.insert_string("Name", list_name);
    to_service.enqueue_json(reply);
}
