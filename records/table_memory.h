// Memory of the record tables.
//
// It comes from the kernel, not from the C library's allocator: a table grows while locks of the
// store are held, and malloc_disable takes the allocator's lock before those. Only when the kernel
// refuses does the allocator help out, at a moment when no lock is held.
//
// Nothing is ever unmapped: tables are read without locks, and a reader may still look at a block
// that was given back.
#pragma once

#include <cstddef>
#include <cstdint>

#include "records/set_mutex.h"

namespace table_memory {

inline constexpr std::size_t kCacheLine = 64;

/// `bytes` zeroed bytes, aligned to a cache line, for the life of the process. Null when there is
/// no memory; then RefillFromHeap may help. Keeps errno. Any thread, under any lock of the store.
void* Map(std::size_t bytes);

/// Takes memory for the last Map that failed from the C library's allocator; the next Map gets it.
/// False when there is none. Keeps errno. The caller holds no lock of the store.
bool RefillFromHeap();

/// Zeroes `bytes` bytes that Map has returned and gives whole pages of them back to the kernel.
/// Keeps errno. Any thread.
void Zero(void* memory, std::size_t bytes);

/// Blocks of a power of two bytes, cut from chunks. Any thread; keeps errno.
class Pool {
 public:
  /// `bytes` zeroed bytes, rounded up to a power of two of at least 32. Null when there is no
  /// memory. Takes the pool's lock.
  void* Allocate(std::size_t bytes);
  /// Takes back what Allocate(bytes) returned. Takes the pool's lock.
  void Free(void* block, std::size_t bytes);
  /// Takes back every block and gives the pages back to the kernel; the addresses stay mapped.
  /// False, with nothing done, when a thread is inside the pool.
  bool Reset();

 private:
  struct Chunk {
    Chunk* next;
    std::size_t bytes;
    /// Bytes handed out, this head included.
    std::size_t used;
  };
  struct FreeBlock {
    FreeBlock* next;
  };
  static constexpr unsigned kSmallestLog2 = 5;
  static constexpr unsigned kSizes = 32;

  void* Cut(std::size_t bytes);

  SetMutex lock_;
  /// Every chunk; Cut takes from the first one that has room, from `current_` on.
  Chunk* chunks_ = nullptr;
  Chunk* current_ = nullptr;
  FreeBlock* free_[kSizes] = {};
};

}  // namespace table_memory
