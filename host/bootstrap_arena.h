// A small static heap for the allocations that come while the next allocator is being looked up:
// the dynamic linker may allocate inside dlsym, and there is nobody else to serve it.
//
// Called by next_allocator.cpp during the look-up, on any thread, and by the arena-aware functions
// of routing.cpp ever after. Blocks carry their size and are never taken back.
#pragma once

#include <stddef.h>

namespace host {

/// Returns `size` zeroed bytes aligned to `alignment` (a power of two; raised to 16), or null with
/// errno ENOMEM when the arena is full. Lock-free, any thread.
void* ArenaAllocate(size_t alignment, size_t size);

/// Whether `pointer` lies in the arena. False for null.
bool ArenaContains(const void* pointer);

/// The size with which the arena block at `pointer` was asked for.
size_t ArenaBlockSize(const void* pointer);

/// Says that a block is about to be taken; ArenaUsed is true from now on.
/// Both are sequentially consistent: next_allocator.cpp relies on it.
void MarkArenaUsed();
bool ArenaUsed();

}  // namespace host
