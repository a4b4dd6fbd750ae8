// Which functions of which libraries are hooked for the hooked kinds, and by which proxy.
//
// All of it runs inside the control signal's handler, one command at a time, so the lists have no
// lock. Takes the hook engine's locks. Each function says whether it
// allocates. Unhooking allocates nothing, so that it always works.
#pragma once

#include <string>
#include <vector>

/// Re-reads the target lists from the properties "persist.sys.memleak.hookLib" and
/// "persist.sys.memleak.hookFunc": names with commas between. False, with the lists as they were,
/// when either is unset or empty, or, with a log line, when there is no memory. Allocates.
bool GetHookParams();

/// Appends the pieces of `text` between separators to `list`. Empty pieces are left out; blanks
/// belong to a name. Throws std::bad_alloc, as the next one.
void SplitToVector(std::vector<std::string>* list, const std::string& text, char separator);

/// The key of a pair's proxy: the mapping functions are hooked under their own name whatever the
/// library, any other function as "function_library".
std::string get_key_from_fun_and_lib(const std::string& function, const std::string& library);

/// Hooks every pair of the lists that has a proxy; the others are skipped silently. A pair that
/// cannot be hooked is logged. True when at least one was; then `is_plt_hook` is set. Allocates; a
/// pair for which there is no memory cannot be hooked.
bool hook_by_plt();

/// Unhooks every pair of the lists that has a proxy, as they are now, and clears `is_plt_hook`.
/// Allocates nothing.
void unhook_by_plt();
