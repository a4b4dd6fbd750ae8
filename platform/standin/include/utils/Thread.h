// Stand-in: the platform's thread object.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "utils/RefBase.h"

namespace android {

using status_t = std::int32_t;
enum : status_t {
  OK = 0,
  NO_ERROR = 0,
  UNKNOWN_ERROR = INT32_MIN,
  WOULD_BLOCK = -11,
  INVALID_OPERATION = -38,
};

/// Thread priorities, as nice values (Android: system/thread_defs.h).
enum { PRIORITY_DEFAULT = 0, PRIORITY_NORMAL = 0, PRIORITY_BACKGROUND = 10 };

/// A thread that calls threadLoop() until it returns false, exit is requested or nobody else holds
/// a strong reference.
///
/// The thread holds itself while it starts and during each iteration, and only weakly between two:
/// a starter that drops its reference at once still gets one iteration, and after that the object
/// is destroyed on its own thread. The operations are for any thread.
class Thread : virtual public RefBase {
 public:
  /// `can_call_java` is accepted for the platform's sake and means nothing here.
  explicit Thread(bool can_call_java = true);
  ~Thread() override;

  /// Starts the thread under `name` (cut to 15 bytes), with nice value `priority` (PRIORITY_DEFAULT
  /// keeps the starter's) and a stack of `stack` bytes (0: the default; too small a size is raised
  /// to the least that is possible). Returns NO_ERROR; INVALID_OPERATION when it already runs;
  /// UNKNOWN_ERROR when no thread can be made. The caller holds a strong reference.
  /// A thread that has ended may be run again.
  virtual status_t run(const char* name, std::int32_t priority = PRIORITY_DEFAULT,
                       std::size_t stack = 0);
  /// Asks the thread to end after the current iteration; does not wait.
  virtual void requestExit();
  /// Called on the new thread before the first iteration; other than NO_ERROR ends it.
  virtual status_t readyToRun();

  /// requestExit, then join.
  status_t requestExitAndWait();
  /// Waits until the thread has made its last iteration, at once when none runs. Returns what
  /// readyToRun returned, or WOULD_BLOCK without waiting when called on the thread itself.
  status_t join();
  /// Whether the thread was started and has not made its last iteration.
  bool isRunning() const;

 protected:
  /// Whether the thread is to end; for threadLoop to look at.
  bool exitPending() const;

 private:
  /// One iteration, on the thread. False ends the thread.
  virtual bool threadLoop() = 0;

  static void* Run(void* self);
  status_t Start(std::size_t stack);
  void SetUpThread() const;
  bool IterateFirst();
  bool EndUnless(bool go_on);

  mutable std::mutex mutex_;  // guards all below, except that the thread reads what run() wrote
  /// Not the C++ library's, whose object brings its error categories and locales along.
  pthread_cond_t ended_ = PTHREAD_COND_INITIALIZER;
  pthread_t thread_{};  // valid while running_
  char name_[16] = {};
  std::int32_t priority_ = PRIORITY_DEFAULT;
  status_t status_ = NO_ERROR;
  bool running_ = false;
  bool exit_pending_ = false;
  /// From run() until the new thread has taken this reference over.
  sp<Thread> hold_self_;
};

}  // namespace android
