// SPDX-License-Identifier: Apache-2.0
// The registry of hooked slots: the functions that a call through each slot runs.
//
// The hook engine writes it, on any thread. Every call through a trampoline reads it, on any
// thread, without a lock, so that a call or a fork never waits for a hook that is being added.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "plthooks/hook_chain.h"

namespace lumora::plthooks::hooks {

/// The functions of one slot: the original first, then the hooks from oldest to newest.
using RunList = std::vector<void*>;

/// Result of `add` and `remove`.
enum HookResult : int {
  HOOK_UNKNOWN = -2,              ///< The slot has no record, or the hook is not in it.
  HOOK_INVALID = -1,              ///< A required field is null, or the original is still in use.
  HOOK_NEW = 1,                   ///< Created a record.
  HOOK_APPENDED = 2,              ///< Added a hook to an existing record.
  HOOK_REMOVED_STILL_HOOKED = 3,  ///< Removed a hook; other hooks remain.
  HOOK_REMOVED_TRIVIAL = 4,       ///< Removed a hook; only the original function remains.
  HOOK_REMOVED_FULLY = 5,         ///< Removed the slot's record.
  HOOK_NOT_CHAINABLE = 6,         ///< The slot is hooked without a trampoline; nothing changed.
};

/// A request to the registry.
struct HookInfo {
  /// Out: id of the record, for its trampoline. Set by `add` for HOOK_NEW and HOOK_APPENDED.
  std::uint64_t out_id;
  /// The slot of the Global Offset Table.
  void** got_address;
  void* new_function;
  /// In: the slot's content, for a new record. Out: the original function. Set by `add` for
  /// HOOK_APPENDED, and by `remove`.
  void* previous_function;
  bool no_trampoline;
  /// The reference that keeps the slot's library loaded, or null. `add` moves it into a new record.
  /// `remove` moves it back for HOOK_REMOVED_FULLY. Drop it with no lock held.
  std::shared_ptr<void> library{};
};

/// Adds `new_function` to the functions of the slot. Returns HOOK_NEW, HOOK_APPENDED,
/// HOOK_NOT_CHAINABLE or HOOK_INVALID. Takes the registry's lock. Throws std::bad_alloc, with
/// nothing changed.
HookResult add(HookInfo& info);

/// Removes the hook `new_function` from the slot. If only the original function is left and
/// `new_function` is the original, removes the slot's record. Returns HOOK_REMOVED_STILL_HOOKED,
/// HOOK_REMOVED_TRIVIAL, HOOK_REMOVED_FULLY, HOOK_UNKNOWN or HOOK_INVALID. Takes the registry's
/// lock. Allocates nothing.
HookResult remove(HookInfo& info);

/// Whether the slot at address `slot` has a record. Takes the registry's lock.
bool is_hooked(std::uintptr_t slot);

/// Returns a copy of the functions of record `id`; empty if there is none. Takes no lock.
/// Allocates.
RunList get_run_list(std::uint64_t id);

/// Returns a snapshot of the functions of record `id`; empty if there is none. Takes no lock and
/// allocates nothing, so trampolines may call it in any context.
HookChain::Snapshot current_run_list(std::uint64_t id);

}  // namespace lumora::plthooks::hooks
