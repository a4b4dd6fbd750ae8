// The registry of hooked slots: which functions a call through a slot has to run.
//
// Written by the hook engine on whichever thread does the hooking; read by every call through a
// trampoline, on any thread, without a lock: a fork or a second caller never waits for a hook that
// is being added.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "plthooks/hook_chain.h"

namespace lumora::plthooks::hooks {

/// The functions of one slot: the original first, then the hooks from oldest to newest.
using RunList = std::vector<void*>;

/// What adding and removing came to.
enum HookResult : int {
  HOOK_UNKNOWN = -2,              ///< No such slot, or not this hook's.
  HOOK_INVALID = -1,              ///< A required field is null, or the original was to be removed.
  HOOK_NEW = 1,                   ///< A new record.
  HOOK_APPENDED = 2,              ///< One more hook for a known slot.
  HOOK_REMOVED_STILL_HOOKED = 3,  ///< Other hooks remain.
  HOOK_REMOVED_TRIVIAL = 4,       ///< Only the original function remains.
  HOOK_REMOVED_FULLY = 5,         ///< The slot is forgotten.
  HOOK_NOT_CHAINABLE = 6,         ///< The slot is hooked without a trampoline; nothing changed.
};

/// A request to the registry.
struct HookInfo {
  /// Set by `add` for HOOK_NEW and HOOK_APPENDED: what the slot's trampoline is made for.
  std::uint64_t out_id;
  /// The slot of the Global Offset Table.
  void** got_address;
  void* new_function;
  /// What the slot holds, for a new record. Set to the original function by `add` for HOOK_APPENDED
  /// and by `remove`.
  void* previous_function;
  bool no_trampoline;
  /// What keeps the slot's library loaded, or null: `add` moves it into a new record, and `remove`
  /// gives it back for HOOK_REMOVED_FULLY. To be let go with no lock held.
  std::shared_ptr<void> library{};
};

/// Adds `new_function` to the slot's functions. HOOK_NEW, HOOK_APPENDED, HOOK_NOT_CHAINABLE or
/// HOOK_INVALID. Takes the registry's lock. Throws std::bad_alloc, with nothing changed.
HookResult add(HookInfo& info);

/// Takes `new_function` off the slot's functions; the original, once it is alone, to forget the
/// slot. HOOK_REMOVED_STILL_HOOKED, HOOK_REMOVED_TRIVIAL, HOOK_REMOVED_FULLY, HOOK_UNKNOWN or
/// HOOK_INVALID. Takes the registry's lock; allocates nothing.
HookResult remove(HookInfo& info);

/// Whether the slot at address `slot` has a record. Takes the registry's lock.
bool is_hooked(std::uintptr_t slot);

/// A copy of the functions of `id`; empty for an unknown one. Allocates; takes no lock.
RunList get_run_list(std::uint64_t id);

/// The functions of `id` as they are now; empty for an unknown one. Takes no lock, allocates
/// nothing: for trampolines, and so for any context.
HookChain::Snapshot current_run_list(std::uint64_t id);

}  // namespace lumora::plthooks::hooks
