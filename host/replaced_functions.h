// SPDX-License-Identifier: Apache-2.0
// The functions of the C library that the loader replaces, besides the allocator's.
#pragma once

namespace host {

/// Look up the functions that the loader's replacements call, so that these work in signal handlers
/// and in children of vfork. For the loader's constructor and for an attach.
void FindSignalFunctions();
void FindPrivilegeFunctions();
void FindExitFunctions();
/// After the next allocator is known (next_allocator.h).
void FindOperators();
inline void FindReplacedFunctions() {
  FindOperators();
  FindSignalFunctions();
  FindPrivilegeFunctions();
  FindExitFunctions();
}

}  // namespace host
