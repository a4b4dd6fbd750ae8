// Memory of the record tables: whole zeroed pages, straight from the kernel.
//
// Not from the C library's allocator: the tables grow and shrink under a set's lock, while
// malloc_disable takes the allocator's lock first and the sets' locks after it; a block freed there
// would come back as a call of the tracker's own entry; and freeing large blocks would raise the
// allocator's mmap threshold and so change how the watched program's heap grows. Used by the
// tables of records/, under the lock of the set, on every allocating thread.
#pragma once

#include <cstddef>

namespace table_memory {

inline constexpr std::size_t kCacheLine = 64;

/// `bytes` zeroed bytes, aligned to a page; null when there is no memory. Keeps errno. Any thread.
void* Allocate(std::size_t bytes);
/// Gives back what Allocate(bytes) returned; null is fine. Keeps errno. Any thread.
void Free(void* memory, std::size_t bytes);

}  // namespace table_memory
