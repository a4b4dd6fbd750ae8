// The calling thread's mark in the record store: the value of `record_key`.
//
// Used by every operation, on every thread.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "tracker/MemTrackControl.h"

/// Bits of the mark. Inside: operations of this thread return at once.
inline constexpr std::uintptr_t kInside = 1;
/// The thread holds the locks of all sets: its operations take none.
inline constexpr std::uintptr_t kHoldsStore = 2;

inline std::uintptr_t RecordMark() {
  return reinterpret_cast<std::uintptr_t>(pthread_getspecific(record_key));
}
inline void SetRecordMark(std::uintptr_t mark) {
  pthread_setspecific(record_key, reinterpret_cast<void*>(mark));
}
