// SPDX-License-Identifier: Apache-2.0
// A bump allocator over a static array.
#include "host/bootstrap_arena.h"

#include <errno.h>
#include <stdint.h>
#include <string.h>

#include <atomic>

namespace host {
namespace {

// A lookup needs a few hundred bytes for the messages of dlerror. Unused pages of the array take no
// memory.
constexpr size_t kArenaBytes = size_t{256} << 10;
// The header before each block contains the block's size. 16 is also the alignment of malloc.
constexpr size_t kHeaderBytes = 16;

alignas(kHeaderBytes) char arena[kArenaBytes];
std::atomic<size_t> arena_taken{0};
std::atomic<bool> arena_used{false};

}  // namespace

void* ArenaAllocate(size_t alignment, size_t size) {
  if (alignment < kHeaderBytes) alignment = kHeaderBytes;
  if (size < kArenaBytes && alignment < kArenaBytes) {
    // Includes slack for the alignment. Cannot overflow.
    const size_t need = kHeaderBytes + alignment + ((size + kHeaderBytes - 1) & -kHeaderBytes);
    size_t start = arena_taken.load();
    while (need <= kArenaBytes - start) {
      if (!arena_taken.compare_exchange_weak(start, start + need)) continue;
      const auto lowest = reinterpret_cast<uintptr_t>(arena + start + kHeaderBytes);
      char* block = reinterpret_cast<char*>((lowest + alignment - 1) & -alignment);
      memcpy(block - kHeaderBytes, &size, sizeof size);
      return block;
    }
  }
  errno = ENOMEM;
  return nullptr;
}

void* ArenaCalloc(size_t count, size_t size) {
  size_t bytes;
  // The memory is zero, because the arena never reuses it.
  return ArenaAllocate(0, __builtin_mul_overflow(count, size, &bytes) ? SIZE_MAX : bytes);
}

bool ArenaContains(const void* pointer) {
  return reinterpret_cast<uintptr_t>(pointer) - reinterpret_cast<uintptr_t>(arena) < kArenaBytes;
}

size_t ArenaBlockSize(const void* pointer) {
  size_t size;
  memcpy(&size, static_cast<const char*>(pointer) - kHeaderBytes, sizeof size);
  return size;
}

void MarkArenaUsed() {
  arena_used.store(true);
}

bool ArenaUsed() {
  return arena_used.load();
}

}  // namespace host
