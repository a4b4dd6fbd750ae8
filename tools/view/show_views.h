// SPDX-License-Identifier: Apache-2.0
// The views of a report's groups. Used by PrintProfile; single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>

#include "tools/report/aggregate.h"
#include "tools/report/model.h"
#include "tools/view/layout.h"

namespace memleak {

enum class View { kGroups, kLibraries, kFunctions, kTree, kCallers };

struct ViewOptions {
  View view = View::kGroups;
  std::size_t top = 10;      ///< groups, rows, or branches at each fork; 0: all
  Selection selection = {};  ///< its kind is ignored: native groups are printed, then Java-native
  bool color = false;
};

/// The selected groups of one kind.
struct Section {
  const Profile& profile;
  const ViewOptions& options;
  const Selected& selected;
  std::uint64_t whole = 0;  ///< bytes that count as 100 %
  const char* mark = "#";   ///< before a group's number
};

/// Prints a line or two for each frame of the group.
void PrintStack(const Profile& profile, const Group& group, const Paint& paint, std::ostream& out);

/// The views. Each returns the groups of the selection that --top leaves out.
Sums PrintGroups(const Section& section, std::ostream& out);
Sums PrintRows(const Section& section, RowKind kind, std::ostream& out);
Sums PrintTree(const Section& section, TreeEnd end, std::ostream& out);

}  // namespace memleak
