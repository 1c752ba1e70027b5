// What the kernel answers during a survey, down to its report: a byte for the kind of scan, then
// the answer to every question for neighbours. driver_answer has the counts beyond the few that are
// kept here.
#include <algorithm>
#include <cstring>

#include "access_point.h"
#include "input.h"
#include "quiet.h"
#include "rrm_session.h"

namespace {

constexpr std::uint32_t most_neighbours = 32;
constexpr std::size_t count_offset = 4;

constexpr std::string_view generic =
    R"({"version":"2.4","service":"rrm","cmd":"rrm-update","rrm-scan-channels":"1 6 36"})";
constexpr std::string_view vendor =
    R"({"version":"2.4","service":"rrm","cmd":"rrm-update","rrm-scan-channels":"1 6 36",)"
    R"("rrm-scan-delay":5,"vexor-rrm-scanning":1})";

// Without a count in the answer the one would stand that the driver announces.
void limit_count(std::string& answer) {
    std::uint32_t count = 0;
    answer.resize(std::max(answer.size(), count_offset + sizeof count));
    std::memcpy(&count, answer.data() + count_offset, sizeof count);
    count = std::min(count, most_neighbours);
    std::memcpy(answer.data() + count_offset, &count, sizeof count);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::log_everything();
    fuzz::Reader input{fuzz::as_text(data, size)};
    const bool is_generic = (input.byte() & 1) == 0;
    std::string answer{input.rest()};
    limit_count(answer);
    RrmSession session;
    AccessPoint::instance().answer_scans(answer);
    session.service_sends(is_generic ? generic : vendor);
    session.pass();
    session.let_time_pass();
    return 0;
}
