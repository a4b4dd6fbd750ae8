// Prints a profile as text for an 80-column terminal. Called by the command `show`;
// single-threaded.
#pragma once

#include <iosfwd>

#include "tools/report/model.h"
#include "tools/view/show_views.h"

namespace memleak {

/// What is said of a report without groups.
inline constexpr const char* kNothingHeld =
    "nothing recorded is still held; was recording on? (memleak on PID)";

/// Prints the figures of the report, the view of its groups, and how much lies outside of what is
/// shown. Throws UserError when the filter cannot be read; nothing is printed then.
void PrintProfile(const Profile& profile, const ViewOptions& options, std::ostream& out);

}  // namespace memleak
