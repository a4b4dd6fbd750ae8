// Stand-in: reference-counted objects with strong and weak references (sp, wp).
//
// Used by the dump thread's object and whoever starts or stops it, on any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

#include "utils/StrongPointer.h"

namespace android {

/// Base of reference-counted objects. Derived classes inherit it virtually, as in the platform.
/// The object dies with its last strong reference, on the thread that drops it. An object that
/// never had one may also be destroyed directly, as one on the stack is; weak references alone
/// never destroy it. Counting is atomic: references may be taken and dropped on any thread, but one
/// reference is not for use by two threads at a time. Taking and dropping allocate nothing.
class RefBase {
 public:
  class weakref_type {
   public:
    /// Each weak reference counts once; `id` is for debugging on a device and unused here.
    void incWeak(const void* id);
    void decWeak(const void* id);
    /// Takes a strong reference when the object still lives; false otherwise.
    bool attemptIncStrong(const void* id);

   private:
    friend class RefBase;
    /// Before the first strong reference the object counts as alive; after the last it is dead.
    static constexpr std::int32_t kNeverStrong = -1;
    static constexpr std::int32_t kDead = 0;

    explicit weakref_type(RefBase* object) : object_(object) {}
    ~weakref_type() = default;

    std::atomic<std::int32_t> strong_{kNeverStrong};
    /// The weak references, and one for the object itself until it is gone.
    std::atomic<std::int32_t> weak_{1};
    RefBase* const object_;
  };

  RefBase(const RefBase&) = delete;
  RefBase& operator=(const RefBase&) = delete;

  /// Takes a strong reference; the object must be alive. `id` is unused here, as everywhere.
  void incStrong(const void* id) const;
  /// Drops one; the last deletes the object.
  void decStrong(const void* id) const;
  /// How many strong references there are at this moment; for tests. 0 before the first one (a
  /// device's gives a large number then).
  std::int32_t getStrongCount() const;
  /// Takes a weak reference, to be dropped with decWeak.
  weakref_type* createWeak(const void* id) const;

 protected:
  RefBase();
  virtual ~RefBase();

  /// Called once, when the first strong reference is taken, on the thread that takes it.
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
  wp& operator=(wp other) noexcept {
    std::swap(object_, other.object_);
    std::swap(refs_, other.refs_);
    return *this;
  }
  wp& operator=(const sp<T>& other) { return *this = wp(other); }
  wp& operator=(T* other) { return *this = wp(other); }

  /// Drops the reference; null afterwards.
  void clear() { *this = wp(); }
  /// A strong reference to the object, or null when it is gone or there never was one. Any thread.
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
