// SPDX-License-Identifier: Apache-2.0
// The phaser's reader counters and the futex wait of its writer.
#include "sigmux/phaser.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <limits>

namespace {

/// Bit 63. A counter that is being drained is negative.
constexpr std::int64_t kDraining = std::numeric_limits<std::int64_t>::min();
constexpr int kWakeAll = 0x7fffffff;

// The futex word is the low half of a counter and has the counter's address.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);
static_assert(sizeof(std::atomic<std::int64_t>) == sizeof(std::int64_t));
static_assert(std::atomic<std::int64_t>::is_always_lock_free);

#if defined(__has_feature)
#define MEMLEAK_HAS_FEATURE(name) __has_feature(name)
#else
#define MEMLEAK_HAS_FEATURE(name) 0
#endif

#if defined(__SANITIZE_THREAD__) || MEMLEAK_HAS_FEATURE(thread_sanitizer)
// ThreadSanitizer does not understand fences, so the counter operations are ordered instead.
constexpr std::memory_order kCount = std::memory_order_seq_cst;
constexpr std::memory_order kLoad = std::memory_order_seq_cst;
void full_fence() {}
#else
constexpr std::memory_order kCount = std::memory_order_relaxed;
constexpr std::memory_order kLoad = std::memory_order_relaxed;
void full_fence() {
  std::atomic_thread_fence(std::memory_order_seq_cst);
}
#endif

/// Calls futex without a timeout. A wait may end early; the caller checks and repeats it.
void futex(std::atomic<std::int64_t>* counter, int operation, std::uint32_t value) {
  syscall(SYS_futex, counter, operation, value, nullptr, nullptr, 0);
}

void drain_phase(std::atomic<std::int64_t>* counter) {
  std::int64_t seen = counter->fetch_or(kDraining, std::memory_order_release) | kDraining;
  while (seen != kDraining) {
    futex(counter, FUTEX_WAIT, static_cast<std::uint32_t>(seen));
    seen = counter->load(kLoad);
  }
  counter->fetch_and(~kDraining, kCount);
}

}  // namespace

int phaser_init(phaser_t* phaser) {
  for (auto& counter : phaser->counter) counter.store(0, std::memory_order_relaxed);
  return 0;
}

unsigned phaser_enter(phaser_t* phaser) {
  unsigned phase = 0;
  while (phaser->counter[phase].load(kLoad) < 0) phase ^= 1U;
  // A drain that begins between the load and the add still waits for this reader. A drain that
  // ended in between removed only objects that this reader can no longer reach.
  phaser->counter[phase].fetch_add(1, kCount);
  full_fence();
  return phase;
}

void phaser_exit(phaser_t* phaser, unsigned phase) {
  full_fence();
  if (phaser->counter[phase].fetch_sub(1, kCount) == kDraining + 1) {
    futex(&phaser->counter[phase], FUTEX_WAKE, kWakeAll);
  }
}

void phaser_drain(phaser_t* phaser) {
  drain_phase(&phaser->counter[0]);
  full_fence();
  drain_phase(&phaser->counter[1]);
  full_fence();
}
