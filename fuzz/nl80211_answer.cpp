// What the kernel answers over nl80211: a byte for the kind of record, then the datagram, whose own
// sequence number and family count, so that its messages are read and not left out.
#include <linux/netlink.h>

#include <cstring>

#include "input.h"
#include "nl_answer.h"
#include "platform-specific/nl80211_records.h"

namespace {

template <typename Record>
void read(const nl_attributes& message) {
    Record::read(message);
}

void read_bss(const nl_attributes& message) {
    if (const auto bss = bss_record::read(message)) {
        const int bw = bss->info.bw;
        fuzz::require(bw == 20 || bw == 40 || bw == 80 || bw == 160);
        const auto sub_band = static_cast<std::uint32_t>(bss->info.primary_channel);
        fuzz::require((sub_band & ~LWLIO_CHANSPEC_CTL_SB_MASK) == 0);
    }
}

void read_interface(const nl_attributes& message) {
    if (const auto found = interface_record::read(message))
        fuzz::require((found->channel.chanspec() & LWLIO_CHANSPEC_BW_MASK) != 0);
}

constexpr void (*kinds[])(const nl_attributes&) = {read_interface, read<frequency_record>, read_bss,
                                                   read<survey_record>, read<station_record>};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Reader input{fuzz::as_text(data, size)};
    const auto kind = kinds[input.byte() % std::size(kinds)];
    const std::vector<std::uint8_t> datagram{input.rest().begin(), input.rest().end()};
    nlmsghdr first{};
    if (datagram.size() >= sizeof first)
        std::memcpy(&first, datagram.data(), sizeof first);
    const nl_handler handler = [kind](std::uint8_t, const nl_attributes& message) {
        kind(message);
    };
    nl_answer answer{first.nlmsg_type, first.nlmsg_seq, handler};
    answer.take(datagram);
    fuzz::require(answer.result() <= 0);
    nl_read_events(first.nlmsg_type, datagram, handler);
    return 0;
}
