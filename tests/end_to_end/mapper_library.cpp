// SPDX-License-Identifier: Apache-2.0
// Libraries whose calls are hooked. This file is built once for each library name that the tracker
// knows, because the name decides what can be hooked. The barriers keep the functions on the stack.
#include <sys/ioctl.h>
#include <sys/mman.h>

#include <cstddef>

#define MAPPER_FUNCTION extern "C" __attribute__((noinline, visibility("default")))

#ifdef MAPPER_MAPS
MAPPER_FUNCTION void* MapOne(std::size_t size) {
  void* mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  __asm__ volatile("" : "+r"(mapping) : : "memory");
  return mapping;
}
MAPPER_FUNCTION int UnmapOne(void* mapping, std::size_t size) {
  int result = munmap(mapping, size);
  __asm__ volatile("" : "+r"(result) : : "memory");
  return result;
}
#else
MAPPER_FUNCTION int MAPPER_NAME(int descriptor, unsigned long request, void* argument) {
  int result = ioctl(descriptor, request, argument);
  __asm__ volatile("" : "+r"(result) : : "memory");
  return result;
}
#endif
