// The thread that writes a report, and how one is started.
//
// Started by the stop-and-report commands, in the control signal's handler; one thread a report.
#pragma once

#include "utils/RefBase.h"
#include "utils/StrongPointer.h"
#include "utils/Thread.h"

/// Starts a thread that writes one report; a failure, as without memory, is logged. Several may be
/// under way at once; the record store lets them write one after the other. In the control signal's
/// handler: allocates and makes a thread, which inherits the handler's signal mask, so a clear
/// command never interrupts the writer and waits for its lock on the same thread.
void AsyncReport();

namespace android {

/// Writes the report, then ends as soon as its starter has let go of it.
class MemDumpThread : public Thread {
 public:
  MemDumpThread() : Thread(/*can_call_java=*/false) {}

  /// One iteration of the thread; always true, as the loop ends with the last strong reference.
  bool threadLoop() override;

 private:
  /// Touched by the thread alone.
  bool reported_ = false;
};

/// Holds a MemDumpThread while it is being started; lives on the caller's stack.
class MemDumpMain : virtual public RefBase {
 public:
  /// Makes the thread when there is none yet and starts it. False, logged, when it cannot be
  /// started. Throws std::bad_alloc, as the constructor.
  bool Enable();

 private:
  sp<MemDumpThread> thread_;
};

}  // namespace android
