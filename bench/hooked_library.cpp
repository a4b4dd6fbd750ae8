// The library that bench/hooks.cpp hooks. It calls the functions that it imports.
#include "hooked_library.h"

#include <sys/mman.h>

#include <cstddef>

extern "C" {

void bench_call(long count) {
  for (long at = 0; at < count; ++at) bench_empty(at);
}

void bench_map(long count) {
  constexpr std::size_t kBytes = std::size_t{64} * 1024;
  for (long at = 0; at < count; ++at) {
    munmap(mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0),
           kBytes);
  }
}

void bench_call_all() {
#define BENCH_CALL(name) name();
  BENCH_THOUSAND(BENCH_CALL)
}

}  // extern "C"
