// SPDX-License-Identifier: Apache-2.0
// The table of groups that grew between the reports of `watch`. Used by `watch`; single-threaded.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <vector>

#include "tools/report/trend.h"

namespace memleak {

/// Prints at most `top` groups that grew (0: all), the number of all groups, and how much is not
/// judged or not listed.
void PrintTrends(const std::vector<SavedReport>& reports, const std::vector<GroupTrend>& groups,
                 std::uint32_t top, std::ostream& out);

}  // namespace memleak
