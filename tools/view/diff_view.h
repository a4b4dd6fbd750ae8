// SPDX-License-Identifier: Apache-2.0
// Prints the difference of two reports for an 80-column terminal. Used by `diff`; single-threaded.
#pragma once

#include <cstddef>
#include <iosfwd>

#include "tools/report/model.h"

namespace memleak {

/// Prints the totals of both reports, the `top` stacks (0: all) that grew most and the `top` stacks
/// that shrank most, one line for each block size, and what is not judged or not listed.
void PrintDifference(const Profile& before, const Profile& after, std::size_t top,
                     std::ostream& out);

}  // namespace memleak
