// A library whose fork handlers allocate, and whose constructor runs before the loader's: they run
// while the forking thread holds every lock of the record store.
#include <pthread.h>

#include <cstdlib>

namespace {

void Allocate() {
  for (std::size_t size = 8; size < 600; size += 24) {
    void* block = std::malloc(size);
    __asm__ volatile("" : "+r"(block) : : "memory");
    std::free(block);
  }
}

__attribute__((constructor)) void Register() {
  pthread_atfork(Allocate, Allocate, Allocate);
}

}  // namespace

/// Gives the program a reason to need this library.
extern "C" __attribute__((visibility("default"))) int fork_handlers_linked() {
  return 1;
}
