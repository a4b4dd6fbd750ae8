// SPDX-License-Identifier: Apache-2.0
// Memory for the record tables.
//
// It comes from the kernel. The C library's allocator is only the last resort: it would count the
// tables as blocks of the program. It is called only while no lock of the store is held, since
// malloc_disable takes the allocator's lock before those locks.
//
// Memory is never unmapped: threads read tables without locks, so a reader may still access a block
// that was freed.
#pragma once

#include <cstddef>
#include <cstdint>

#include "records/set_mutex.h"

namespace table_memory {

inline constexpr std::size_t kCacheLine = 64;

/// Returns `bytes` zeroed bytes, aligned to a cache line, that are never freed. Returns null if
/// there is no memory; then call RefillFromHeap. Keeps errno. Any thread, under any lock of the
/// store.
void* Map(std::size_t bytes);

/// Allocates the memory of the last failed Map with the C library's allocator; a later Map returns
/// it. Returns false if there is none. Keeps errno. The caller must hold no lock of the store, and
/// must not be inside the allocator (a hooked call may be).
bool RefillFromHeap();

/// Zeroes `bytes` bytes that Map returned and gives whole pages of them back to the kernel. Keeps
/// errno. Any thread.
void Zero(void* memory, std::size_t bytes);

/// Allocates blocks of a power of two bytes from larger chunks. Any thread. Keeps errno. A caller
/// may hold the pool's lock while it calls the functions whose names end in Locked.
class Pool {
 public:
  /// Returns `bytes` zeroed bytes, rounded up to a power of two of at least 32; null if there is no
  /// memory. Takes the pool's lock.
  void* Allocate(std::size_t bytes);
  /// Frees a block that Allocate(bytes) returned. Takes the pool's lock.
  void Free(void* block, std::size_t bytes);

  /// The pool's lock (Lockable).
  bool try_lock() { return lock_.try_lock(); }
  void lock() { lock_.lock(); }
  void unlock() { lock_.unlock(); }
  /// As Free. The caller holds the pool's lock.
  void FreeLocked(void* block, std::size_t bytes);
  /// Frees all blocks and gives their pages back to the kernel. The addresses stay mapped. The
  /// caller holds the pool's lock.
  void ResetLocked();

 private:
  struct Chunk {
    Chunk* next;
    std::size_t bytes;
    /// Bytes in use, including this header.
    std::size_t used;
  };
  struct FreeBlock {
    FreeBlock* next;
  };
  static constexpr unsigned kSmallestLog2 = 5;
  static constexpr unsigned kSizes = 32;

  void* Cut(std::size_t bytes);

  SetMutex lock_;
  /// All chunks. Cut uses the first one with enough room, starting at `current_`.
  Chunk* chunks_ = nullptr;
  Chunk* current_ = nullptr;
  FreeBlock* free_[kSizes] = {};
};

}  // namespace table_memory
