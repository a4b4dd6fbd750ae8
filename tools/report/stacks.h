// SPDX-License-Identifier: Apache-2.0
// Changes the stacks of a symbolized profile. Single-threaded.
#pragma once

#include "tools/report/model.h"
#include "tools/report/wrappers.h"

namespace memleak {

/// Removes the inner frames that are wrappers of allocators or the loader's, unless all frames are.
void FoldWrappers(const Wrappers& wrappers, Profile* profile);

/// Clears `cut` of the groups whose outermost frames start a program or a thread: their stacks have
/// exactly the maximum number of frames.
void ClearCutOfWhole(Profile* profile);

/// Merges the groups with the same frames, and sorts the groups by bytes. For profiles, whose
/// stacks may differ only in the wrappers that were removed.
void MergeStacks(Profile* profile);

}  // namespace memleak
