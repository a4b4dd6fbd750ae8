// SPDX-License-Identifier: Apache-2.0
// Memory for the record tables.
#include "records/table_memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <new>

#include "tracker/control/MemTrackControl.h"

namespace table_memory {

namespace {

constexpr std::size_t kFirstChunk = std::size_t{64} << 10;
constexpr std::size_t kMaxChunkBytes = std::size_t{1} << 20;

/// Size of the last failed request, in bytes; 0 for none.
std::atomic<std::size_t> wanted{0};

/// Header of a block in the reserve. The rest of the block is zero.
struct Reserved {
  Reserved* next;
  std::size_t bytes;
};

/// Blocks from the C library's allocator, for requests that failed. Lock-free: a forked child could
/// not free a lock here that another thread of the parent held.
std::atomic<Reserved*> reserve{nullptr};

void AddReserve(Reserved* block) {
  block->next = reserve.load(std::memory_order_relaxed);
  while (!reserve.compare_exchange_weak(block->next, block, std::memory_order_release,
                                        std::memory_order_relaxed)) {
  }
}

/// Takes a zeroed block of at least `bytes` bytes from the reserve. Returns null if it has none.
void* TakeReserve(std::size_t bytes) {
  if (reserve.load(std::memory_order_relaxed) == nullptr) return nullptr;
  Reserved* block = reserve.exchange(nullptr, std::memory_order_acquire);
  void* found = nullptr;
  while (block != nullptr) {
    Reserved* const next = block->next;
    if (found == nullptr && block->bytes >= bytes) {
      *block = {};
      found = block;
    } else {
      AddReserve(block);
    }
    block = next;
  }
  return found;
}

}  // namespace

void* Map(std::size_t bytes) {
  const int saved_errno = errno;
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  errno = saved_errno;
  if (memory != MAP_FAILED) return memory;
  memory = TakeReserve(bytes);
  if (memory == nullptr) wanted.store(bytes, std::memory_order_relaxed);
  return memory;
}

bool RefillFromHeap() {
  const std::size_t bytes = wanted.exchange(0, std::memory_order_relaxed);
  if (bytes == 0) return true;  // another thread refilled the reserve just now
  const int saved_errno = errno;
  void* const memory = MemTrackControl::GetInstance()->dispatch()->memalign(kCacheLine, bytes);
  errno = saved_errno;
  if (memory == nullptr) return false;
  AddReserve(new (std::memset(memory, 0, bytes)) Reserved{nullptr, bytes});
  return true;
}

void Zero(void* memory, std::size_t bytes) {
  const auto page = static_cast<std::size_t>(getpagesize());
  char* const begin = static_cast<char*>(memory);
  char* const end = begin + bytes;
  const auto up = [page](char* at) {
    return at + (-reinterpret_cast<std::uintptr_t>(at) & (page - 1));
  };
  char* const first = up(begin);
  char* const last = up(end - (page - 1));
  if (first >= last) {
    std::memset(begin, 0, bytes);
    return;
  }
  std::memset(begin, 0, static_cast<std::size_t>(first - begin));
  std::memset(last, 0, static_cast<std::size_t>(end - last));
  const int saved_errno = errno;
  if (madvise(first, static_cast<std::size_t>(last - first), MADV_DONTNEED) != 0) {
    std::memset(first, 0, static_cast<std::size_t>(last - first));
  }
  errno = saved_errno;
}

namespace {

unsigned Log2Up(std::size_t bytes, unsigned smallest) {
  const unsigned log2 = bytes <= 1 ? 0 : 64U - static_cast<unsigned>(__builtin_clzll(bytes - 1));
  return log2 < smallest ? smallest : log2;
}

}  // namespace

void* Pool::Cut(std::size_t bytes) {
  for (; current_ != nullptr; current_ = current_->next) {
    if (current_->bytes - current_->used < bytes) continue;
    void* const block = reinterpret_cast<char*>(current_) + current_->used;
    current_->used += bytes;
    return block;
  }
  std::size_t size = chunks_ == nullptr ? kFirstChunk : chunks_->bytes * 2;
  if (size > kMaxChunkBytes) size = kMaxChunkBytes;
  if (size < bytes + kCacheLine) size = bytes + kCacheLine;
  auto* chunk = static_cast<Chunk*>(Map(size));
  if (chunk == nullptr && size > bytes + kCacheLine) {
    size = bytes + kCacheLine;  // memory is short: only what is needed
    chunk = static_cast<Chunk*>(Map(size));
  }
  if (chunk == nullptr) return nullptr;
  *chunk = {chunks_, size, kCacheLine + bytes};
  chunks_ = chunk;
  current_ = chunk;
  return reinterpret_cast<char*>(chunk) + kCacheLine;
}

void* Pool::Allocate(std::size_t bytes) {
  const unsigned log2 = Log2Up(bytes, kSmallestLog2);
  void* block;
  {
    const std::lock_guard<SetMutex> guard(lock_);
    FreeBlock*& first = free_[log2];
    block = first;
    if (first != nullptr) {
      first = first->next;
    } else {
      block = Cut(std::size_t{1} << log2);
    }
  }
  if (block != nullptr) std::memset(block, 0, std::size_t{1} << log2);
  return block;
}

void Pool::Free(void* block, std::size_t bytes) {
  const std::lock_guard<SetMutex> guard(lock_);
  FreeLocked(block, bytes);
}

void Pool::FreeLocked(void* block, std::size_t bytes) {
  const unsigned log2 = Log2Up(bytes, kSmallestLog2);
  auto* const freed = static_cast<FreeBlock*>(block);
  freed->next = free_[log2];
  free_[log2] = freed;
}

void Pool::ResetLocked() {
  for (FreeBlock*& first : free_) first = nullptr;
  for (Chunk* chunk = chunks_; chunk != nullptr; chunk = chunk->next) {
    Zero(reinterpret_cast<char*>(chunk) + kCacheLine, chunk->bytes - kCacheLine);
    chunk->used = kCacheLine;
  }
  current_ = chunks_;
}

}  // namespace table_memory
