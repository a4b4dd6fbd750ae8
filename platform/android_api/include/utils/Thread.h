// SPDX-License-Identifier: Apache-2.0
// Replacement for libutils' thread object.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

#include "utils/RefBase.h"

namespace android {

using status_t = std::int32_t;
enum : status_t {
  NO_ERROR = 0,
  UNKNOWN_ERROR = INT32_MIN,
  INVALID_OPERATION = -38,
};

/// Thread priorities, as nice values (Android: system/thread_defs.h).
enum { PRIORITY_DEFAULT = 0, PRIORITY_BACKGROUND = 10 };

/// A thread that calls threadLoop() until it returns false or there is no other strong reference.
///
/// The thread holds itself while it runs, so the starter may drop its reference at once: there is
/// at least one iteration, and the object is deleted on its own thread. Any thread.
class Thread : virtual public RefBase {
 public:
  /// `can_call_java` is unused here.
  explicit Thread(bool /*can_call_java*/ = true) {}

  /// Starts the thread. The caller holds a strong reference. `name` is cut to 15 bytes. `priority`
  /// is a nice value; PRIORITY_DEFAULT keeps the caller's. `stack` is the size of the stack in
  /// bytes, 0 for the default.
  ///
  /// Returns NO_ERROR, INVALID_OPERATION if the thread runs already, or UNKNOWN_ERROR if it cannot
  /// be created. A thread that has ended may be started again.
  virtual status_t run(const char* name, std::int32_t priority = PRIORITY_DEFAULT,
                       std::size_t stack = 0);

 private:
  /// One iteration, on the thread. Returns false to end the thread.
  virtual bool threadLoop() = 0;

  static void* Run(void* self);
  status_t Start(std::size_t stack);
  void SetUpThread() const;

  std::mutex mutex_;  // guards running_
  bool running_ = false;
  // Written before the thread is created.
  char name_[16] = {};
  std::int32_t priority_ = PRIORITY_DEFAULT;
};

}  // namespace android
