// The record store's locks: four bytes, taken inline on every allocation of every thread.
//
// A mutex of the C library costs a call each way and forty bytes, which would push the tables'
// heads out of the cache line that the lock has just fetched; its unlock is a second atomic
// read-modify-write, which waits for every store before it, cold lines included. Here unlocking is
// a plain store, so nobody is woken: who finds the lock held looks again, and sleeps in between
// once it has been held for longer than a record operation takes. Only a report, a fork and
// malloc_disable hold one that long. A forked child may free a lock that another thread held.
#pragma once

#include <atomic>
#include <cstdint>

/// Meets BasicLockable and Lockable. Not recursive. Any thread may unlock it; unlocking a free one
/// does nothing.
class SetMutex {
 public:
  /// Waits until the lock is free and takes it. Keeps errno; no cancellation point.
  void lock() {
    if (!try_lock()) LockSlow();
  }
  /// Takes the lock if it is free; says whether it did.
  bool try_lock() { return state_.exchange(1, std::memory_order_acquire) == 0; }
  /// Frees the lock.
  void unlock() { state_.store(0, std::memory_order_release); }

 private:
  void LockSlow();

  std::atomic<std::uint32_t> state_{0};
};

/// Holds a lock of a set while it lives, unless the thread holds the locks of all sets anyway.
class SetLock {
 public:
  SetLock(SetMutex& mutex, bool held) : mutex_(mutex), held_(held) {
    if (__builtin_expect(static_cast<long>(!held_), 1L) != 0) mutex_.lock();
  }
  ~SetLock() {
    if (__builtin_expect(static_cast<long>(!held_), 1L) != 0) mutex_.unlock();
  }
  SetLock(const SetLock&) = delete;
  SetLock& operator=(const SetLock&) = delete;

 private:
  SetMutex& mutex_;
  const bool held_;
};
