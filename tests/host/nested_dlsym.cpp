// SPDX-License-Identifier: Apache-2.0
// A dlsym that allocates, on this thread and on another, while the loader looks for the next
// allocator. Loaded after the loader. The program checks its blocks later.
#include <dlfcn.h>
#include <malloc.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

extern "C" {

void* nested_blocks[5];

__attribute__((noinline)) static void Allocate() {
  nested_blocks[0] = memcpy(malloc(40), "kept", 5);
  nested_blocks[1] = calloc(10, 30);
  nested_blocks[2] = memalign(1024, 100);
  nested_blocks[3] = realloc(memcpy(malloc(5), "grow", 5), 4000);
  pthread_t thread;
  const auto other = [](void*) -> void* { return malloc(77); };
  if (pthread_create(&thread, nullptr, other, nullptr) != 0) abort();
  pthread_join(thread, &nested_blocks[4]);
}

void* dlsym(void* handle, const char* name) noexcept {
  static void* (*real)(void*, const char*) = nullptr;
  if (real == nullptr) {
    void* found = dlvsym(RTLD_NEXT, "dlsym", "GLIBC_2.34");
    memcpy(&real, &found, sizeof found);
    Allocate();
  }
  void* found = real(handle, name);
  return found;
}
}
