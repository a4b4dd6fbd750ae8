// How the groups of a process change from report to report: their values, and a straight line
// through them. Called by `watch`; single-threaded.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/report/model.h"

namespace memleak {

/// A straight line through points, by least squares.
struct Line {
  double slope = 0;
  /// Half the width of the slope's 95 % confidence interval, by Student's t; nothing when fewer
  /// than three points leave no scatter to judge by.
  std::optional<double> margin;
  /// The share of the scatter that the line explains, from 0 to 1; 1 when there is none.
  double r_squared = 1;
};

struct Point {
  double x = 0;
  double y = 0;
};

/// The line through `points`; nothing unless two of them differ in x.
std::optional<Line> FitLine(const std::vector<Point>& points);

/// What a report says of a group.
struct GroupValue {
  std::uint64_t count = 0;  ///< blocks
  std::uint64_t total = 0;  ///< their bytes
};

/// A group through all reports.
struct GroupTrend {
  GroupKind kind = GroupKind::kNative;
  std::uint64_t size = 0;          ///< bytes of one block
  std::vector<std::string> stack;  ///< names, innermost first
  /// File names of the libraries, one for each of `stack`; empty for none.
  std::vector<std::string> libraries;
  /// One for each report; nothing where the group may have fallen out of a cut list.
  std::vector<std::optional<GroupValue>> values;
  std::optional<Line> line;  ///< bytes a minute, through the values that are known

  std::size_t Known() const;
  /// Bytes more in the last report than in the first; nothing when one of them is unknown.
  std::optional<std::int64_t> Growth() const;
};

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

/// Collects reports one by one, in memory of the order of their groups.
class Trends {
 public:
  /// Takes the groups of `profile`, a report made `seconds` after the first. Groups are matched as
  /// Compare does: those that differ only in their call sites are added up.
  void Add(double seconds, const Profile& profile);

  std::size_t Reports() const { return seconds_.size(); }
  const std::vector<double>& Seconds() const { return seconds_; }

  /// The groups that any report has, with their lines; those that grew most first: by growth, and
  /// by what the line says where that is unknown.
  std::vector<GroupTrend> Result() const;

 private:
  // A group as it is collected: for each of its call sites, how many groups of each report are
  // there. One or none, unless places outside of libraries look the same.
  struct Collected {
    GroupTrend trend;
    std::unordered_map<std::string, std::vector<std::uint32_t>> sites;
  };

  std::vector<bool> ListsAllSites(const Collected& group) const;
  GroupTrend Complete(const Collected& group) const;

  std::vector<double> seconds_;
  std::unordered_map<std::string, Collected> groups_;
  // Whether a report lists everything, so that a group it lacks is gone: native groups, Java ones.
  std::vector<bool> whole_[2];
};

}  // namespace memleak
