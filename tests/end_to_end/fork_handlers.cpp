// SPDX-License-Identifier: Apache-2.0
// A library whose fork handlers free and allocate. Its constructor runs before the loader's, so its
// handlers run while the forking thread holds every lock of the record store.
#include <pthread.h>

#include <cstdlib>

namespace {

constexpr std::size_t kFirst = 7000;
void* volatile kept[3];

/// The handler frees a block of kFirst bytes and allocates one of kFirst + kSizeBeyond.
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

/// Allocates the blocks that the handlers free.
extern "C" __attribute__((visibility("default"))) int fork_handlers_linked() {
  for (void* volatile& block : kept) block = std::malloc(kFirst);
  return 1;
}
