// SPDX-License-Identifier: Apache-2.0
// The registry of loaded libraries, by basename.
//
// Used by the hook engine and the choice of hook targets, on any thread. One caller is the control
// signal's handler, so these functions may run there if the C library's allocator may. All of them
// may take the loader's lock. Only refreshing allocates.
#pragma once

#include "linker/elfSharedLibData.h"
#include "linker/library_hold.h"

namespace lumora::linker {

/// Returns the record of the library with the basename of `libname`. If it is unknown, logs that
/// and returns the empty record. A record that is no longer valid is returned once and dropped, so
/// that the next refresh reads the library again. Libraries with the same basename share the record
/// of the first one found.
elfSharedLibData sharedLib(const char* libname);

/// A reference to a library and its record, or the empty record.
struct HeldLibrary {
  /// Null if the loader gives no reference. Then the caller must keep the library loaded.
  LibraryHold hold;
  elfSharedLibData library;
};

/// As sharedLib, for a caller that then reads the library. Also returns a library that has
/// symbols but no PLT slots, and keeps its record. Returns the empty record if the library was
/// unloaded.
HeldLibrary hold_shared_lib(const char* libname);

/// Adds every loaded library that is not known yet. Returns 0, or 1 with errno: ENOSYS if the
/// loader cannot list its libraries, ENOMEM if libraries are missing for lack of memory.
int refresh_shared_libs();

/// Returns the result of refresh_shared_libs. While the index is switched off: does nothing and
/// returns 1 with errno ENOTSUP.
int linker_initialize();

/// Switches the index on (non-zero, the initial state) or off. Any thread.
void linker_set_enabled(int enabled);

/// Returns the last component of `path` in a static buffer that the next call on any thread
/// overwrites. "." for a null or empty path, "/" for a path of slashes; trailing slashes are
/// ignored. Null with errno ENAMETOOLONG if the component has 1024 bytes or more.
char* plt_basename(const char* path);

}  // namespace lumora::linker
