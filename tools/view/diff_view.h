// Prints the difference of two reports for an 80-column terminal. Called by `diff`;
// single-threaded.
#pragma once

#include <cstddef>
#include <iosfwd>

#include "tools/report/model.h"

namespace memleak {

/// Prints the totals of both reports, the `top` stacks (0: all) that grew most and as many that
/// shrank most, with a line for each size, and says what lies outside of either list.
void PrintDifference(const Profile& before, const Profile& after, std::size_t top,
                     std::ostream& out);

}  // namespace memleak
