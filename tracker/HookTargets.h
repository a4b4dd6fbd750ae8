// SPDX-License-Identifier: Apache-2.0
// Which functions of which libraries are hooked for the hooked kinds, and by which proxy.
//
// For the control signal's handler, one command at a time, so the lists have no lock. Takes the
// hook engine's locks.
#pragma once

#include <string>
#include <vector>

/// Re-reads the target lists from the properties kHookLibraryProperty and kHookFunctionProperty.
/// Returns false, with the lists unchanged, if a property is unset or empty or, logged, if there is
/// no memory. Allocates.
bool GetHookParams();

/// Appends the non-empty pieces of `text` between separators to `list`. Blanks are part of a piece.
/// Throws std::bad_alloc.
void SplitToVector(std::vector<std::string>* list, const std::string& text, char separator);

/// Returns the key of a pair's proxy: "function" for functions that are hooked in any library, else
/// "function_library". Throws std::bad_alloc.
std::string get_key_from_fun_and_lib(const std::string& function, const std::string& library);

/// Hooks each pair of the lists that has a proxy and skips the others silently. Logs each pair that
/// cannot be hooked, also if the reason is a lack of memory. If at least one was hooked, sets
/// `is_plt_hook` and returns true. Allocates.
bool hook_by_plt();

/// Unhooks each pair of the current lists that has a proxy, and clears `is_plt_hook`. Allocates
/// nothing, so it works without memory.
void unhook_by_plt();

/// Undoes all calls of hook_by_plt. Allocates nothing.
void unhook_all_by_plt();
