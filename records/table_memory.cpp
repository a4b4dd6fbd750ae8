// Memory of the record tables: from the kernel, else from the C library's allocator.
#include "records/table_memory.h"

#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "tracker/MemTrackControl.h"

namespace table_memory {
namespace {

/// The least page of all systems. A block of the kernel's begins at a page, one of the allocator's
/// never does: that tells them apart.
constexpr std::uintptr_t kPage = 4096;

/// In the cache line before a block of the allocator's.
struct Header {
  /// What the allocator returned.
  void* start;
  /// The next block that waits to be freed.
  Header* next;
};

/// The blocks that wait to be freed, newest first.
std::atomic<Header*> waiting{nullptr};

const MallocDispatch* Allocator() {
  const MemTrackControl* control = MemTrackControl::GetInstance();
  return control != nullptr ? control->dispatch() : nullptr;
}

}  // namespace

void* FromKernel(std::size_t bytes) {
  const int saved_errno = errno;
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  errno = saved_errno;
  return memory == MAP_FAILED ? nullptr : memory;
}

void* FromAllocator(std::size_t bytes) {
  const MallocDispatch* allocator = Allocator();
  if (allocator == nullptr) return nullptr;
  const int saved_errno = errno;
  // One line for the header, one for the alignment, and one so that the block does not begin at a
  // page.
  void* start = allocator->malloc(bytes + 3 * kCacheLine);
  errno = saved_errno;
  if (start == nullptr) return nullptr;
  auto block = (reinterpret_cast<std::uintptr_t>(start) + 2 * kCacheLine - 1) & ~(kCacheLine - 1);
  if (block % kPage == 0) block += kCacheLine;
  reinterpret_cast<Header*>(block - kCacheLine)->start = start;
  return std::memset(reinterpret_cast<void*>(block), 0, bytes);
}

void Free(void* memory, std::size_t bytes) {
  if (memory == nullptr) return;
  const auto block = reinterpret_cast<std::uintptr_t>(memory);
  if (block % kPage == 0) {
    const int saved_errno = errno;
    munmap(memory, bytes);
    errno = saved_errno;
    return;
  }
  auto* const header = reinterpret_cast<Header*>(block - kCacheLine);
  header->next = waiting.load(std::memory_order_relaxed);
  while (!waiting.compare_exchange_weak(header->next, header, std::memory_order_release,
                                        std::memory_order_relaxed)) {
  }
}

void FreeWaiting() {
  Header* header = waiting.exchange(nullptr, std::memory_order_acquire);
  const int saved_errno = errno;
  while (header != nullptr) {
    Header* const next = header->next;
    Allocator()->free(header->start);
    header = next;
  }
  errno = saved_errno;
}

}  // namespace table_memory
