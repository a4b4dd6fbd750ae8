// Stand-in: sp, the platform's strong reference to an object with incStrong and decStrong.
//
// Used by the dump thread's object and whoever starts or stops it. References to one object are for
// any thread; one reference is for one thread at a time.
#pragma once

#include <utility>

namespace android {

template <typename T>
class wp;

template <typename T>
class sp {
 public:
  sp() = default;
  sp(T* object) : object_(object) {  // NOLINT(google-explicit-constructor): as in the platform's
    if (object_ != nullptr) object_->incStrong(this);
  }
  sp(const sp& other) : sp(other.object_) {}
  sp(sp&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <typename U>
  sp(const sp<U>& other) : sp(static_cast<T*>(other.get())) {}  // NOLINT
  ~sp() {
    if (object_ != nullptr) object_->decStrong(this);
  }
  sp& operator=(sp other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  /// Drops the reference, and with the last one the object; null afterwards.
  void clear() { *this = sp(); }
  /// The object, still owned by this reference; null when there is none.
  T* get() const { return object_; }
  T& operator*() const { return *object_; }
  T* operator->() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }
  bool operator==(const sp& other) const { return object_ == other.object_; }
  bool operator!=(const sp& other) const { return object_ != other.object_; }
  bool operator==(const T* other) const { return object_ == other; }
  bool operator!=(const T* other) const { return object_ != other; }

 private:
  friend class wp<T>;
  void set_pointer(T* object) { object_ = object; }  // takes over a reference already counted

  T* object_ = nullptr;
};

}  // namespace android
