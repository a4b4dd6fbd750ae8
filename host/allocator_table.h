// The table through which the loader routes the program's allocator calls, and the one pointer to
// it.
//
// Read by every exported allocator function on any thread (routing.cpp). Changed twice in the life
// of a process, both times before `main`: when the next allocator is known, and when the tracker
// has taken over.
#pragma once

#include <malloc.h>
#include <stddef.h>

#include <atomic>

#include "private/bionic_malloc_dispatch.h"

namespace host {

struct AllocatorTable {
  MallocDispatch calls;
  // The tracker has no such entry: always the next allocator's own.
  struct mallinfo2 (*mallinfo2)();
};

/// Serves until the next allocator is known: looks it up at the first call (next_allocator.cpp).
/// Needs no constructor to have run.
// NOLINTNEXTLINE(bugprone-dynamic-static-initializers)
extern const AllocatorTable kBootstrapTable;

/// Routes all calls to `plain` from now on. `plain` stays the caller's and must live, unchanged, as
/// long as the process. Blocks of the bootstrap arena stay valid: if there are any, free, realloc
/// and malloc_usable_size tell them apart first; if there are none, that test is left out.
/// Called at most twice, on one thread at a time.
void UseAllocator(const AllocatorTable& plain);

/// One allocator function: its name and its slot in MallocDispatch.
struct AllocatorEntry {
  const char* name;
  size_t offset;
  // False: a function that the Linux C library has no equivalent of.
  bool in_c_library;
};

inline constexpr AllocatorEntry kAllocatorEntries[] = {
    {"calloc", offsetof(MallocDispatch, calloc), true},
    {"free", offsetof(MallocDispatch, free), true},
    {"mallinfo", offsetof(MallocDispatch, mallinfo), true},
    {"malloc", offsetof(MallocDispatch, malloc), true},
    {"malloc_usable_size", offsetof(MallocDispatch, malloc_usable_size), true},
    {"memalign", offsetof(MallocDispatch, memalign), true},
    {"posix_memalign", offsetof(MallocDispatch, posix_memalign), true},
    {"realloc", offsetof(MallocDispatch, realloc), true},
    {"malloc_iterate", offsetof(MallocDispatch, malloc_iterate), false},
    {"malloc_disable", offsetof(MallocDispatch, malloc_disable), false},
    {"malloc_enable", offsetof(MallocDispatch, malloc_enable), false},
    {"mallopt", offsetof(MallocDispatch, mallopt), true},
    {"aligned_alloc", offsetof(MallocDispatch, aligned_alloc), true},
    {"malloc_info", offsetof(MallocDispatch, malloc_info), true},
};

/// Stores `function`, as dlsym returned it, in the slot of `entry`.
inline void SetEntry(MallocDispatch& calls, const AllocatorEntry& entry, void* function) {
  __builtin_memcpy(reinterpret_cast<char*>(&calls) + entry.offset, &function, sizeof function);
}

}  // namespace host
