// SPDX-License-Identifier: Apache-2.0
// Prints a profile for an 80-column terminal. Used by `show`; single-threaded.
#pragma once

#include <iosfwd>

#include "tools/report/model.h"
#include "tools/view/show_views.h"

namespace memleak {

/// Printed for a report without groups.
inline constexpr const char* kNothingHeld =
    "nothing recorded is still held; was recording on? (memleak on PID)";

/// Prints the figures of the report, the view of its groups, and how much is not shown. Throws
/// UserError if the filter is invalid, before anything is printed.
void PrintProfile(const Profile& profile, const ViewOptions& options, std::ostream& out);

}  // namespace memleak
