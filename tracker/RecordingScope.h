// Whether the calling thread records, and its mark while the tracker itself is at work.
//
// Used by the exported entries, on every thread of the process. All of it is forced inline, in
// every build type: the frame walk counts on one real frame per entry.
#pragma once

#include "tracker/MemTrackControl.h"

#define TRACKER_INLINE __attribute__((always_inline)) inline

/// True when native recording is on and the calling thread is not marked. `control` may be null.
TRACKER_INLINE bool IsRecording(const MemTrackControl* control) {
  return control != nullptr && control->GetHookStart() && control->ThreadEnabled();
}

/// Marks the calling thread for as long as it lives, if that thread records at that moment: what
/// the tracker allocates meanwhile goes straight to the C library and is not recorded.
///
/// Recording may have been switched off since the caller looked, or an outer scope may have set
/// the mark; a scope clears only what it has set itself.
class RecordingScope {
 public:
  TRACKER_INLINE explicit RecordingScope(const MemTrackControl* control)
      : marked_(IsRecording(control) ? control : nullptr) {
    if (marked_ != nullptr) marked_->DisableThread();
  }
  /// For a caller that has just seen its thread unmarked: nobody else marks it, so only the switch
  /// is looked at again.
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
