#include "log_tail.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace {

constexpr const char* complaints[] = {"emergency", "alert", "critical", "error", "warning"};

// Only a whole line begins with its date.
bool begins_with_date(const std::string& line) {
    constexpr char form[] = "0000-00-00 00:00:00.000 ";
    if (line.size() < std::strlen(form))
        return false;
    return std::equal(form, form + std::strlen(form), line.begin(), [](char expected, char c) {
        return expected == '0' ? c >= '0' && c <= '9' : c == expected;
    });
}

}  // namespace

bool is_complaint(const std::string& line) {
    if (!begins_with_date(line))
        return false;
    const std::size_t name_end = line.find("] ");
    if (name_end == std::string::npos)
        return false;
    const std::size_t begin = name_end + 2;
    const std::size_t colon = line.find(": ", begin);
    if (colon == std::string::npos)
        return false;
    const std::string severity = line.substr(begin, colon - begin);
    return std::find(std::begin(complaints), std::end(complaints), severity) !=
           std::end(complaints);
}

std::vector<std::string> last_complaints(const std::string& log, std::size_t count) {
    std::vector<std::string> found;
    std::size_t end = log.size();
    while (end > 0 && found.size() < count) {
        if (log[end - 1] == '\n')
            --end;
        const std::size_t feed = end > 0 ? log.rfind('\n', end - 1) : std::string::npos;
        const std::size_t begin = feed == std::string::npos ? 0 : feed + 1;
        std::string line = log.substr(begin, end - begin);
        if (is_complaint(line))
            found.push_back(std::move(line));
        end = begin;
    }
    std::reverse(found.begin(), found.end());
    return found;
}
