// SPDX-License-Identifier: Apache-2.0
// References to loaded libraries. A library stays loaded while a reference exists.
//
// Used by the hook engine, on any thread, with none of its locks held: these functions take the
// loader's lock, and dropping a reference may run the library's destructors.
#pragma once

#include <dlfcn.h>

#include <memory>

namespace lumora::linker {

struct LibraryCloser {
  void operator()(void* handle) const { dlclose(handle); }
};

/// A reference to a loaded library, or null. Dropping it may change errno.
using LibraryHold = std::unique_ptr<void, LibraryCloser>;

/// Sets `hold` to a reference to the library that has a segment at `address`. Sets it to null if
/// the loader gives no reference: for the main program, or a library that this one may not open.
/// Returns false if nothing is loaded at `address`. Allocates nothing itself.
bool hold_library_at(const void* address, LibraryHold& hold);

}  // namespace lumora::linker
