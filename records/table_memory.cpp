// Memory of the record tables.
#include "records/table_memory.h"

#include <sys/mman.h>

#include <cerrno>

namespace table_memory {

void* Allocate(std::size_t bytes) {
  const int saved_errno = errno;
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  errno = saved_errno;
  return memory == MAP_FAILED ? nullptr : memory;
}

void Free(void* memory, std::size_t bytes) {
  if (memory == nullptr) return;
  const int saved_errno = errno;
  munmap(memory, bytes);
  errno = saved_errno;
}

}  // namespace table_memory
