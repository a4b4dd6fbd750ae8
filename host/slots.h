// SPDX-License-Identifier: Apache-2.0
// The words of the loaded objects through which the program calls the functions that the loader
// replaces. For a loader that was not preloaded: it points them at its own functions, and back.
//
// A slot is changed only if it holds the function to which the loader's own forwards, or is not
// bound yet. A slot with another definition stays: its blocks belong to another allocator. There is
// no list of changed slots: a slot is restored if it holds a function of the loader.
#pragma once

#include <stddef.h>

namespace host {

/// What ReplaceSlots has found.
struct SlotScan {
  size_t changed;
  size_t unwritable;  ///< slots that could not be changed
  bool other_loader;  ///< another copy of the loader has replaced malloc
  char object[256];   ///< the file with the first unwritable slot
};

/// Looks up the functions to replace and those to which they forward. Call it first. Takes the
/// dynamic linker's lock, may allocate.
void FindReplacedSlots();

/// Adds a function that the loader does not export to those that are replaced.
void AddReplacedSlot(const char* name, void* function);

/// As ReplaceSlots, for the tracker alone, whose calls of dlsym then find the loader's variables.
/// `tracker` is an address in it. Before track_initialize.
void ReplaceTrackerSlots(const void* tracker);

/// Points the slots of all objects, except the loader's and the tracker's, at the loader's
/// functions. Any thread that may call dlopen. Allocates nothing. Keeps errno.
SlotScan ReplaceSlots();

/// As ReplaceSlots, if an object was loaded since the last scan. Does nothing after RestoreSlots.
void ReplaceNewSlots();

/// Undoes ReplaceSlots. Calls that are inside the loader's functions continue. Any thread that may
/// call dlopen. Allocates nothing. Keeps errno.
void RestoreSlots();

}  // namespace host
