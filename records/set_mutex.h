// The record store's locks: four bytes, taken inline.
//
// A mutex of the C library costs a call each way and forty bytes. Unlocking is a plain store and
// wakes no thread. A waiting thread polls, and sleeps in between once the lock has been held for
// longer than a record operation takes. Only a report, a fork and malloc_disable hold one that
// long. A forked child may free a lock that another thread held.
#pragma once

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>

/// Returns once `done()` is true: looks often at first, then gives up the processor, then sleeps 50
/// microseconds at a time. Keeps errno (the waiting thread is inside the program's malloc or free);
/// no cancellation point, since malloc and free are none.
template <typename Condition>
__attribute__((noinline)) void WaitPatiently(Condition done) {
  /// Longer than a record operation takes.
  constexpr int kSpins = 200;
  /// The holder may be waiting for this processor.
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

/// Meets BasicLockable and Lockable. Not recursive. Any thread may unlock it; unlocking a free one
/// does nothing.
class SetMutex {
 public:
  /// Waits until the lock is free and takes it.
  void lock() {
    if (!try_lock()) WaitPatiently([this] { return !is_locked() && try_lock(); });
  }
  /// Takes the lock if it is free; says whether it did.
  bool try_lock() { return state_.exchange(1, std::memory_order_seq_cst) == 0; }
  /// Frees the lock.
  void unlock() { state_.store(0, std::memory_order_release); }
  /// Whether anybody holds it.
  bool is_locked() const { return state_.load(std::memory_order_seq_cst) != 0; }

 private:
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
