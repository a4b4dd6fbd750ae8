// SPDX-License-Identifier: Apache-2.0
// Times captures of call stacks by call-frame information, as recording with the unwinder makes
// them.
//
//   memleak_bench_unwind [--seconds S] [--stacks N]
//
// Runs N (512) call paths of 10 and of 32 functions without frame pointers, in random order.
// Captures the stack at the end of each path: once in the first run, five times in the second. The
// difference is the cost of four captures without that of the calls. Prints processor time, the
// best of nine runs.
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "arch/frame.h"
#include "platform/call_stack.h"

namespace {

constexpr unsigned kFunctions = 4;
constexpr unsigned kMaxFrames = 64;

std::uint64_t g_pcs[kMaxFrames];
std::size_t g_max = 0;
std::uint64_t g_captured = 0;

#define KEEPS_FRAME_RECORD __attribute__((noinline, optimize("no-omit-frame-pointer")))

KEEPS_FRAME_RECORD void Capture(int captures) {
  const auto* record = static_cast<const arch::FrameRecord*>(__builtin_frame_address(0));
  for (int i = 0; i < captures; ++i) g_captured += platform::CallStack(record, g_pcs, g_max);
  __asm__ volatile("" ::: "memory");
}

/// Replaces the tracker's entry.
KEEPS_FRAME_RECORD void Entry(int captures) {
  Capture(captures);
  __asm__ volatile("" ::: "memory");
}

template <unsigned kLevel, unsigned kIndex>
__attribute__((noinline)) unsigned Level(std::uint64_t path, int captures);

template <unsigned kLevel>
__attribute__((always_inline)) inline unsigned Call(std::uint64_t path, int captures) {
  switch (path % kFunctions) {
    case 0:
      return Level<kLevel, 0>(path / kFunctions, captures);
    case 1:
      return Level<kLevel, 1>(path / kFunctions, captures);
    case 2:
      return Level<kLevel, 2>(path / kFunctions, captures);
    default:
      return Level<kLevel, 3>(path / kFunctions, captures);
  }
}

template <unsigned kLevel, unsigned kIndex>
unsigned Level(std::uint64_t path, int captures) {
  volatile char frame[16 * ((kLevel * kFunctions + kIndex) % 5) + 8];
  frame[0] = 0;
  if constexpr (kLevel == 0) {
    Entry(captures);
  } else {
    Call<kLevel - 1>(path, captures);
  }
  return static_cast<unsigned>(frame[0]) + kIndex;
}

/// Returns processor time, because other programs may run meanwhile.
double NowSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

template <unsigned kDepth>
double NsPerCall(const std::vector<std::uint64_t>& paths, int captures, double seconds) {
  std::uint64_t state = 1;
  std::uint64_t calls = 0;
  const double begin = NowSeconds();
  double elapsed = 0;
  do {
    for (int i = 0; i < 2000; ++i) {
      state = state * 6364136223846793005u + 1442695040888963407u;
      Call<kDepth - 1>(paths[(state >> 33) % paths.size()], captures);
    }
    calls += 2000;
    elapsed = NowSeconds() - begin;
  } while (elapsed < seconds);
  return elapsed * 1e9 / static_cast<double>(calls);
}

template <unsigned kDepth>
void Measure(const std::vector<std::uint64_t>& paths, double seconds) {
  g_max = kDepth;
  double once = 1e9;
  double five_times = 1e9;
  for (int run = 0; run < 9; ++run) {
    once = std::min(once, NsPerCall<kDepth>(paths, 1, seconds / 18));
    five_times = std::min(five_times, NsPerCall<kDepth>(paths, 5, seconds / 18));
  }
  const double capture = (five_times - once) / 4;
  std::printf("%2u frames: %6.1f ns a capture, %4.2f ns a frame\n", kDepth, capture,
              capture / kDepth);
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = 2;
  std::size_t stacks = 512;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--seconds") == 0) seconds = std::atof(argv[i + 1]);
    if (std::strcmp(argv[i], "--stacks") == 0) stacks = std::strtoul(argv[i + 1], nullptr, 10);
  }
  platform::PrepareCallStacks();
  std::vector<std::uint64_t> paths(std::max<std::size_t>(stacks, 1));
  for (std::size_t i = 0; i < paths.size(); ++i) {
    const std::uint64_t mixed = i * 0x9E3779B97F4A7C15u;
    paths[i] = mixed ^ mixed >> 29;
  }
  Measure<10>(paths, seconds);
  Measure<32>(paths, seconds);
  return 0;
}
