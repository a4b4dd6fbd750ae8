// SPDX-License-Identifier: Apache-2.0
// The locks of the record store: four bytes, inlined.
//
// A mutex of the C library has forty bytes and costs a call to lock and to unlock. Here an unlock
// is a plain store and wakes no thread. A waiting thread polls, and sleeps between polls if the
// lock is held for longer than a record operation takes: only a report, a fork and malloc_disable
// hold one that long. A forked child can free a lock that another thread of the parent held.
#pragma once

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>

/// Branch hints for the hot path of an allocation. Forced inline: otherwise GCC loses the hint.
__attribute__((always_inline)) inline bool Likely(bool condition) {
  return __builtin_expect(static_cast<long>(condition), 1L) != 0;
}
__attribute__((always_inline)) inline bool Unlikely(bool condition) {
  return __builtin_expect(static_cast<long>(condition), 0L) != 0;
}

/// Waits until `done()` is true. Polls at first, then yields the processor, then sleeps 50
/// microseconds at a time. Keeps errno, since the thread is inside the program's malloc or free.
/// Not a cancellation point, since malloc and free are none.
template <typename Condition>
__attribute__((noinline)) void SpinUntil(Condition done) {
  /// Longer than a record operation takes.
  constexpr int kSpins = 200;
  /// The lock holder may need this processor.
  constexpr int kYields = 20;
  const int saved_errno = errno;
  for (int round = 0; !done(); ++round) {
    if (round < kSpins) continue;
    if (round < kSpins + kYields) {
      sched_yield();
    } else {
      // The C library's nanosleep is a cancellation point.
      const timespec pause{0, 50'000};
      syscall(SYS_nanosleep, &pause, nullptr);
    }
  }
  errno = saved_errno;
}

/// Meets BasicLockable and Lockable. Not recursive. Any thread may unlock it. Unlocking a free lock
/// has no effect.
class SetMutex {
 public:
  /// Waits until the lock is free and takes it.
  void lock() {
    if (!try_lock()) SpinUntil([this] { return !is_locked() && try_lock(); });
  }
  /// Takes the lock if it is free. Returns whether it did.
  bool try_lock() { return state_.exchange(1, std::memory_order_seq_cst) == 0; }
  /// Frees the lock.
  void unlock() { state_.store(0, std::memory_order_release); }
  /// Whether any thread holds the lock.
  bool is_locked() const { return state_.load(std::memory_order_seq_cst) != 0; }

 private:
  std::atomic<std::uint32_t> state_{0};
};

/// Holds a lock of a set during its lifetime. Does nothing if `held`: the thread holds the locks of
/// all sets already.
class SetLock {
 public:
  SetLock(SetMutex& mutex, bool held) : mutex_(mutex), held_(held) {
    if (Likely(!held_)) mutex_.lock();
  }
  ~SetLock() {
    if (Likely(!held_)) mutex_.unlock();
  }
  SetLock(const SetLock&) = delete;
  SetLock& operator=(const SetLock&) = delete;

 private:
  SetMutex& mutex_;
  const bool held_;
};
