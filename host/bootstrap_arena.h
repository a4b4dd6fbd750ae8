// SPDX-License-Identifier: Apache-2.0
// A small static heap for allocations during the lookup of the next allocator: the dynamic linker
// may allocate inside dlsym.
//
// next_allocator.cpp allocates here during the lookup, on any thread. routing.cpp handles these
// blocks later, and allocates here while a thread is started that may hold the allocator's locks.
// Blocks are never reused.
#pragma once

#include <stddef.h>

namespace host {

/// Returns `size` zeroed bytes aligned to `alignment` (a power of two; raised to 16), or null with
/// errno ENOMEM when the arena is full. Lock-free, any thread.
void* ArenaAllocate(size_t alignment, size_t size);

/// As ArenaAllocate, for `count` times `size` bytes. Also fails if the product overflows.
void* ArenaCalloc(size_t count, size_t size);

/// Returns whether `pointer` is in the arena; false for null. Any thread.
bool ArenaContains(const void* pointer);

/// Returns the requested size in bytes of the arena block at `pointer`. Any thread.
size_t ArenaBlockSize(const void* pointer);

/// Call MarkArenaUsed before a block is allocated; ArenaUsed then returns true. Both functions are
/// sequentially consistent: next_allocator.cpp relies on it.
void MarkArenaUsed();
bool ArenaUsed();

}  // namespace host
