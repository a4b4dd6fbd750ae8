// The registry of loaded libraries, by basename.
//
// Called by the hook engine and by the choice of hook targets, on any thread; the control signal's
// handler is one caller, so all of it may run there as far as the C library's allocator may.
#pragma once

#include "linker/elfSharedLibData.h"

namespace lumora::linker {

/// The record of the library with the basename of `libname`; the empty one, and a log line, when it
/// is not known. A record that is no longer valid is returned as it is, and dropped so that the
/// next refresh reads the library again. Two libraries of one basename share one record: the first
/// seen.
elfSharedLibData sharedLib(const char* libname);

/// Adds every loaded library that is not known yet. Returns 0, or 1 when the loader cannot list its
/// libraries.
int refresh_shared_libs();

/// refresh_shared_libs' result; 1, with nothing done, while the index is switched off.
int linker_initialize();

/// Switches the index on (any other value than 0, and at the start) or off. Any thread.
void linker_set_enabled(int enabled);

/// The last component of `path`, in a buffer that the next call, on whatever thread, overwrites.
/// "." for a null or empty path, "/" for one of slashes only; trailing slashes do not count. Null
/// and errno ENAMETOOLONG when it has 1024 bytes or more.
char* plt_basename(const char* path);

}  // namespace lumora::linker
