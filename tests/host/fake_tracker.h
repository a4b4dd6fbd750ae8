// What the stand-in tracker saw, for the programs that run under the loader.
#pragma once

#include <stdint.h>

#include <atomic>

#include "private/bionic_malloc_dispatch.h"

struct FakeTracker {
  const MallocDispatch* next;            // what track_initialize was given
  std::atomic<const char*> last_entry;   // name of the last entry called, without "track_"
  std::atomic<const void*> last_caller;  // and the pc to which it returns
  std::atomic<int> commands;             // signals received
  std::atomic<int> elsewhere;            // of these, outside the thread "memleak-control"
};

extern "C" FakeTracker* fake_tracker_state();
