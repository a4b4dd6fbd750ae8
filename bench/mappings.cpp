// SPDX-License-Identifier: Apache-2.0
// Maps and unmaps 64 KiB repeatedly, through a library that can be hooked. Prints nanoseconds per
// pair, the best of several rounds. Used by bench/mappings.
//   memleak_mappings PAIRS [touch]     "touch" writes to the first page of each mapping
#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" void* MapOne(std::size_t size);
extern "C" int UnmapOne(void* mapping, std::size_t size);

int main(int argc, char** argv) {
  constexpr std::size_t kBytes = std::size_t{64} << 10;
  constexpr int kRounds = 10;
  const long pairs = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 0;
  const bool touch = argc > 2 && std::strcmp(argv[2], "touch") == 0;
  if (pairs < kRounds) {
    std::fprintf(stderr, "usage: memleak_mappings PAIRS [touch]\n");
    return 2;
  }
  const long each = pairs / kRounds;
  double best = 1e18;
  for (int round = 0; round < kRounds; ++round) {
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < each; ++i) {
      void* mapping = MapOne(kBytes);
      if (mapping == MAP_FAILED) return 1;
      if (touch) *static_cast<volatile char*>(mapping) = 1;
      if (UnmapOne(mapping, kBytes) != 0) return 1;
    }
    const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - start;
    best = std::min(best, took.count() / static_cast<double>(each));
  }
  std::printf("%.1f\n", best);
  return 0;
}
