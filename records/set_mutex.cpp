// The slow half of the record sets' lock.
#include "records/set_mutex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace {

/// Tries this often before it sleeps: the lock is held for some dozen instructions.
constexpr int kSpins = 100;

}  // namespace

void SetMutex::LockSlow() {
  // A waiting thread is inside the program's malloc or free: errno is the program's.
  const int saved_errno = errno;
  for (int i = 0; i < kSpins; ++i) {
    if (state_.load(std::memory_order_relaxed) == 0 && try_lock()) return;
  }
  while (state_.exchange(2, std::memory_order_acquire) != 0) {
    syscall(SYS_futex, &state_, FUTEX_WAIT_PRIVATE, 2, nullptr, nullptr, 0);
  }
  errno = saved_errno;
}

void SetMutex::WakeOne() {
  const int saved_errno = errno;
  syscall(SYS_futex, &state_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
  errno = saved_errno;
}
