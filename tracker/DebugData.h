// SPDX-License-Identifier: Apache-2.0
// The holder of the record store: one per process. Each clear replaces its content.
//
// track_initialize and the control signal's handler fill it. Every entry reads it on every thread,
// the fork handlers on the forking thread.
#pragma once

#include <pthread.h>

#include <atomic>

#include "records/PointerData.h"

class DebugData {
 public:
  /// The holder, without a PointerData before the first Initialize. Never null. It lives as long as
  /// the process: other threads may be inside an entry. Takes no lock. Any thread, any context.
  static DebugData* GetInstance();
  /// Stores a new PointerData in `holder`, destroys the one it replaces and empties all tables.
  /// Called at start-up and by every clear command. Returns false if the tables cannot be set up.
  /// Waits for a running report.
  static bool Initialize(DebugData* holder);
  /// Destroys the PointerData. Only from track_finalize.
  static void Release();

  /// Returns the current PointerData; null before Initialize. Any thread.
  PointerData* pointer() const { return pointer_.load(std::memory_order_acquire); }

  /// Notes that a command is about to use the tables. Async-signal-safe.
  void NoteCommand() { used_.store(true); }

  /// The three fork handlers. They do nothing without a PointerData. Before the first command they
  /// also do nothing, unless a command may run during the fork, because each page that a child
  /// writes to is copied.
  void PrepareFork();
  void PostForkParent();
  void PostForkChild();

 private:
  /// Memory for one PointerData. Never freed, but reused. Another thread may be inside a member of
  /// a replaced PointerData; this is harmless, since the tables are process-wide. So a clear
  /// allocates nothing.
  struct Place {
    alignas(PointerData) unsigned char storage[sizeof(PointerData)] = {};
    std::atomic<bool> taken{false};
  };

  void Destroy(PointerData* old);
  /// Returns whether no thread can be inside the tables.
  bool IsAtRest() const;

  Place places_[8];
  std::atomic<PointerData*> pointer_{nullptr};
  std::atomic<bool> used_{false};
  /// The thread whose fork holds the tables, 0 for none.
  std::atomic<pthread_t> forking_thread_{0};
};
