// SPDX-License-Identifier: Apache-2.0
// The time. Any thread, safe in signal handlers. Nothing here allocates.
#pragma once

#include <stdint.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace host {

/// Returns the time of the monotonic clock in milliseconds.
inline int64_t NowMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

/// Returns the time in nanoseconds since 1970.
inline int64_t UnixNs() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

/// Returns the wall-clock time `timeout_ms` from now, for pthread_mutex_timedlock and
/// pthread_timedjoin_np.
inline timespec WallClock(int timeout_ms) {
  timespec moment;
  clock_gettime(CLOCK_REALTIME, &moment);
  moment.tv_sec += timeout_ms / 1000;
  moment.tv_nsec += timeout_ms % 1000 * 1'000'000L;
  if (moment.tv_nsec >= 1'000'000'000) ++moment.tv_sec, moment.tv_nsec -= 1'000'000'000;
  return moment;
}

/// Sleeps for `ms` milliseconds (below 1000). Not a cancellation point.
inline void SleepMs(int ms) {
  const timespec step{0, ms * 1'000'000L};
  syscall(SYS_nanosleep, &step, nullptr);
}

}  // namespace host
