#include "ctl_table.h"

#include <algorithm>

namespace msgbusctl {

namespace {

constexpr const char* kGap = "  ";

std::vector<std::size_t> widths_of(const std::vector<Row>& rows) {
    std::vector<std::size_t> widths(rows.empty() ? 0 : rows.front().size());
    for (const Row& row : rows)
        for (std::size_t i = 0; i < widths.size(); i++)
            widths[i] = std::max(widths[i], row[i].size());
    return widths;
}

}  // namespace

std::string lay_out(const std::vector<Row>& rows, const std::vector<std::size_t>& left) {
    const std::vector<std::size_t> widths = widths_of(rows);
    std::string text;
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < widths.size(); i++) {
            const std::string fill(widths[i] - row[i].size(), ' ');
            const bool is_left = std::find(left.begin(), left.end(), i) != left.end();
            line += (i > 0 ? kGap : "") + (is_left ? row[i] + fill : fill + row[i]);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + '\n';
    }
    return text;
}

}  // namespace msgbusctl
