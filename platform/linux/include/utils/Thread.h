// Linux stand-in: the platform's thread object.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "utils/RefBase.h"

namespace android {

using status_t = std::int32_t;
enum : status_t { OK = 0, NO_ERROR = 0, UNKNOWN_ERROR = INT32_MIN, INVALID_OPERATION = -38 };

/// Thread priorities, as nice values (Android: system/thread_defs.h).
enum { PRIORITY_DEFAULT = 0, PRIORITY_NORMAL = 0, PRIORITY_BACKGROUND = 10 };

/// A thread that calls threadLoop() until it returns false, exit is requested or nobody else holds
/// a strong reference: between iterations it holds itself only weakly.
class Thread : virtual public RefBase {
 public:
  /// `can_call_java` is accepted for the platform's sake and means nothing here.
  explicit Thread(bool can_call_java = true);
  ~Thread() override;

  /// Starts the thread under `name` (cut to 15 bytes) with nice value `priority` and a stack of
  /// `stack` bytes (0: the default). Returns NO_ERROR; INVALID_OPERATION when it already runs;
  /// UNKNOWN_ERROR when no thread can be made. The caller holds a strong reference.
  virtual status_t run(const char* name, std::int32_t priority = PRIORITY_DEFAULT,
                       std::size_t stack = 0);
  /// Asks the thread to end after the current iteration.
  virtual void requestExit();
  /// Called on the new thread before the first iteration; other than NO_ERROR ends it.
  virtual status_t readyToRun();

  /// requestExit, then waits. Not from the thread itself (that returns WOULD_BLOCK, -11).
  status_t requestExitAndWait();
  /// Waits until the thread has ended. Not from the thread itself (WOULD_BLOCK, -11).
  status_t join();
  bool isRunning() const;

 protected:
  bool exitPending() const;

 private:
  virtual bool threadLoop() = 0;
  static void* Run(void* self);

  mutable std::mutex mutex_;
  std::condition_variable ended_;
  pthread_t thread_{};
  char name_[16] = {};
  std::int32_t priority_ = PRIORITY_DEFAULT;
  status_t status_ = NO_ERROR;
  bool running_ = false;
  bool exit_pending_ = false;
  /// Held while the thread starts and during each iteration.
  sp<Thread> hold_self_;
};

}  // namespace android
