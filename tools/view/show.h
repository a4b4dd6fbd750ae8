// Prints a profile as text for an 80-column terminal. Called by the command `show`;
// single-threaded.
#pragma once

#include <cstddef>
#include <iosfwd>

#include "tools/report/aggregate.h"
#include "tools/report/model.h"

namespace memleak {

/// What is said of a report without groups.
inline constexpr const char* kNothingHeld =
    "nothing recorded is still held; was recording on? (memleak on PID)";

enum class View { kGroups, kLibraries, kFunctions, kTree, kCallers };

struct ViewOptions {
  View view = View::kGroups;
  std::size_t top = 10;      ///< groups, rows, or branches at each fork; 0: all
  Selection selection = {};  ///< its kind is not looked at: both are printed, one after the other
  bool color = false;
};

/// Prints the figures of the report, the view of its groups, and how much lies outside of what is
/// shown. Throws UserError when the filter cannot be read; nothing is printed then.
void PrintProfile(const Profile& profile, const ViewOptions& options, std::ostream& out);

}  // namespace memleak
