// SPDX-License-Identifier: Apache-2.0
// Replaces the thread-local exception state of libstdc++ and libc++abi by a thread key. See
// README.md.
//
// The rest of the runtime calls it on any thread that throws or catches.
#include <pthread.h>

#include "platform/cxx_runtime/support.h"

namespace {

/// The layout that both runtimes use (Itanium C++ ABI, "Caught Exception Stack").
struct ExceptionGlobals {
  void* caught;
  unsigned int uncaught;
};
static_assert(sizeof(ExceptionGlobals) == 16);

platform::Pool<sizeof(ExceptionGlobals)> g_globals;
pthread_key_t g_key;
bool g_has_key = false;

void Release(void* globals) {
  if (!g_globals.GiveBack(globals)) std::free(globals);
}

/// Runs while the library is loaded, because the C library stores values of the first 32 keys
/// without an allocation. A later key works, too, with one allocation per thread. The tracker's
/// other keys are created later, and it refuses to start without them: if this key is missing,
/// nothing throws.
__attribute__((constructor)) void MakeKeyOfExceptions() {
  g_has_key = pthread_key_create(&g_key, Release) == 0;
}

ExceptionGlobals* ThreadGlobals() {
  if (!g_has_key) platform::Die("no thread key for an exception");
  void* globals = pthread_getspecific(g_key);
  if (globals != nullptr) return static_cast<ExceptionGlobals*>(globals);
  globals = g_globals.Take();
  if (globals == nullptr) globals = std::calloc(1, sizeof(ExceptionGlobals));
  if (globals == nullptr || pthread_setspecific(g_key, globals) != 0) {
    platform::Die("no memory for an exception");
  }
  return static_cast<ExceptionGlobals*>(globals);
}

}  // namespace

// Visible, so that they also replace those of a shared runtime library, which tests have.
// NOLINTBEGIN(bugprone-reserved-identifier): names of the runtime library
#pragma GCC visibility push(default)
extern "C" ExceptionGlobals* __cxa_get_globals() noexcept {
  return ThreadGlobals();
}
extern "C" ExceptionGlobals* __cxa_get_globals_fast() noexcept {
  return ThreadGlobals();
}
#pragma GCC visibility pop
// NOLINTEND(bugprone-reserved-identifier)
