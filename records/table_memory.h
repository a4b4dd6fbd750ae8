// Memory of the record tables.
//
// It comes from the kernel. The C library's allocator is the last resort: it would count the tables
// among the program's own blocks. It is asked when no lock of the store is held, since
// malloc_disable takes the allocator's lock before those.
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

/// Asks the C library's allocator for the memory that the last failed Map lacked; a later Map gets
/// it. False when there is none. Keeps errno. The caller holds no lock of the store and is not
/// inside the allocator, as a hooked call may be.
bool RefillFromHeap();

/// Zeroes `bytes` bytes that Map has returned and gives whole pages of them back to the kernel.
/// Keeps errno. Any thread.
void Zero(void* memory, std::size_t bytes);

/// Blocks of a power of two bytes, cut from chunks. Any thread; keeps errno. The caller may hold
/// the pool's lock over several calls of the functions named so.
class Pool {
 public:
  /// `bytes` zeroed bytes, rounded up to a power of two of at least 32. Null when there is no
  /// memory. Takes the pool's lock.
  void* Allocate(std::size_t bytes);
  /// Takes back what Allocate(bytes) returned. Takes the pool's lock.
  void Free(void* block, std::size_t bytes);

  /// The pool's lock.
  bool try_lock() { return lock_.try_lock(); }
  void lock() { lock_.lock(); }
  void unlock() { lock_.unlock(); }
  /// As Free, under the pool's lock.
  void FreeLocked(void* block, std::size_t bytes);
  /// Takes back every block and gives the pages back to the kernel; the addresses stay mapped.
  /// Under the pool's lock.
  void ResetLocked();

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
