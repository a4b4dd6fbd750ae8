// SPDX-License-Identifier: Apache-2.0
// Prints reports for a terminal. Single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <vector>

#include "tools/report/aggregate.h"
#include "tools/report/model.h"
#include "tools/report/trend.h"

namespace memleak {

enum class View { kGroups, kLibraries, kFunctions, kTree, kCallers };

/// How shares are drawn.
enum class Bars {
  kNone,
  kAscii,   ///< of "#"
  kBlocks,  ///< of block characters, which have eighths of a column
};

struct ViewOptions {
  View view = View::kGroups;
  std::size_t top = 10;      ///< groups, rows, or branches at each fork; 0: all
  Selection selection = {};  ///< its kind is ignored: native groups are printed, then Java-native
  bool color = false;
  Bars bars = Bars::kNone;
};

/// Prints the figures of the report, the view of its groups, and how much is not shown. Throws
/// UserError if the filter is invalid, before anything is printed.
void PrintProfile(const Profile& profile, const ViewOptions& options, std::ostream& out);

/// Prints the totals of both reports, the `top` stacks (0: all) that grew most and the `top` stacks
/// that shrank most, one line for each block size, and what is not judged or not listed.
void PrintDifference(const Profile& before, const Profile& after, std::size_t top,
                     std::ostream& out);

/// Prints at most `top` groups that grew (0: all), the number of all groups, and how much is not
/// judged or not listed.
void PrintTrends(const std::vector<SavedReport>& reports, const std::vector<GroupTrend>& groups,
                 std::size_t top, std::ostream& out);

}  // namespace memleak
