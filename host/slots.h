// SPDX-License-Identifier: Apache-2.0
// Replaces functions in a running process. For an attached loader.
//
// Objects call functions of other objects through slots, which hold their addresses. The loader
// stores its own functions in these slots, and restores them at a detach. A slot is changed only if
// it holds the function to which the loader forwards, or is not bound yet. Any other slot stays,
// because its blocks belong to another allocator. There is no list of changed slots: a detach
// restores every slot that holds a function of the loader.
#pragma once

#include <stddef.h>

namespace host {

/// The result of ReplaceSlots.
struct SlotScan {
  size_t changed;     ///< number of slots that were changed
  size_t unwritable;  ///< number of slots that could not be written
  bool other_loader;  ///< another copy of the loader has replaced malloc
  char object[256];   ///< the file with the first of these; empty for the program
};

/// Looks up the functions to replace: all functions that the loader exports, and the functions to
/// which they forward. Call it first. Takes the dynamic linker's lock. May allocate.
void FindReplacedSlots();

/// Adds a function to replace that the loader does not export. `name` must live as long as the
/// process. Takes the dynamic linker's lock.
void AddReplacedSlot(const char* name, void* function);

/// As ReplaceSlots, for the tracker only, and makes the tracker's dlsym find the loader's
/// variables. `tracker` is an address in the tracker's code. Call it before track_initialize.
void ReplaceTrackerSlots(const void* tracker);

/// Stores the loader's functions in the slots of all objects except the loader, the tracker and the
/// dynamic linker. Any thread that may call dlopen. Allocates nothing. Keeps errno.
SlotScan ReplaceSlots();

/// As ReplaceSlots, if an object was loaded since the last scan. Does nothing after RestoreSlots.
/// Any thread that may call dlopen.
void ReplaceNewSlots();

/// Undoes ReplaceSlots. Calls inside the loader's functions continue. Any thread that may call
/// dlopen. Allocates nothing. Keeps errno.
void RestoreSlots();

}  // namespace host
