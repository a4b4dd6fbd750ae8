// SPDX-License-Identifier: Apache-2.0
// Replaces functions of GNU libstdc++. See README.md.
//
// Compiled code calls them on any thread that throws or catches, possibly without free memory.
#include <cxxabi.h>
#include <unwind.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>

#include "platform/cxx_runtime/support.h"

namespace {

/// What libstdc++ keeps before a thrown object: a reference count padded to 16 bytes, 80 bytes
/// about type and handler, and the unwinder's header.
constexpr std::size_t kHeaderBytes = 16 + 80 + sizeof(_Unwind_Exception);
static_assert(kHeaderBytes == 128);
constexpr std::size_t kPooledObjectBytes = 32;

platform::Pool<kHeaderBytes + kPooledObjectBytes> g_exceptions;

}  // namespace

namespace __cxxabiv1 {

extern "C" void* __cxa_allocate_exception(std::size_t size) noexcept {
  // Use the pool first: most exceptions here report that the allocator is out of memory.
  void* block = size <= kPooledObjectBytes ? g_exceptions.Take() : nullptr;
  if (block == nullptr) block = std::calloc(1, kHeaderBytes + size);
  if (block == nullptr) platform::Die("no memory for an exception");
  return static_cast<unsigned char*>(block) + kHeaderBytes;
}
extern "C" void __cxa_free_exception(void* thrown) noexcept {
  void* const block = static_cast<unsigned char*>(thrown) - kHeaderBytes;
  if (!g_exceptions.GiveBack(block)) std::free(block);
}

}  // namespace __cxxabiv1

namespace __gnu_cxx {

/// The default handler of std::terminate.
void __verbose_terminate_handler() {
  platform::Die("uncaught exception");
}

}  // namespace __gnu_cxx

// Called by containers and locks that cannot continue.
namespace std {  // NOLINT(cert-dcl58-cpp): these are the C++ library's own functions

void __throw_bad_alloc() {
  throw bad_alloc();
}
void __throw_bad_array_new_length() {
  throw bad_array_new_length();
}
// A container that would exceed its maximum size needs more memory than there is, so callers that
// handle bad_alloc handle this case, too.
void __throw_length_error(const char* /*what*/) {
  throw bad_alloc();
}

// Errors of the tracker itself, which nothing in it catches.
void __throw_logic_error(const char* what) {
  platform::Die(what);
}
void __throw_out_of_range_fmt(const char* what, ...) {
  platform::Die(what);
}
void __throw_system_error(int error) {
  platform::Die(strerror(error));
}

}  // namespace std
