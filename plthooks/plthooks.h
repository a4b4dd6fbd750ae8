// The hook engine: redirects a library's calls to an imported function, and undoes it.
//
// A library calls imported functions through slots of its Global Offset Table. Hooking writes a
// replacement into such a slot: a trampoline that runs the hooks of the slot, newest first, or the
// hook itself. Called by the choice of hook targets inside the control signal's handler, or by any
// other thread, but one that runs under the loader's lock must not wait for a thread that hooks.
// Other threads go on calling meanwhile, since a slot changes by one store.
//
// A library is held by a reference while it is looked at, and from the first hook of a slot until
// its last one is removed. Where the loader gives none, it must stay loaded by itself.
//
// Everything here takes the engine's and the loader's locks. Hooking allocates and fails without
// memory; unhooking allocates nothing. Nothing throws. A function that fails sets errno:
//   EINVAL  a name or a hook is null, or the original function was to be removed
//   ENOENT  the library is not known, does not import the function, or the hook is not on it
//   EMLINK  the library imports the function through more than one slot
//   ENXIO   the slot leads elsewhere than to the function, which is logged
//   EBUSY   a hook without a trampoline is there, or was to join others
//   EAGAIN  no thread key is left for trampolines
//   ENOMEM  no memory
//   EFAULT  writing the slot faulted; mprotect's errno when its page cannot be made writable
#pragma once

#include <cstddef>
#include <cstdint>

namespace lumora::plthooks {

/// One function to hook. Names and library stay the caller's.
struct plt_hook_spec {
  /// The imported function.
  const char* function_name;
  /// The library that defines it, or null. When given, slots are found by the function's address
  /// instead of by the name in their relocation.
  const char* lib_name;
  /// The replacement.
  void* hook_fn;
  /// Patch the slot straight to hook_fn. Such a slot takes no second hook.
  bool no_trampoline;
  /// Out: how many slots were hooked or unhooked. The caller zeroes it.
  std::uint32_t hook_result;
  /// The function's address in lib_name, once it was looked up. The caller zeroes it.
  void* target;
};

/// Fills the index of libraries and takes over SIGSEGV and SIGBUS, which writing to a slot needs.
/// Returns 0, or 1 with errno at the first of these that fails. May be repeated, to see new
/// libraries.
int plthooks_initialize();

/// Hooks `name` in the library `libname` (by its basename) with `hook`, through trampolines.
/// Returns 0 when exactly one slot was hooked and none failed, else 1: a function imported through
/// two slots counts as a failure although both are hooked by then. Intentional: strict.
int hook_plt_method(const char* libname, const char* name, void* hook);

/// Undoes hook_plt_method. Returns 0 when exactly one slot was unhooked and none failed, else 1.
int unhook_plt_method(const char* libname, const char* name, void* hook);

/// Hooks `count` functions of one library. Returns the number of failures; a function
/// that the library does not import is none.
int hook_single_lib(const char* libname, plt_hook_spec* specs, std::size_t count);

/// Unhooks `count` functions of one library, by name alone. Returns the number of failures; a slot
/// that the hook is not on is none. Ends the process when a slot cannot be put back.
int unhook_single_lib(const char* libname, plt_hook_spec* specs, std::size_t count);

/// Hooks one slot as `spec` says. Returns 0, or another value when it cannot be.
int patch_relocation_address_for_hook(void** slot, plt_hook_spec* spec);

/// Writes `value` into a slot, whatever its page's protection. Returns 0; 1 when the write faulted;
/// 5, with a log line, when the page cannot be made writable. The page is left as
/// platform::ProtectionAfterWrite says; if that fails, the process is ended.
int unsafe_patch_relocation_address(void** slot, void* value);

}  // namespace lumora::plthooks
