// The allocator behind the loader: the next one in the program's search order, which is the C
// library's, or that of jemalloc, tcmalloc and the like where the program brings one.
//
// Called by the first allocation of the process, wherever it comes from, and by the loader's
// constructor.
#pragma once

#include "host/allocator_table.h"

namespace host {

/// Looks the next allocator up and routes all calls to it, unless that was done before.
/// Any thread. True when it is known; false while the look-up is under way, on this thread or on
/// another. Never waits: the look-up needs the dynamic linker's lock, and whoever holds that may be
/// the one who asks. Keeps errno. Ends the process with one line when there is no allocator at all.
bool FindNextAllocator();

/// The next allocator's functions, null before it is found. malloc_iterate fails with ENOSYS,
/// malloc_disable and malloc_enable do nothing: no Linux allocator offers them. Lives as long as
/// the process and never changes once found.
const AllocatorTable& NextAllocator();

}  // namespace host
