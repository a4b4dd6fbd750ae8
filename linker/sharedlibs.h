// The registry of loaded libraries, by basename.
//
// Called by the hook engine and by the choice of hook targets, on any thread; the control signal's
// handler is one caller, so all of it may run there as far as the C library's allocator may. All of
// it may take the loader's lock. Only refreshing allocates.
#pragma once

#include "linker/elfSharedLibData.h"
#include "linker/library_hold.h"

namespace lumora::linker {

/// The record of the library with the basename of `libname`; the empty one, and a log line, when it
/// is not known. A record that is no longer valid is returned as it is, and dropped so that the
/// next refresh reads the library again. Two libraries of one basename share one record: the first
/// seen.
elfSharedLibData sharedLib(const char* libname);

/// A library that stays loaded while this lives, or the empty record.
struct HeldLibrary {
  /// Null where the loader gives no reference: then the caller sees to it that the library stays.
  LibraryHold hold;
  elfSharedLibData library;
};

/// As sharedLib, for a caller that goes on to read the library. A library that calls nobody through
/// slots is found as well (it may define functions), and its record is kept. One that is gone gives
/// the empty record.
HeldLibrary hold_shared_lib(const char* libname);

/// Adds every loaded library that is not known yet. Returns 0; 1 with errno ENOSYS when the loader
/// cannot list its libraries, and with ENOMEM when some were left out for lack of memory.
int refresh_shared_libs();

/// refresh_shared_libs' result; 1 with errno ENOTSUP, and nothing done, while the index is switched
/// off.
int linker_initialize();

/// Switches the index on (any other value than 0, and at the start) or off. Any thread.
void linker_set_enabled(int enabled);

/// The last component of `path`, in a buffer that the next call, on whatever thread, overwrites.
/// "." for a null or empty path, "/" for one of slashes only; trailing slashes do not count. Null
/// and errno ENAMETOOLONG when it has 1024 bytes or more.
char* plt_basename(const char* path);

}  // namespace lumora::linker
