// SPDX-License-Identifier: Apache-2.0
// Whether the calling thread records, and the mark of a thread that is inside the tracker.
//
// Used by the exported entries, on every thread of the process. All of it is forced inline in every
// build type: the frame walk expects one real frame per entry.
#pragma once

#include "tracker/control/MemTrackControl.h"

#define TRACKER_INLINE __attribute__((always_inline)) inline

/// Whether native recording is on and the calling thread is not marked. `control` may be null.
TRACKER_INLINE bool IsRecording(const MemTrackControl* control) {
  return control != nullptr && control->GetHookStart() && control->ThreadEnabled();
}

/// Marks the calling thread during its lifetime, if that thread records, so that the tracker's own
/// allocations go to the C library and are not recorded.
///
/// Checks the switch again, since recording may have been switched off. Clears the mark only if it
/// has set it: an outer scope may have set it.
class RecordingScope {
 public:
  TRACKER_INLINE explicit RecordingScope(const MemTrackControl* control)
      : marked_(IsRecording(control) ? control : nullptr) {
    if (marked_ != nullptr) marked_->DisableThread();
  }
  /// For a caller that has just found its thread unmarked. Only the thread itself sets its mark, so
  /// this checks only the switch.
  struct ThreadIsUnmarked {};
  TRACKER_INLINE RecordingScope(const MemTrackControl* control, ThreadIsUnmarked /*known*/)
      : marked_(control->GetHookStart() ? control : nullptr) {
    if (marked_ != nullptr) marked_->DisableThread();
  }
  TRACKER_INLINE ~RecordingScope() {
    if (marked_ != nullptr) marked_->EnableThread();
  }
  RecordingScope(const RecordingScope&) = delete;
  RecordingScope& operator=(const RecordingScope&) = delete;

 private:
  const MemTrackControl* const marked_;
};
