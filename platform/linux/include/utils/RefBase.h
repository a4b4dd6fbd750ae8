// Linux stand-in: reference-counted objects with strong and weak references (sp, wp).
#pragma once

#include <atomic>
#include <cstdint>

#include "utils/StrongPointer.h"

namespace android {

/// Base of reference-counted objects. Derived classes inherit it virtually, as in the platform.
/// The object dies with its last strong reference (or, when it never had one, its last weak one).
/// Counting is atomic: references may be taken and dropped on any thread.
class RefBase {
 public:
  class weakref_type {
   public:
    void incWeak(const void* id);
    void decWeak(const void* id);
    /// Takes a strong reference when the object still lives; false otherwise.
    bool attemptIncStrong(const void* id);
    RefBase* refBase() const { return object_; }

   private:
    friend class RefBase;
    explicit weakref_type(RefBase* object) : object_(object) {}
    std::atomic<std::int32_t> strong_{0};
    std::atomic<std::int32_t> weak_{0};
    /// Whether a strong reference was ever taken; before the first, the object counts as alive.
    std::atomic<bool> ever_strong_{false};
    RefBase* const object_;
  };

  RefBase(const RefBase&) = delete;
  RefBase& operator=(const RefBase&) = delete;

  void incStrong(const void* id) const;
  void decStrong(const void* id) const;
  std::int32_t getStrongCount() const;
  weakref_type* createWeak(const void* id) const;
  weakref_type* getWeakRefs() const;

 protected:
  RefBase();
  virtual ~RefBase();

  /// Called once, when the first strong reference is taken.
  virtual void onFirstRef();

 private:
  weakref_type* const refs_;
};

/// Weak reference: keeps the counts alive, not the object; promote() yields a strong one or null.
template <typename T>
class wp {
 public:
  wp() = default;
  wp(T* object) : object_(object) {  // NOLINT(google-explicit-constructor): as in the platform's
    if (object_ != nullptr) refs_ = object_->createWeak(this);
  }
  wp(const sp<T>& other) : wp(other.get()) {}  // NOLINT(google-explicit-constructor)
  wp(const wp& other) : object_(other.object_), refs_(other.refs_) {
    if (refs_ != nullptr) refs_->incWeak(this);
  }
  ~wp() {
    if (refs_ != nullptr) refs_->decWeak(this);
  }
  wp& operator=(const wp& other) {
    if (other.refs_ != nullptr) other.refs_->incWeak(this);
    if (refs_ != nullptr) refs_->decWeak(this);
    object_ = other.object_;
    refs_ = other.refs_;
    return *this;
  }
  wp& operator=(const sp<T>& other) { return *this = wp(other); }
  wp& operator=(T* other) { return *this = wp(other); }

  void clear() { *this = wp(); }
  sp<T> promote() const {
    sp<T> result;
    if (refs_ != nullptr && refs_->attemptIncStrong(&result)) result.set_pointer(object_);
    return result;
  }

 private:
  T* object_ = nullptr;
  RefBase::weakref_type* refs_ = nullptr;
};

}  // namespace android
