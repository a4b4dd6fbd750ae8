// Growth between the reports of `watch` as a document for programs: docs/trend-json.md describes
// it. Called by `watch`; single-threaded.
#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "tools/report/trend.h"

namespace memleak {

/// Writes everything as one JSON document, always valid UTF-8.
void WriteTrends(const std::string& process, const std::vector<SavedReport>& reports,
                 const std::vector<GroupTrend>& groups, const std::optional<TrendBreak>& broken,
                 std::ostream& out);

}  // namespace memleak
