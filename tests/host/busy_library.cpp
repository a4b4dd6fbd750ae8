// SPDX-License-Identifier: Apache-2.0
// A library that allocates in its constructor and destructor, also on a thread that the constructor
// waits for. If a program is linked with it, it also starts a thread before main.
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <string>
#include <thread>

namespace {

void* block = nullptr;
std::string* text = nullptr;
std::atomic<int> blocked_in_thread{-1};

void* Churn(void*) {
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  for (int i = 0; i < 200000; ++i) free(malloc(static_cast<size_t>(i % 5000 + 1)));
  blocked_in_thread = sigismember(&mask, 44);
  return nullptr;
}

__attribute__((constructor)) void Construct() {
  block = memset(malloc(3000), 7, 3000);
  // The dynamic linker's lock is held.
  std::thread([] { text = new std::string(500, 'x'); }).join();
  pthread_t thread;
  if (START_THREAD && pthread_create(&thread, nullptr, Churn, nullptr) == 0) pthread_detach(thread);
}

__attribute__((destructor)) void Destruct() {
  if (text->size() != 500 || (block = realloc(block, 9000)) == nullptr) abort();
  free(block);
  delete text;
}

}  // namespace

/// The block that the constructor has allocated.
extern "C" void* busy_library_block() {
  return block;
}

/// Whether the early thread blocks the control signal; -1 before it has ended.
extern "C" int busy_library_thread_blocked() {
  return blocked_in_thread;
}
