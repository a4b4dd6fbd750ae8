// SPDX-License-Identifier: Apache-2.0
// A static object that is never destroyed, because threads may use it after main has returned.
#pragma once

#include <new>

namespace platform {

/// Holds a T in place, without the heap. Use it as a static inside a function: T is constructed on
/// first use, on any thread.
template <typename T>
class NeverDestroyed {
 public:
  NeverDestroyed() { new (memory_) T(); }
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;

  /// Returns the object, which lives until the process ends.
  T& get() { return *std::launder(reinterpret_cast<T*>(memory_)); }

 private:
  alignas(T) unsigned char memory_[sizeof(T)];
};

}  // namespace platform
