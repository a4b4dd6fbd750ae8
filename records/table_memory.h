// Memory of the record tables: zeroed, cache-line aligned.
//
// Large tables come straight from the kernel: freeing a large block through the C library's
// allocator would raise its mmap threshold and so change how the watched program's own heap grows.
#pragma once

#include <cstddef>

namespace table_memory {

inline constexpr std::size_t kCacheLine = 64;

/// `bytes` zeroed bytes, aligned to a cache line; null when there is no memory. Any thread.
void* Allocate(std::size_t bytes);
/// Gives back what Allocate(bytes) returned; null is fine.
void Free(void* memory, std::size_t bytes);

}  // namespace table_memory
