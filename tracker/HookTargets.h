// SPDX-License-Identifier: Apache-2.0
// Which functions of which libraries are hooked for the hooked kinds, and by which proxy.
//
// For the control signal's handler, one command at a time, so the lists have no lock. Takes the
// hook engine's locks.
#pragma once

#include <string>
#include <vector>

/// Re-reads the target lists from the properties kHookLibraryProperty and kHookFunctionProperty.
/// False, with the lists unchanged, if one of them is unset or empty, or, with a log line, without
/// memory. Allocates.
bool GetHookParams();

/// Appends the non-empty pieces of `text` between separators to `list`. Blanks are part of a piece.
/// Throws std::bad_alloc.
void SplitToVector(std::vector<std::string>* list, const std::string& text, char separator);

/// The key of a pair's proxy: "function" for functions that are hooked in any library, else
/// "function_library". Throws std::bad_alloc.
std::string get_key_from_fun_and_lib(const std::string& function, const std::string& library);

/// Hooks each pair of the lists that has a proxy and skips the others silently. Logs a pair that
/// cannot be hooked, also for a lack of memory. True if at least one was hooked; `is_plt_hook` is
/// set then. Allocates.
bool hook_by_plt();

/// Unhooks each pair of the present lists that has a proxy, and clears `is_plt_hook`. Allocates
/// nothing, so that it always works.
void unhook_by_plt();
