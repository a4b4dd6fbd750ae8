// SPDX-License-Identifier: Apache-2.0
// The table through which the loader routes the program's allocator calls.
//
// Every exported allocator function reads the table, on any thread (routing.cpp). The table changes
// when the next allocator is found, when the tracker starts, when the loader detaches, and while a
// command waits for the control thread.
#pragma once

#include <malloc.h>
#include <stddef.h>

#include <atomic>

#include "private/bionic_malloc_dispatch.h"

namespace host {

struct AllocatorTable {
  MallocDispatch calls;
  // The tracker has no such entry, so this is always the next allocator's function.
  struct mallinfo2 (*mallinfo2)();
};

/// The table until the next allocator is known. Its functions look up the next allocator at the
/// first call (next_allocator.cpp). Constant-initialized.
// NOLINTNEXTLINE(bugprone-dynamic-static-initializers)
extern const AllocatorTable kBootstrapTable;

/// Routes all later calls to `plain`, which must never change or be freed. Blocks of the bootstrap
/// arena stay valid: if there are any, free, realloc and malloc_usable_size check for them first.
/// Accepts at most two different tables. One thread at a time.
void UseAllocator(const AllocatorTable& plain);

/// Returns the table in use. Any thread, safe in signal handlers.
const AllocatorTable& ActiveAllocator();

/// Makes the functions that allocate call StartPendingThread first. Functions that free do not: the
/// C library may call them under a lock that starting a thread needs. Any thread, safe in signal
/// handlers.
void StartThreadAtNextCall();
/// Undoes StartThreadAtNextCall. Any thread.
void RestoreAllocator();

/// During its lifetime, the calling thread's allocations bypass the tracker. They go to the next
/// allocator, or to the bootstrap arena if the thread may hold the allocator's locks. At most one
/// object exists at a time. The destructor calls RestoreAllocator.
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
  // Whether the Linux C library has the function.
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
