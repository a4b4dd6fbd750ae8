// SPDX-License-Identifier: Apache-2.0
// Leaks of known sizes. As a library it exports RememberSessions, which any program can call. With
// LEAKS_MAIN it is a program that uses every allocation function. At exit some blocks are reachable
// and the others are lost. Deterministic.

#include <cstddef>

extern "C" {
void RememberSessions(std::size_t count, std::size_t bytes);
void KeepReachable();
void Lose();
void UseThread();
void FillCache();
}

#ifdef LEAKS_MAIN

int main() {
  KeepReachable();
  Lose();
  UseThread();
  FillCache();
  RememberSessions(1000, 48);
  return 0;
}

#else

#include <malloc.h>
#include <pthread.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

constexpr std::size_t kKept = 16;
std::array<void*, kKept> kept;
void* volatile latest;

struct Cache {
  ~Cache() { std::free(block); }
  void* block = nullptr;
} cache;

}  // namespace

/// Leaks on purpose: `count` blocks of `bytes` each.
void RememberSessions(std::size_t count, std::size_t bytes) {
  for (std::size_t i = 0; i < count; ++i) latest = std::malloc(bytes);
  latest = nullptr;
}

/// Blocks that are reachable at exit. realloc has moved some of them.
void KeepReachable() {
  std::size_t next = 0;
  kept[next++] = std::malloc(1001);
  kept[next++] = std::calloc(7, 143);
  kept[next++] = strdup("a name");
  kept[next++] = ::operator new(1003);
  kept[next++] = ::operator new[](1004);
  kept[next++] = ::operator new (1005, std::align_val_t{256});
  kept[next++] = std::aligned_alloc(64, 1024);
  kept[next++] = memalign(128, 1007);
  kept[next++] = valloc(1008);
  if (posix_memalign(&kept[next], 4096, 1009) == 0) ++next;
  kept[next++] = std::realloc(nullptr, 1010);
  kept[next++] = std::realloc(std::malloc(100), 300000);  // mapped on its own
  kept[next++] = std::realloc(std::malloc(300000), 30);
  kept[next++] = reallocarray(std::calloc(3, 3), 11, 13);
}

/// Blocks that are not reachable at exit. As many other blocks are freed.
void Lose() {
  for (std::size_t bytes = 1; bytes <= 500; ++bytes) {
    latest = std::malloc(bytes);
    std::free(std::malloc(bytes));
    latest = std::realloc(latest, bytes * 3 % 601 + 1);
  }
  latest = nullptr;
}

/// A block that one thread allocates and another frees, and the memory that the C library keeps for
/// an ended thread.
void UseThread() {
  pthread_t thread = {};
  const auto allocate = [](void*) -> void* {
    RememberSessions(10, 50);
    return std::malloc(777);
  };
  void* block = nullptr;
  if (pthread_create(&thread, nullptr, allocate, nullptr) == 0) pthread_join(thread, &block);
  std::free(block);
}

/// A block that the library's destructor frees, after the report at exit.
void FillCache() {
  cache.block = std::malloc(2022);
}

#endif
