// What the intrusion-detection service says to the WIDS worker, message after message.
#include <memory>

#include "input.h"
#include "live_driver.h"
#include "quiet.h"
#include "report.h"
#include "safe_queue.h"
#include "wids_worker.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const volatile bool run = true;
    static driver_realtek& driver = fuzz::live_driver();
    static safe_queue to_service;
    static safe_queue from_service;
    // Keeps nothing from one message to the next.
    static wids_worker worker(driver, to_service, from_service, run, "list-7");
    fuzz::log_everything();
    for (const std::string& text : fuzz::records(fuzz::as_text(data, size))) {
        const auto message = std::make_shared<buffer_info_t>();
        message->append(text.data(), static_cast<unsigned>(text.size()));
        from_service.enqueue(message);
        worker.execute();
    }
    fuzz::check_reports(to_service);
    return 0;
}
