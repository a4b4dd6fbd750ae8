// References to loaded libraries: a library stays loaded while one is held.
//
// Used by the hook engine, on any thread, with none of its locks held: the loader's lock is taken
// here, and letting a library go may run its destructors.
#pragma once

#include <dlfcn.h>

#include <memory>

namespace lumora::linker {

struct LibraryCloser {
  void operator()(void* handle) const { dlclose(handle); }
};

/// A reference to a loaded library, or null. Letting it go may change errno.
using LibraryHold = std::unique_ptr<void, LibraryCloser>;

/// Sets `hold` to a reference to the library whose segments hold `address`; to null when the loader
/// gives none, as for a program, or for a library that this one may not open. False when there is
/// nothing loaded at the address. Allocates nothing itself.
bool hold_library_at(const void* address, LibraryHold& hold);

}  // namespace lumora::linker
