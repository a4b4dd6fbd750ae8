// The holder of the record store: one a process, replaced content on every clear.
//
// Made and cleared by track_initialize and the control signal's handler; read by every entry on
// every thread, and by the fork handlers on the forking one.
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
  /// Waits for a report that is being written.
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
  /// Room for one PointerData. Another thread may be inside a member of one that is being replaced
  /// (the tables are process-wide, so it goes on unharmed): its memory is used again for the next,
  /// never given back. A clear thus allocates nothing either.
  struct Place {
    alignas(PointerData) unsigned char storage[sizeof(PointerData)] = {};
    std::atomic<bool> taken{false};
  };

  void Destroy(PointerData* old);

  Place places_[8];
  std::atomic<PointerData*> pointer_{nullptr};
};
