// What the message bus brings to the RRM worker, message after message.
#include "input.h"
#include "quiet.h"
#include "rrm_session.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::log_everything();
    RrmSession session;
    for (const std::string& message : fuzz::records(fuzz::as_text(data, size))) {
        session.bus_sends(message);
        session.pass();
    }
    return 0;
}
