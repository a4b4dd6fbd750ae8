// What a thread has thrown and caught, kept with a thread key.
//
// The C++ run-time libraries that are linked into the tracker keep it in a thread-local variable,
// whose first use on a thread may allocate, and which gives the library a TLS segment, or emulated
// variables. These two functions take the place of theirs. Left out with sanitizers, which need the
// shared C++ library. Called by the rest of the run-time library, on any thread that throws or
// catches.
#include <pthread.h>

#include "platform/runtime_support.h"

namespace {

/// As laid out in the run-time libraries of both compilers.
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

/// While the library is loaded: the C library stores the values of the first 32 keys without an
/// allocation, and a program has hardly used them up by then. A later key works too; its first
/// value on a thread takes one. The library's other keys are made after this one, and without them
/// it refuses to start: with no key left, nothing in it throws.
__attribute__((constructor)) void MakeKeyOfExceptions() {
  g_has_key = pthread_key_create(&g_key, Release) == 0;
}

ExceptionGlobals* ThreadGlobals() {
  if (!g_has_key) platform::Die("an exception without a thread key to keep it with");
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

// Visible, so that they replace those of a shared run-time library, too: tests have one.
// NOLINTBEGIN(bugprone-reserved-identifier): the run-time library's names
#pragma GCC visibility push(default)
extern "C" ExceptionGlobals* __cxa_get_globals() noexcept {
  return ThreadGlobals();
}
extern "C" ExceptionGlobals* __cxa_get_globals_fast() noexcept {
  return ThreadGlobals();
}
#pragma GCC visibility pop
// NOLINTEND(bugprone-reserved-identifier)
