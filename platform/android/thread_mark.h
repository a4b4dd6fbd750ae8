// SPDX-License-Identifier: Apache-2.0
// Per-thread marks, as thread-specific values. The C library itself loads the tracker on Android,
// so the tracker must not have thread-local variables there.
#pragma once

#include <pthread.h>

#include <atomic>

/// A pointer per thread, initially null. Only the thread itself reads and sets it.
///
/// Get and Set: any thread, any context. They allocate nothing, because bionic keeps the values of
/// all keys in a per-thread array. Before Create and after Delete every thread counts as marked and
/// Set does nothing, because the number of a deleted key may belong to another library.
class ThreadMark {
 public:
  /// The usual mark: the thread is inside the tracker.
  static inline void* const kInside = reinterpret_cast<void*>(1);

  /// `number` is unused here.
  explicit constexpr ThreadMark(int /*number*/) {}

  /// Returns the calling thread's mark or null. Returns kInside if there is no key.
  void* Get() const {
    const pthread_key_t key = key_.load(std::memory_order_relaxed);
    return key != kNoKey ? pthread_getspecific(key) : kInside;
  }
  /// Sets the calling thread's mark; null removes it.
  void Set(void* mark) const {
    // bionic rejects kNoKey.
    pthread_setspecific(key_.load(std::memory_order_relaxed), mark);
  }

  /// Creates the key. Returns 0 or an errno value. Only from track_initialize.
  int Create() {
    pthread_key_t key = kNoKey;
    const int error = pthread_key_create(&key, nullptr);
    if (error == 0) key_.store(key, std::memory_order_relaxed);
    return error;
  }
  /// Deletes the key if there is one. Only from track_initialize and track_finalize.
  void Delete() {
    // Forget the key first: a deleted key reads as null, so threads would start to record.
    const pthread_key_t key = key_.exchange(kNoKey, std::memory_order_relaxed);
    if (key != kNoKey) pthread_key_delete(key);
  }

 private:
  /// Not a key of bionic, whose keys have the sign bit set.
  static constexpr pthread_key_t kNoKey = 0x7FFFFFFF;

  std::atomic<pthread_key_t> key_{kNoKey};
};
