// SPDX-License-Identifier: Apache-2.0
// The hook engine: redirects a library's calls to an imported function, and undoes it.
//
// A library calls imported functions through slots of its Global Offset Table (GOT). Hooking
// replaces the content of such a slot: with a trampoline that runs the slot's hooks, newest first,
// or with the hook itself. Other threads may call through the slot meanwhile, since one store
// changes it.
//
// Callers are the choice of hook targets, in the control signal's handler, and any other thread. A
// thread that runs under the loader's lock must not wait for a thread that hooks.
//
// The engine holds a reference to a library while it reads the library, and from a slot's first
// hook until its last hook is removed. If the loader gives no reference, the caller must keep the
// library loaded.
//
// All functions take the engine's locks and the loader's lock. Hooking allocates and fails without
// memory; unhooking allocates nothing. No function throws. A function that fails sets errno:
// clang-format off
//   EINVAL  a name or hook is null, or the hook is the original function
//   ENOENT  the library is unknown or does not import the function, or the hook is not installed
//   EMLINK  the library imports the function through more than one slot
//   ENXIO   the slot does not point to the function; this is logged
//   EBUSY   the slot has a hook without a trampoline, or it has hooks and the new hook has none
//   EAGAIN  no thread key is left for trampolines
//   ENOMEM  there is no memory
//   EFAULT  writing the slot faulted
//   other   the errno of mprotect, if the slot's page cannot be made writable
// clang-format on
#pragma once

#include <cstddef>
#include <cstdint>

namespace lumora::plthooks {

/// One function to hook. The caller owns the strings.
struct plt_hook_spec {
  /// The imported function.
  const char* function_name;
  /// The library that defines the function, or null. If set, slots are found by the function's
  /// address instead of by the symbol of their relocation.
  const char* lib_name;
  /// The replacement.
  void* hook_fn;
  /// Makes the slot point to hook_fn itself. Such a slot accepts no second hook.
  bool no_trampoline;
  /// Out: number of slots hooked or unhooked. The caller zeroes it.
  std::uint32_t hook_result;
  /// Cached address of the function in lib_name. The caller zeroes it.
  void* target;
};

/// Indexes the loaded libraries and takes over SIGSEGV and SIGBUS, which slot writes need. Returns
/// 0, or 1 with errno at the first step that fails. Call it again to index new libraries.
int plthooks_initialize();

/// Hooks `name` in the library `libname` (matched by basename) with `hook`, through a trampoline.
/// Returns 0 if exactly one slot was hooked and none failed, otherwise 1. Intentional: a function
/// that is imported through two slots counts as a failure, although both are hooked.
int hook_plt_method(const char* libname, const char* name, void* hook);

/// Undoes hook_plt_method. Returns 0 if exactly one slot was unhooked and none failed, otherwise 1.
int unhook_plt_method(const char* libname, const char* name, void* hook);

/// Hooks `count` functions of one library. Returns the number of failures. A function that the
/// library does not import is not a failure.
int hook_single_lib(const char* libname, plt_hook_spec* specs, std::size_t count);

/// Unhooks `count` functions of one library. Finds slots by name only: ignores lib_name and target.
/// Returns the number of failures. A slot without the hook is not a failure. Ends the process if a
/// slot cannot be restored.
int unhook_single_lib(const char* libname, plt_hook_spec* specs, std::size_t count);

/// Hooks one slot with the hook of `spec`. Returns 0, or non-zero with errno.
int patch_relocation_address_for_hook(void** slot, plt_hook_spec* spec);

/// Writes `value` into a slot, for any protection of its page. Returns 0; 1 if the write
/// faulted; 5, logged, if the page cannot be made writable. Then gives the page the protection that
/// platform::ProtectionAfterWrite returns; ends the process if that fails.
int unsafe_patch_relocation_address(void** slot, void* value);

}  // namespace lumora::plthooks
