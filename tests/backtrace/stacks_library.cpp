// SPDX-License-Identifier: Apache-2.0
// One of many small libraries that are loaded and unloaded while stacks are captured. With each
// NUMBER the code has other offsets and frames of other sizes. So cached data of one library is
// wrong for the next one at the same address.
#include <sys/mman.h>

#include <cstddef>
#include <cstdlib>

#define STACKS_FUNCTION extern "C" __attribute__((noinline, visibility("default")))
#define TEXT_OF(number) #number
#define TEXT(number) TEXT_OF(number)
__asm__(".text\n.skip " TEXT(NUMBER) " * 12288\n");

STACKS_FUNCTION void* Inner(std::size_t size, int depth) {
  char large_frame[16 + 400 * NUMBER];
  __asm__ volatile("" : : "r"(large_frame) : "memory");
  void* block = depth > 0 ? Inner(size, depth - 1) : std::malloc(size);
  __asm__ volatile("" : "+r"(block) : : "memory");
  return block;
}

/// Allocates below NUMBER % 3 + 2 frames of this library.
STACKS_FUNCTION void* Make(std::size_t size) {
  void* block = Inner(size, NUMBER % 3);
  __asm__ volatile("" : "+r"(block) : : "memory");
  return block;
}

/// Calls mmap and munmap through slots that can be hooked.
STACKS_FUNCTION bool MapOnce() {
  void* page = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return page != MAP_FAILED && munmap(page, 4096) == 0;
}
