// A profile as folded stacks: one line a stack, as flame graph programs read it. Called by
// `export`; single-threaded.
#pragma once

#include <iosfwd>

#include "tools/report/model.h"

namespace memleak {

/// What is counted.
enum class Measure { kBytes, kBlocks };

/// Writes a line for each different stack: its names from the outermost on, joined by ';' and
/// escaped by PercentEscape, a blank, and what the groups with this stack hold together.
/// Java-native stacks begin with "[java-native]", since their blocks are not part of the native
/// total. Lines are in the order in which stacks first appear; stacks that hold nothing are left
/// out.
void WriteFolded(const Profile& profile, Measure measure, std::ostream& out);

}  // namespace memleak
