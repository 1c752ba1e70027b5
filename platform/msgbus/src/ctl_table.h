// Texts in columns.
#ifndef PLATFORM_MSGBUS_CTL_TABLE_H
#define PLATFORM_MSGBUS_CTL_TABLE_H

#include <cstddef>
#include <string>
#include <vector>

namespace msgbusctl {

using Row = std::vector<std::string>;

// One line a row, each column as wide as its widest text. Columns are right-justified but those in
// `left`. All rows have as many texts as the first.
[[nodiscard]] std::string lay_out(const std::vector<Row>& rows,
                                  const std::vector<std::size_t>& left);

}  // namespace msgbusctl

#endif
