// Memory of the record tables, in zeroed blocks.
//
// It comes from the kernel. The C library's allocator is the last resort: it would count the tables
// among the program's own blocks, and freeing large blocks changes how a heap grows. It must not be
// called under a lock of the record store either: malloc_disable takes the allocator's lock first
// and the store's locks after it.
#pragma once

#include <cstddef>

namespace table_memory {

inline constexpr std::size_t kCacheLine = 64;

/// `bytes` zeroed bytes, aligned to a page; null when the kernel has none. Keeps errno. Any thread,
/// under any lock.
void* FromKernel(std::size_t bytes);
/// `bytes` zeroed bytes, aligned to a cache line; null when the C library's allocator has none.
/// Keeps errno. Any thread that holds no lock of the record store.
void* FromAllocator(std::size_t bytes);
/// Takes back `bytes` bytes from either of the two; null is fine. What came from the C library's
/// allocator goes back there with the next FreeWaiting. Keeps errno. Any thread, under any lock.
void Free(void* memory, std::size_t bytes);
/// Returns the blocks that wait for it to the C library's allocator. Keeps errno. Any thread that
/// holds no lock of the record store.
void FreeWaiting();

}  // namespace table_memory
