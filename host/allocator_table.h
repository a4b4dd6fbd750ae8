// SPDX-License-Identifier: Apache-2.0
// The table through which the loader routes the program's allocator calls.
//
// Every exported allocator function reads it, on any thread (routing.cpp). It changes when the next
// allocator is known, when the tracker takes over, when the loader detaches, and while a command
// waits for the control thread.
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

/// The table until the next allocator is known. Its functions look up the next allocator at the
/// first call (next_allocator.cpp). Constant-initialized.
// NOLINTNEXTLINE(bugprone-dynamic-static-initializers)
extern const AllocatorTable kBootstrapTable;

/// Routes all later calls to `plain`, which the caller owns and which lives, unchanged, as long as
/// the process. Blocks of the bootstrap arena stay valid: if there are any, free, realloc and
/// malloc_usable_size check for them first. For at most two different tables, on one thread at a
/// time.
void UseAllocator(const AllocatorTable& plain);

/// The table that calls go through now. Any thread.
const AllocatorTable& ActiveAllocator();

/// Makes the functions that allocate call StartPendingThread first. Functions that release do not:
/// the C library may call them under a lock that starting a thread needs. Any thread, safe in
/// signal handlers.
void StartThreadAtNextCall();
/// Undoes StartThreadAtNextCall. Any thread.
void RestoreAllocator();

/// While it exists, the calling thread's allocations go to the next allocator or the bootstrap
/// arena, and the tracker does not see them. The arena is for a thread that may hold the locks of
/// the allocator. One at a time. Afterwards as RestoreAllocator.
class PassTracker {
 public:
  enum class From { kNextAllocator, kArena };
  explicit PassTracker(From from);
  ~PassTracker();
  PassTracker(const PassTracker&) = delete;
  PassTracker& operator=(const PassTracker&) = delete;
};

/// One allocator function: its name and its slot in MallocDispatch.
struct AllocatorEntry {
  const char* name;
  size_t offset;
  // False: the Linux C library has no such function.
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

/// Stores `function`, a result of dlsym, in the slot of `entry`.
inline void SetEntry(MallocDispatch& calls, const AllocatorEntry& entry, void* function) {
  __builtin_memcpy(reinterpret_cast<char*>(&calls) + entry.offset, &function, sizeof function);
}

}  // namespace host
