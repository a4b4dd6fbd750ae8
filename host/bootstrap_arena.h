// SPDX-License-Identifier: Apache-2.0
// A small static heap for allocations during the lookup of the next allocator: the dynamic linker
// may allocate inside dlsym.
//
// Used by next_allocator.cpp during the lookup, on any thread, and by routing.cpp later: for blocks
// of the lookup, and for a thread that is started while the allocator's locks may be held. Blocks
// carry their size and are never reused.
#pragma once

#include <stddef.h>

namespace host {

/// Returns `size` zeroed bytes aligned to `alignment` (a power of two; raised to 16), or null with
/// errno ENOMEM when the arena is full. Lock-free, any thread.
void* ArenaAllocate(size_t alignment, size_t size);

/// The same for `count` times `size` bytes.
void* ArenaCalloc(size_t count, size_t size);

/// Whether `pointer` is in the arena. Returns false for null.
bool ArenaContains(const void* pointer);

/// Returns the requested size of the arena block at `pointer`.
size_t ArenaBlockSize(const void* pointer);

/// Call MarkArenaUsed before a block is allocated; ArenaUsed then returns true. Both functions are
/// sequentially consistent: next_allocator.cpp relies on it.
void MarkArenaUsed();
bool ArenaUsed();

}  // namespace host
