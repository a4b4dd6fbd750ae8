// SPDX-License-Identifier: Apache-2.0
// A profile as folded stacks, for flame graph programs. Used by `export`; single-threaded.
#pragma once

#include <iosfwd>

#include "tools/report/model.h"

namespace memleak {

/// What is counted.
enum class Measure { kBytes, kBlocks };

/// Writes a line for each stack: its names, outermost first, joined by ';' and escaped by
/// PercentEscape, a blank, and the sum over its groups. Java-native stacks begin with
/// "[java-native]", since their blocks are not part of the native total. Lines are in order of
/// first appearance. Stacks with a sum of 0 are omitted.
void WriteFolded(const Profile& profile, Measure measure, std::ostream& out);

}  // namespace memleak
