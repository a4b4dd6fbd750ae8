// SPDX-License-Identifier: Apache-2.0
// One of many small libraries that come and go while stacks are captured. NUMBER tells them apart:
// their code lies at other offsets and has frames of other sizes, so whatever is remembered of one
// is wrong for the next that is loaded at its place.
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
