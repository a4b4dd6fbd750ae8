// SPDX-License-Identifier: Apache-2.0
// How the groups of a process change from report to report: their values, and a straight line
// through them. Used by `watch`; single-threaded.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/report/group_matcher.h"
#include "tools/report/model.h"

namespace memleak {

/// A straight line through points, by least squares.
struct Line {
  double slope = 0;
  /// Half the width of the slope's 95 % confidence interval, by Student's t; nullopt for two
  /// points.
  std::optional<double> margin;
  /// The share of the variance that the line explains, 0 to 1; 1 without variance.
  double r_squared = 1;
};

struct Point {
  double x = 0;
  double y = 0;
};

/// The line through `points`; nullopt unless two of them differ in x.
std::optional<Line> FitLine(const std::vector<Point>& points);

/// A group through all reports.
struct GroupTrend {
  GroupKind kind = GroupKind::kNative;
  std::uint64_t size = 0;               ///< bytes of the smallest block
  std::uint64_t max_size = 0;           ///< bytes of the largest block
  std::vector<std::string> stack = {};  ///< names, innermost first
  std::vector<std::string> libraries =
      {};                               ///< their file names, by index in `stack`; empty for none
  std::vector<GroupValue> values = {};  ///< one for each report
  std::optional<Line> line = {};        ///< bytes a minute, through the known values

  /// How many values are known.
  std::size_t Known() const;
  /// Bytes in the last report minus those in the first; nullopt when one of them is unknown.
  std::optional<std::int64_t> Growth() const;
};

/// A saved report.
struct SavedReport {
  std::string file;          ///< name in the directory
  double seconds = 0;        ///< since the first
  std::int64_t time = 0;     ///< since the epoch
  std::uint64_t bytes = 0;   ///< of all native groups
  std::uint64_t groups = 0;  ///< how many there are
  Sums unlisted;             ///< of these, what the report does not list
};

/// Why there are no more reports, and when that was found.
struct TrendBreak {
  double seconds = 0;  ///< since the first report
  std::string why;
};

/// Collects reports one by one. Keeps their groups, but not the reports.
class Trends {
 public:
  /// Adds the groups of `profile`, a report made `seconds` after the first. Groups that differ only
  /// in their call sites are added up.
  void Add(double seconds, const Profile& profile);

  /// The groups that any report lists, largest growth first. If the growth is unknown, that of the
  /// line counts.
  std::vector<GroupTrend> Result() const;

 private:
  std::optional<GroupMatcher> matcher_;  // from the first report on
  std::vector<GroupTrend> groups_;       // by index in the matcher; without values and lines
  std::vector<double> seconds_;
};

}  // namespace memleak
