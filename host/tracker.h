// SPDX-License-Identifier: Apache-2.0
// Opens libmemleak_tracker.so, which is in the loader's directory.
#pragma once

#include "host/allocator_table.h"

namespace host {

/// Why something failed: one line without a newline.
struct Reason {
  char text[1000] = "";
  __attribute__((format(printf, 2, 3))) void Set(const char* format, ...);
};

/// Opens the tracker and calls track_initialize, unless an earlier call has done so. Returns false,
/// with the reason, on failure. For the loader's constructor and for an attach. May allocate.
bool StartTracker(Reason& reason);

/// After StartTracker: the tracker's functions, and track_finalize.
const AllocatorTable& TrackedAllocator();
void (*FinalizeTracker())();

}  // namespace host
