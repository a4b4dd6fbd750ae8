// Marks that a thread sets for itself, in thread-specific values: the C library itself loads the
// tracker, which therefore must not have thread-local variables.
#pragma once

#include <pthread.h>

#include <atomic>

/// A mark that every thread sets for itself alone, null at first.
///
/// Get and Set may run on any thread and in any context, and allocate nothing: the values of all
/// keys lie in an array of the thread. While there is no key, which is before Create and after
/// Delete, every thread counts as marked and nothing is written: the number of a deleted key may
/// belong to another library.
class ThreadMark {
 public:
  /// The usual mark: the thread is inside the tracker.
  static inline void* const kInside = reinterpret_cast<void*>(1);

  /// `number` is not used here.
  explicit constexpr ThreadMark(int /*number*/) {}

  /// The calling thread's mark or null; kInside while there is no key.
  void* Get() const {
    const pthread_key_t key = key_.load(std::memory_order_relaxed);
    return key != kNoKey ? pthread_getspecific(key) : kInside;
  }
  /// Sets the calling thread's mark; null removes it.
  void Set(void* mark) const {
    // The C library refuses kNoKey.
    pthread_setspecific(key_.load(std::memory_order_relaxed), mark);
  }

  /// Makes the key, without a destructor. Returns 0 or an errno value. Only from track_initialize.
  int Create() {
    pthread_key_t key = kNoKey;
    const int error = pthread_key_create(&key, nullptr);
    if (error == 0) key_.store(key, std::memory_order_relaxed);
    return error;
  }
  /// Deletes the key if there is one. Only from track_initialize and track_finalize.
  void Delete() {
    // Before the key goes: a deleted one reads as null, which would mean that the thread may
    // record.
    const pthread_key_t key = key_.exchange(kNoKey, std::memory_order_relaxed);
    if (key != kNoKey) pthread_key_delete(key);
  }

 private:
  /// No key of bionic's: those are negative numbers near the smallest.
  static constexpr pthread_key_t kNoKey = 0x7FFFFFFF;

  std::atomic<pthread_key_t> key_{kNoKey};
};
