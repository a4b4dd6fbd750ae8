// SPDX-License-Identifier: Apache-2.0
// Prints hooked functions. Used by `on` and `report`; single-threaded.
#pragma once

#include <iosfwd>
#include <vector>

#include "tools/target/hook_targets.h"
#include "tools/target/process_info.h"

namespace memleak {

/// Prints one line for each library of `pairs`, which are sorted by library: `what`, the library
/// and its functions.
void PrintPairs(const char* what, const std::vector<HookPair>& pairs, std::ostream& out);

/// Prints what is still hooked after a report of a hooked kind, as far as slots can be read.
void PrintStillHooked(const ProcessInfo& process);

}  // namespace memleak
