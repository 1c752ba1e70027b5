// Everything that can happen to the RRM worker, in any order. Each record is one event by its first
// byte:
//   s  a message of the service         t  a byte of seconds go by
//   b  a message of the bus             f  a byte of flags: the files of the radio daemons
//   k  what the kernel answers from now on to questions for neighbours
#include "rrm_session.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <deque>

#include "access_point.h"
#include "clock.h"
#include "input.h"
#include "quiet.h"

namespace {

constexpr std::uint32_t most_neighbours = 32;  // driver_answer has the counts beyond
constexpr std::size_t count_offset = 4;

// A sibling writes the general one last.
constexpr std::array pid_files = {"/var/run/hostapd.pid", "/var/run/guardd.pid"};
constexpr std::array notify_files = {
    "/tmp/.orvanta_notify_hostapd_started", "/tmp/.orvanta_notify_guardd_started",
    "/tmp/.orvanta_notify_config_updated", "/tmp/.orvanta_notify_timezone_changed"};
constexpr const char* notify_file = "/tmp/.orvanta_notify";
constexpr unsigned hostapd_alone = 1;

bool bit(unsigned flags, std::size_t number) {
    return (flags >> number & 1) != 0;
}

// One bit for each file, in the order above.
void set_files(unsigned flags) {
    const AccessPoint& access_point = AccessPoint::instance();
    for (std::size_t i = 0; i < pid_files.size(); ++i)
        access_point.set_present(pid_files[i], bit(flags, i));
    for (std::size_t i = 0; i < notify_files.size(); ++i)
        access_point.set_present(notify_files[i], bit(flags, pid_files.size() + i));
    access_point.set_present(notify_file, flags >> pid_files.size() != 0);
}

// Without a count in the answer the one would stand that the driver announces.
std::string with_small_count(std::string_view bytes) {
    std::string answer{bytes};
    std::uint32_t count = 0;
    answer.resize(std::max(answer.size(), count_offset + sizeof count));
    std::memcpy(&count, answer.data() + count_offset, sizeof count);
    count = std::min(count, most_neighbours);
    std::memcpy(answer.data() + count_offset, &count, sizeof count);
    return answer;
}

class Events {
  public:
    explicit Events(RrmSession& session) : session_(session) {}
    Events(const Events&) = delete;
    Events& operator=(const Events&) = delete;
    ~Events() {
        AccessPoint::instance().reset();
        if (files_set_)
            set_files(hostapd_alone);
    }

    void play(std::string_view record) {
        fuzz::Reader input{record};
        switch (input.byte()) {
            case 's':
                session_.service_sends(input.rest());
                break;
            case 'b':
                session_.bus_sends(input.rest());
                break;
            case 'k':
                AccessPoint::instance().answer_scans(
                    answers_.emplace_back(with_small_count(input.rest())));
                break;
            case 't':
                fuzz::advance_clock(input.byte());
                break;
            case 'f':
                set_files(input.byte());
                files_set_ = true;
                break;
            default:
                break;
        }
        session_.turn();
    }

  private:
    RrmSession& session_;
    std::deque<std::string> answers_;  // borrowed by the access point
    bool files_set_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::log_everything();
    RrmSession session;
    Events events{session};
    for (const std::string& record : fuzz::records(fuzz::as_text(data, size)))
        events.play(record);
    return 0;
}
