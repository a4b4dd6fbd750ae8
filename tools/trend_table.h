// What grew between the reports of `watch`: as a table for people and as a document for programs,
// which docs/trend-json.md describes. Called by `watch`; single-threaded.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "tools/report/trend.h"

namespace memleak {

/// A report that was saved.
struct SavedReport {
  std::string file;          ///< name in the directory
  double seconds = 0;        ///< since the first
  std::int64_t time = 0;     ///< since the epoch
  std::uint64_t bytes = 0;   ///< native ones, all groups
  std::uint64_t groups = 0;  ///< the same
  Sums unlisted;             ///< those of them that the report does not list
};

/// Why the reports do not go on, and when that was found.
struct TrendBreak {
  double seconds = 0;  ///< since the first report
  std::string why;
};

/// Prints the groups that grew, at most `top` (0: all), how many there are beside them, and how
/// much the reports do not list.
void PrintTrends(const std::vector<SavedReport>& reports, const std::vector<GroupTrend>& groups,
                 std::uint32_t top, std::ostream& out);

/// Writes everything as one JSON document, always valid UTF-8.
void WriteTrends(const std::string& process, const std::vector<SavedReport>& reports,
                 const std::vector<GroupTrend>& groups, const std::optional<TrendBreak>& broken,
                 std::ostream& out);

}  // namespace memleak
