// SPDX-License-Identifier: Apache-2.0
// Counts unloads of libraries for the tracker, which caches facts about code by address. Any
// thread.
#include <dlfcn.h>

#include <atomic>
#include <cstdint>

#include "host/exports.h"
#include "host/next_function.h"
#include "protocol/protocol.h"

// protocol::kUnloadCounter.
MEMLEAK_VARIABLE std::atomic<std::uint64_t> memleak_unload_counter;
std::atomic<std::uint64_t> memleak_unload_counter{0};
// protocol::kUnloadObserver.
MEMLEAK_VARIABLE std::atomic<protocol::UnloadObserver> memleak_unload_observer;
std::atomic<protocol::UnloadObserver> memleak_unload_observer{nullptr};

MEMLEAK_EXPORT int dlclose(void* library) {
  static host::NextFunction<int(void*)> next{"dlclose"};
  const protocol::UnloadObserver observer = memleak_unload_observer.load(std::memory_order_acquire);
  if (observer != nullptr) observer(/*closed=*/false);
  // Counted before and after the call: during it the library's destructors run, and another thread
  // may load a library at the same address.
  memleak_unload_counter.fetch_add(1, std::memory_order_acq_rel);
  const int result = next(library);
  memleak_unload_counter.fetch_add(1, std::memory_order_acq_rel);
  if (observer != nullptr) observer(/*closed=*/true);
  return result;
}
