// Keeps fork and unwinding apart. Passes are taken on the allocation path of every thread.
#include "platform/standin/unwind_gate.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace platform {
namespace {

/// Unwinds under way, counted in several places so that threads seldom share a cache line.
struct alignas(64) Counter {
  std::atomic<int> unwinds{0};
};
constexpr unsigned kSlots = 32;
Counter g_counters[kSlots];
/// Threads that are between the two fork handlers; several may fork at once.
std::atomic<int> g_forking{0};

/// By the calling thread's stack: stacks lie megabytes apart.
unsigned SlotOfThread() {
  const auto stack = reinterpret_cast<std::uint64_t>(__builtin_frame_address(0));
  constexpr std::uint64_t kGolden = 0x9E3779B97F4A7C15;  // spreads neighbours (Fibonacci hashing)
  return static_cast<unsigned>((stack >> 20) * kGolden >> 59) % kSlots;
}

bool AnyUnwind() {
  for (const Counter& counter : g_counters) {
    if (counter.unwinds.load() > 0) return true;
  }
  return false;
}

/// The C library's nanosleep is a cancellation point, at which a cancelled thread would leave the
/// allocation it is making.
void Pause(const timespec& duration) {
  syscall(SYS_nanosleep, &duration, nullptr);
}

/// Waits while `busy` holds, but not for ever.
template <typename Condition>
void WaitWhile(Condition busy) {
  const int saved_errno = errno;
  constexpr int kPauses = 500;
  constexpr timespec kPause{0, 100'000};
  for (int i = 0; i < kPauses && busy(); ++i) Pause(kPause);
  errno = saved_errno;
}

void BeforeFork() {
  g_forking.fetch_add(1);
  WaitWhile(AnyUnwind);
}

void AfterForkInParent() {
  g_forking.fetch_sub(1);
}

void AfterForkInChild() {
  // Whoever was still counted, be it for an unwind or for a fork, does not exist here.
  for (Counter& counter : g_counters) counter.unwinds.store(0);
  g_forking.store(0);
}

}  // namespace

void InstallUnwindGate() {
  static std::atomic<bool> installed{false};
  if (installed.exchange(true)) return;
  pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
}

// Here and in BeforeFork each side first says that it is there and then looks for the other, all in
// one order that every thread sees alike: at least one of the two sees the other.
UnwindPass::UnwindPass() : slot_(SlotOfThread()) {
  std::atomic<int>& unwinds = g_counters[slot_].unwinds;
  unwinds.fetch_add(1);
  if (g_forking.load() == 0) return;
  unwinds.fetch_sub(1);
  WaitWhile([] { return g_forking.load() > 0; });
  unwinds.fetch_add(1);
}

UnwindPass::~UnwindPass() {
  g_counters[slot_].unwinds.fetch_sub(1);
}

}  // namespace platform
