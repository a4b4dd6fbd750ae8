// SPDX-License-Identifier: Apache-2.0
// A library whose fork handlers free and allocate, and whose constructor runs before the loader's:
// they run while the forking thread holds every lock of the record store.
#include <pthread.h>

#include <cstdlib>

namespace {

constexpr std::size_t kFirst = 7000;
void* volatile kept[3];

/// The handler gives back a block of kFirst bytes and keeps one of kFirst + kSizeBeyond.
template <std::size_t kSizeBeyond>
void Replace() {
  void* volatile& block = kept[kSizeBeyond - 1];
  std::free(block);
  block = std::malloc(kFirst + kSizeBeyond);
}

__attribute__((constructor)) void Register() {
  pthread_atfork(Replace<1>, Replace<2>, Replace<3>);
}

}  // namespace

/// Allocates what the handlers give back.
extern "C" __attribute__((visibility("default"))) int fork_handlers_linked() {
  for (void* volatile& block : kept) block = std::malloc(kFirst);
  return 1;
}
