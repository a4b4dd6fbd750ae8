// The lock of a record set: four bytes, taken inline on every allocation of every thread.
//
// A mutex of the C library costs a call each way and forty bytes, which would push the tables'
// heads out of the cache line that the lock has just fetched. It is also awkward around fork: the
// child must free locks whoever held them, and one thread holds all 120 at once.
#pragma once

#include <atomic>
#include <cstdint>

/// A mutex on a futex word: 0 free, 1 held, 2 held with waiters. Meets BasicLockable and Lockable.
/// Not recursive. Any thread may unlock it.
class SetMutex {
 public:
  void lock() {
    std::uint32_t expected = 0;
    if (!state_.compare_exchange_strong(expected, 1, std::memory_order_acquire,
                                        std::memory_order_relaxed)) {
      LockSlow();
    }
  }
  bool try_lock() {
    std::uint32_t expected = 0;
    return state_.compare_exchange_strong(expected, 1, std::memory_order_acquire,
                                          std::memory_order_relaxed);
  }
  void unlock() {
    if (state_.exchange(0, std::memory_order_release) == 2) WakeOne();
  }

 private:
  void LockSlow();
  void WakeOne();

  std::atomic<std::uint32_t> state_{0};
};
