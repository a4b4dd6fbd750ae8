// SPDX-License-Identifier: Apache-2.0
// The next allocator in the program's search order after the loader: that of the C library, or one
// that the program links or preloads, such as jemalloc or tcmalloc.
//
// Called by the first allocation of the process and by the loader's constructor.
#pragma once

#include "host/allocator_table.h"

namespace host {

/// Looks up the next allocator and routes all calls to it, unless that is done already. Any thread.
/// Returns true once it is known; false during the lookup, on this or another thread. Never waits:
/// the lookup needs the dynamic linker's lock, which the caller may hold. Keeps errno. Ends the
/// process with one line if there is no allocator.
bool FindNextAllocator();

/// The next allocator's functions, null before it is found. malloc_iterate fails with ENOSYS,
/// malloc_disable and malloc_enable do nothing: no Linux allocator has them. Never changes once
/// found.
const AllocatorTable& NextAllocator();

}  // namespace host
