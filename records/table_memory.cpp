// Memory of the record tables.
#include "records/table_memory.h"

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>

namespace table_memory {
namespace {

/// From here on a table has mappings of its own: four pages and more.
constexpr std::size_t kMappedBytes = 16384;

}  // namespace

void* Allocate(std::size_t bytes) {
  if (bytes >= kMappedBytes) {
    void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? nullptr : memory;
  }
  const std::size_t rounded = (bytes + kCacheLine - 1) / kCacheLine * kCacheLine;
  void* memory = std::aligned_alloc(kCacheLine, rounded);
  if (memory != nullptr) std::memset(memory, 0, rounded);
  return memory;
}

void Free(void* memory, std::size_t bytes) {
  if (memory == nullptr) return;
  if (bytes >= kMappedBytes) {
    munmap(memory, bytes);
  } else {
    std::free(memory);
  }
}

}  // namespace table_memory
