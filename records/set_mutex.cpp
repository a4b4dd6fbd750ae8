// The slow half of the record sets' lock.
#include "records/set_mutex.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace {

/// Looks this often before it gives up the processor: longer than a record operation takes.
constexpr int kSpins = 200;
/// Then yields this often before it sleeps: the holder may be waiting for this processor.
constexpr int kYields = 20;
/// How long it sleeps at a time, in nanoseconds.
constexpr long kSleep = 50'000;

}  // namespace

void SetMutex::LockSlow() {
  // A waiting thread is inside the program's malloc or free: errno is the program's.
  const int saved_errno = errno;
  for (int round = 0;; ++round) {
    if (state_.load(std::memory_order_relaxed) == 0 && try_lock()) break;
    if (round < kSpins) continue;
    if (round < kSpins + kYields) {
      sched_yield();
    } else {
      // The system call itself: the C library's function is a cancellation point, and malloc and
      // free are none.
      const timespec pause{0, kSleep};
      syscall(SYS_nanosleep, &pause, nullptr);
    }
  }
  errno = saved_errno;
}
