// SPDX-License-Identifier: Apache-2.0
// Replaces malloc by one that counts its calls.
#include "allocation_counter.h"

#include <atomic>
#include <cstddef>

static std::atomic<long> g_allocations{0};

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void* __libc_malloc(std::size_t size);

extern "C" void* malloc(std::size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(size);
}
#endif

long AllocationsDuring(const std::function<void()>& run) {
  const long before = g_allocations.load();
  run();
  return g_allocations.load() - before;
}
