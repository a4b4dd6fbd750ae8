// SPDX-License-Identifier: Apache-2.0
// The C library before its own constructor has run.
#pragma once

namespace host {

/// Calls the constructors of the C library unless they have run, with the arguments that the
/// dynamic linker passes to constructors. For the first constructor of the process.
///
/// Loading a library runs the constructors of the C library if they have not run, but with
/// arguments that only they set: the program's name and its arguments would stay unknown for later
/// libraries. A second run stores the same values.
void InitializeCLibrary(int argument_count, char** arguments, char** environment);

/// Whether the dynamic linker has loaded this library before the C library: it was preloaded. The
/// environment does not tell, since a process may have inherited it.
bool LoadedBeforeCLibrary();

}  // namespace host
