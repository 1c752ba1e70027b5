// What the service says to the RRM worker, message after message, down to the driver's commands.
#include "input.h"
#include "quiet.h"
#include "rrm_session.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::log_everything();
    RrmSession session;
    for (const std::string& message : fuzz::records(fuzz::as_text(data, size))) {
        session.service_sends(message);
        session.pass();
    }
    session.let_time_pass();
    return 0;
}
