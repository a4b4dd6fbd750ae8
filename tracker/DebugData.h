// The holder of the record store: one a process, replaced content on every clear.
#pragma once

#include <atomic>

#include "records/PointerData.h"

class DebugData {
 public:
  /// The holder, without a PointerData until the first Initialize. Never null; it lives as long as
  /// the process, since other threads may be inside an entry. Takes no lock. Any thread, any
  /// context.
  static DebugData* GetInstance();
  /// Puts a fresh PointerData into `holder`, deletes the one it replaces and empties all tables:
  /// start-up and every clear command. False when the tables cannot be set up.
  /// Allocates; waits for a report that is being written.
  static bool Initialize(DebugData* holder);
  /// Destroys the PointerData and leaves the holder without one. Only from track_finalize.
  static void Release();

  /// The current PointerData, null before Initialize. Any thread.
  PointerData* pointer() const { return pointer_.load(std::memory_order_acquire); }

  /// The fork handlers' three roles; each does nothing while there is no PointerData.
  void PrepareFork();
  void PostForkParent();
  void PostForkChild();

 private:
  std::atomic<PointerData*> pointer_{nullptr};
};
