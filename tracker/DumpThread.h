// SPDX-License-Identifier: Apache-2.0
// The thread that writes a report.
//
// The stop-and-report commands start one for each report, in the control signal's handler.
#pragma once

#include "utils/RefBase.h"
#include "utils/StrongPointer.h"
#include "utils/Thread.h"

/// Starts a thread that writes one report; logs a failure, such as a lack of memory. Several may
/// run at once; the record store serialises them. For the control signal's handler: allocates and
/// creates a thread. The thread inherits the handler's signal mask, so that no clear command
/// interrupts it and then waits for its lock.
void AsyncReport();

namespace android {

/// Writes the report and ends when its starter has released it.
class MemDumpThread : public Thread {
 public:
  MemDumpThread() : Thread(/*can_call_java=*/false) {}

  /// One iteration of the thread. Always returns true: the loop ends with the last strong
  /// reference.
  bool threadLoop() override;

 private:
  /// Used only by the thread itself.
  bool reported_ = false;
};

/// Holds a MemDumpThread during its start. On the caller's stack.
class MemDumpMain : virtual public RefBase {
 public:
  /// Starts the thread, and creates it first if there is none. Returns false, logged, if that
  /// fails. Throws std::bad_alloc, as the constructor does.
  bool Enable();

 private:
  sp<MemDumpThread> thread_;
};

}  // namespace android
