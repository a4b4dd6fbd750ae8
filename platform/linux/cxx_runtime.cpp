// The parts of the C++ run-time library that the tracker brings along itself.
//
// The tracker links the C++ library statically, since a watched program may have none, or another.
// Archive members come whole: a few functions of that library would bring a constructor that
// allocates while the library is loaded, the demangler and all of the locales. They are defined
// here instead, to the same contracts; what would bring a TLS segment is in exception_globals.cpp.
// Linked into the library alone, and not with sanitizers, which need the shared C++ library.
//
// Called by compiled code on any thread that throws or catches, with no memory left if need be.
#include <cxxabi.h>
#include <unwind.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>

#include "platform/runtime_support.h"

namespace {

/// What the C++ library keeps in front of a thrown object: a count of references, padded to 16
/// bytes, 80 bytes about type and handler, and the unwinder's part.
constexpr std::size_t kHeaderBytes = 16 + 80 + sizeof(_Unwind_Exception);
static_assert(kHeaderBytes == 128);

platform::Pool<kHeaderBytes + 32> g_exceptions;

}  // namespace

namespace __cxxabiv1 {

extern "C" void* __cxa_allocate_exception(std::size_t size) noexcept {
  const std::size_t bytes = kHeaderBytes + size;
  // The pool first: most exceptions here say that the allocator has nothing left.
  void* block = size <= 32 ? g_exceptions.Take() : nullptr;
  if (block == nullptr) block = std::calloc(1, bytes);
  if (block == nullptr) platform::Die("no memory for an exception");
  return static_cast<unsigned char*>(block) + kHeaderBytes;
}
extern "C" void __cxa_free_exception(void* thrown) noexcept {
  void* const block = static_cast<unsigned char*>(thrown) - kHeaderBytes;
  if (!g_exceptions.GiveBack(block)) std::free(block);
}

}  // namespace __cxxabiv1

namespace __gnu_cxx {

/// The handler that std::terminate calls until a program sets another.
void __verbose_terminate_handler() {
  platform::Die("an exception that nobody catches");
}

}  // namespace __gnu_cxx

// What the containers and locks call when they cannot go on.
namespace std {  // NOLINT(cert-dcl58-cpp): these are the C++ library's own functions

void __throw_bad_alloc() {
  throw bad_alloc();
}
void __throw_bad_array_new_length() {
  throw bad_array_new_length();
}
// More than a container can ever hold is more memory than there is: whoever copes with the one
// copes with the other.
void __throw_length_error(const char* /*what*/) {
  throw bad_alloc();
}

// Mistakes of the tracker itself, which nothing in it would catch.
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
