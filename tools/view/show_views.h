// The views of the groups of a report. Called by PrintProfile; single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>

#include "tools/report/aggregate.h"
#include "tools/report/model.h"

namespace memleak {

enum class View { kGroups, kLibraries, kFunctions, kTree, kCallers };

struct ViewOptions {
  View view = View::kGroups;
  std::size_t top = 10;      ///< groups, rows, or branches at each fork; 0: all
  Selection selection = {};  ///< its kind is not looked at: both are printed, one after the other
  bool color = false;
};

/// One kind of groups on its way to the terminal.
struct Section {
  const Profile& profile;
  const ViewOptions& options;
  const Selected& selected;
  std::uint64_t whole = 0;  ///< bytes that shares are given of
  const char* mark = "";    ///< before a group's number
};

/// The views; each returns what it leaves out of the selection for the sake of --top.
Sums PrintGroups(const Section& section, std::ostream& out);
Sums PrintRows(const Section& section, RowKind kind, std::ostream& out);
Sums PrintTree(const Section& section, TreeEnd end, std::ostream& out);

}  // namespace memleak
