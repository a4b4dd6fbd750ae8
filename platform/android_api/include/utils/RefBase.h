// SPDX-License-Identifier: Apache-2.0
// Replacement for libutils' reference-counted objects, without weak references.
#pragma once

#include <atomic>
#include <cstdint>

#include "utils/StrongPointer.h"

namespace android {

/// Base of reference-counted objects, inherited virtually as on Android.
///
/// The object is deleted with its last strong reference, on the thread that drops it. An object
/// without references may also be destroyed directly, for example on the stack. Allocates nothing.
/// Any thread.
class RefBase {
 public:
  RefBase(const RefBase&) = delete;
  RefBase& operator=(const RefBase&) = delete;

  /// Adds a strong reference. The caller keeps the object alive. `id` is unused here.
  void incStrong(const void* /*id*/) const { strong_.fetch_add(1, std::memory_order_relaxed); }
  /// Drops a strong reference.
  void decStrong(const void* /*id*/) const {
    // Release and acquire: the destructor sees what other holders did to the object.
    if (strong_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  /// Returns the number of strong references.
  std::int32_t getStrongCount() const { return strong_.load(std::memory_order_relaxed); }

 protected:
  RefBase() = default;
  virtual ~RefBase() = default;

 private:
  mutable std::atomic<std::int32_t> strong_{0};
};

}  // namespace android
