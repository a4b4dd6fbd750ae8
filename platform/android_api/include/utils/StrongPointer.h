// SPDX-License-Identifier: Apache-2.0
// Replacement for libutils' strong reference.
#pragma once

#include <utility>

namespace android {

/// A strong reference to an object with incStrong and decStrong, or null. Several threads may hold
/// references to one object; one reference is for one thread at a time.
template <typename T>
class sp {
 public:
  sp() = default;
  sp(T* object) : object_(object) {  // NOLINT(google-explicit-constructor): as in libutils
    if (object_ != nullptr) object_->incStrong(this);
  }
  sp(const sp& other) : sp(other.object_) {}
  sp(sp&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  ~sp() {
    if (object_ != nullptr) object_->decStrong(this);
  }
  sp& operator=(sp other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  /// Drops the reference.
  void clear() { *this = sp(); }
  T* operator->() const { return object_; }
  bool operator==(const T* other) const { return object_ == other; }

 private:
  T* object_ = nullptr;
};

}  // namespace android
