// SPDX-License-Identifier: Apache-2.0
// The next allocator: the one that the program would use without the loader. It is the C library's,
// or one that the program links or preloads, such as jemalloc or tcmalloc.
//
// Called by the first allocation of the process, by the loader's constructor and by an attach.
#pragma once

#include "host/allocator_table.h"

namespace host {

/// Looks up the next allocator and routes all calls to it, at the first call. Any thread. Returns
/// true once the allocator is known, false while this or another thread looks it up. Never waits:
/// the lookup needs the dynamic linker's lock, which the caller may hold. Keeps errno. Ends the
/// process with one line if there is no allocator.
bool FindNextAllocator();

/// Returns the next allocator's functions, which are null until FindNextAllocator returns true and
/// never change afterwards. Linux allocators have no malloc_iterate, malloc_disable and
/// malloc_enable: the first fails with ENOSYS, the others do nothing.
const AllocatorTable& NextAllocator();

}  // namespace host
