// SPDX-License-Identifier: Apache-2.0
// The functions of the C library that the loader replaces, besides the allocator's.
#pragma once

namespace host {

/// These functions look up what the loader's replacements call, so that the replacements work in
/// signal handlers and in children of vfork. For the loader's constructor and for an attach.
void FindSignalFunctions();
void FindPrivilegeFunctions();
void FindExitFunctions();
/// Call it when the next allocator is known (next_allocator.h).
void FindOperators();
/// Calls all functions above.
inline void FindReplacedFunctions() {
  FindOperators();
  FindSignalFunctions();
  FindPrivilegeFunctions();
  FindExitFunctions();
}

}  // namespace host
