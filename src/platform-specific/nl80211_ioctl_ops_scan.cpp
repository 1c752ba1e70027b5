// nl80211_ioctl_ops: scans, measurements and the channels there are.
#include <linux/nl80211.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <string_view>

#include "lum_trace.h"
#include "nl80211_ioctl_ops.h"

namespace {

// A beacon comes every 100 TU of nearly all networks: two are sure to be heard.
constexpr std::uint16_t dwell_tu = 220;
// A scan that was aborted ends a little later, and meanwhile no other begins.
constexpr int abort_wait_ms = 1500;
constexpr int abort_step_ms = 50;

nl_request scan_request(std::uint32_t index, const std::vector<std::uint32_t>& frequencies,
                        bool active, std::uint16_t dwell) {
    nl_request request{NL80211_CMD_TRIGGER_SCAN};
    request.put_u32(NL80211_ATTR_IFINDEX, index);
    request.put_list(NL80211_ATTR_SCAN_FREQUENCIES, frequencies);
    // What earlier scans heard is no result of this one.
    request.put_u32(NL80211_ATTR_SCAN_FLAGS, NL80211_SCAN_FLAG_FLUSH);
    constexpr std::array any_network = {std::string_view{}};
    if (active)
        request.put_strings(NL80211_ATTR_SCAN_SSIDS, any_network);
    if (dwell != 0)
        request.put_u16(NL80211_ATTR_MEASUREMENT_DURATION, dwell);
    return request;
}

}  // namespace

// --- channels ---

int nl80211_ioctl_ops::usable_frequencies(const interface_record& own,
                                          std::vector<frequency_record>& result) {
    nl_request request{NL80211_CMD_GET_WIPHY, nl_request::dump};
    request.put_u32(NL80211_ATTR_WIPHY, own.wiphy);
    request.put_flag(NL80211_ATTR_SPLIT_WIPHY_DUMP);
    if (const int error = radios_.dump(request, result); error != 0) {
        trace.error("<%s:%d> %s: cannot read the channels: %s\n", __func__, __LINE__,
                    ifname_.c_str(), std::strerror(-error));
        return -1;
    }
    const rrm_band_t wanted = band();
    std::erase_if(result, [wanted](const frequency_record& entry) {
        return entry.disabled || band_at(entry.frequency) != wanted;
    });
    return 0;
}

int nl80211_ioctl_ops::get_available_channels(std::set<unsigned>& channels) {
    const std::optional<interface_record> own = find_interface(ifname_);
    std::vector<frequency_record> frequencies;
    if (!own || usable_frequencies(*own, frequencies) != 0)
        return -1;
    for (const frequency_record& entry : frequencies)
        if (!entry.no_ir)
            channels.insert(static_cast<unsigned>(channel_at(entry.frequency)));
    if (channels.empty())
        trace.error("<%s:%d> available channels data are absent\n", __func__, __LINE__);
    return 0;
}

// --- scans ---

int nl80211_ioctl_ops::trigger(const interface_record& own,
                               const std::vector<std::uint32_t>& frequencies, bool active,
                               std::uint16_t dwell) {
    const nl_request request = scan_request(own.index, frequencies, active, dwell);
    int result = radios_.command(request);
    for (int waited = 0; result == -EBUSY && waited < abort_wait_ms; waited += abort_step_ms) {
        poll(nullptr, 0, abort_step_ms);
        result = radios_.command(request);
    }
    return result;
}

int nl80211_ioctl_ops::start_scan(const std::set<unsigned>& channels) {
    const std::optional<interface_record> own = find_interface(ifname_);
    std::vector<frequency_record> usable;
    if (!own || usable_frequencies(*own, usable) != 0)
        return -1;
    std::vector<std::uint32_t> frequencies;
    for (const frequency_record& entry : usable)
        if (channels.empty() ||
            channels.contains(static_cast<unsigned>(channel_at(entry.frequency))))
            frequencies.push_back(entry.frequency);
    if (frequencies.empty()) {
        trace.error("<%s:%d> %s: none of the channels can be scanned\n", __func__, __LINE__,
                    ifname_.c_str());
        return -1;
    }
    if (const int result = trigger(*own, frequencies, true, 0); result != 0) {
        trace.error("<%s:%d> %s: cannot start a scan: %s\n", __func__, __LINE__, ifname_.c_str(),
                    std::strerror(-result));
        return -1;
    }
    return 0;
}

int nl80211_ioctl_ops::stop_scan() {
    const std::optional<interface_record> own = find_interface(ifname_);
    if (!own)
        return -1;
    nl_request request{NL80211_CMD_ABORT_SCAN};
    request.put_u32(NL80211_ATTR_IFINDEX, own->index);
    const int result = radios_.command(request);
    if (result == 0 || result == -ENOENT)  // which says that none runs
        return 0;
    trace.error("<%s:%d> %s: cannot stop a scan: %s\n", __func__, __LINE__, ifname_.c_str(),
                std::strerror(-result));
    return -1;
}

int nl80211_ioctl_ops::heard(std::vector<bss_record>& result) {
    const std::optional<interface_record> own = find_interface(ifname_);
    if (!own)
        return -1;
    nl_request request{NL80211_CMD_GET_SCAN, nl_request::dump};
    request.put_u32(NL80211_ATTR_IFINDEX, own->index);
    if (const int error = radios_.dump(request, result); error != 0) {
        trace.error("<%s:%d> %s: cannot read the scan's result: %s\n", __func__, __LINE__,
                    ifname_.c_str(), std::strerror(-error));
        return -1;
    }
    return 0;
}

int nl80211_ioctl_ops::get_scan_result(ap_table& table) {
    std::vector<bss_record> result;
    if (heard(result) != 0)
        return -1;
    if (result.empty())
        trace.info("<%s:%d> scanning result are absent\n", __func__, __LINE__);
    for (const bss_record& bss : result)
        table.push_back(bss.info);
    return 0;
}

// --- the measurement of one channel ---

int nl80211_ioctl_ops::start_rrm_scan(unsigned channel, const std::string& ifname) {
    const std::optional<interface_record> own = find_interface(ifname);
    if (!own)
        return -1;
    const std::vector<std::uint32_t> frequencies{frequency_of(band(), channel)};
    int result = trigger(*own, frequencies, false, dwell_tu);
    if (result == -EOPNOTSUPP)  // most radios stay as long as they like
        result = trigger(*own, frequencies, false, 0);
    if (result != 0) {
        trace.error("<%s:%d> cannot start RRM scanning(errno = %s)\n", __func__, __LINE__,
                    std::strerror(-result));
        return -1;
    }
    radios_.measured[ifname] = channel;
    return 0;
}

int nl80211_ioctl_ops::stop_rrm_scan(const std::string& ifname) {
    radios_.measured.erase(ifname);
    return stop_scan();
}

int nl80211_ioctl_ops::get_rrm_scan_result(ap_table& table) {
    const auto measured = radios_.measured.find(ifname_);
    const std::uint32_t frequency =
        measured == radios_.measured.end() ? 0 : frequency_of(band(), measured->second);
    std::vector<bss_record> result;
    if (frequency != 0 && heard(result) != 0)
        return -1;
    std::erase_if(result,
                  [frequency](const bss_record& bss) { return bss.frequency != frequency; });
    if (result.empty())
        trace.info("<%s:%d> rrm scanning result are absent\n", __func__, __LINE__);
    for (const bss_record& bss : result)
        table.push_back(bss.info);
    if (frequency != 0)
        log_survey(frequency);
    return 0;
}

void nl80211_ioctl_ops::log_survey(std::uint32_t frequency) {
    const std::optional<interface_record> own = find_interface(ifname_);
    if (!own)
        return;
    nl_request request{NL80211_CMD_GET_SURVEY, nl_request::dump};
    request.put_u32(NL80211_ATTR_IFINDEX, own->index);
    std::vector<survey_record> surveys;
    // Not every radio counts its time.
    if (radios_.dump(request, surveys) != 0)
        return;
    for (const survey_record& survey : surveys)
        if (survey.frequency == frequency)
            trace.info("<%s:%d> %s: channel %d: noise %d dBm, busy %" PRIu64 " of %" PRIu64 " ms\n",
                       __func__, __LINE__, ifname_.c_str(), channel_at(frequency),
                       survey.noise.value_or(0), survey.busy_ms, survey.active_ms);
}
