// SPDX-License-Identifier: Apache-2.0
// Runs the constructors of the C library early, and finds out whether the loader was preloaded.
#pragma once

namespace host {

/// Calls the constructors of the C library, unless they have run, with the arguments that the
/// dynamic linker passes to constructors. For the first constructor of the process.
///
/// Without this call, the first dlopen would run these constructors without the program's name and
/// arguments, so later libraries would not get them. The dynamic linker runs the constructors once
/// more, which stores the same values.
void InitializeCLibrary(int argument_count, char** arguments, char** environment);

/// Returns whether this library was preloaded: the dynamic linker has loaded it before the C
/// library. Does not check LD_PRELOAD, which an attached process may have inherited. Any thread.
bool LoadedBeforeCLibrary();

}  // namespace host
