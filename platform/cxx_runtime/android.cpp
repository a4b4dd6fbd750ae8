// SPDX-License-Identifier: Apache-2.0
// Replaces the demangler of libc++abi. See README.md.
#include <cstddef>

/// Reports that `mangled_name` is not a mangled name (Itanium C++ ABI, "Demangler API"). Only the
/// handler for uncaught exceptions calls it; it then prints the mangled name.
///
/// Sets `status` to -2 and returns null. Any thread.
extern "C" __attribute__((visibility("hidden"))) char* __cxa_demangle(  // NOLINT: the ABI's name
    const char* /*mangled_name*/, char* /*buffer*/, std::size_t* /*length*/, int* status) {
  constexpr int kInvalidName = -2;
  if (status != nullptr) *status = kInvalidName;
  return nullptr;
}
