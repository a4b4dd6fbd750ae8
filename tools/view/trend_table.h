// The table of groups that grew between the reports of `watch`. Called by `watch`; single-threaded.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <vector>

#include "tools/report/trend.h"

namespace memleak {

/// Prints the groups that grew, at most `top` (0: all), how many there are beside them, and how
/// much the reports do not list.
void PrintTrends(const std::vector<SavedReport>& reports, const std::vector<GroupTrend>& groups,
                 std::uint32_t top, std::ostream& out);

}  // namespace memleak
