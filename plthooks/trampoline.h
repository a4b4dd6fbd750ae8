// SPDX-License-Identifier: Apache-2.0
// Trampolines: the code that a hooked slot points to, and the per-thread stack of hooked calls.
//
// A trampoline pushes the call on the thread's hook stack, runs the newest hook with the caller's
// arguments, pops the call and returns to the caller. The hook engine creates trampolines. Every
// thread that calls through a hooked slot runs them. The proxies and the stack capture read the
// hook stack.
//
// No unwinder can step over a trampoline: an exception thrown across one ends the process
// (std::terminate), and a longjmp across one leaves its frame on the hook stack.
#pragma once

#include <cstddef>
#include <cstdint>

#include "arch/trampoline.h"

namespace lumora::plthooks {

namespace trampoline {

/// Data words after the code: the addresses of push_hook_stack and pop_hook_stack, and the hook id.
inline constexpr std::size_t kDataBytes = 3 * sizeof(std::uint64_t);
/// Size of one trampoline: a multiple of 4, the size of an A64 instruction.
inline constexpr std::size_t kTrampolineBytes =
    (arch::kTrampolineCodeBytes + kDataBytes + 3) / 4 * 4;
/// Size of a block of trampolines: one anonymous mapping.
inline constexpr std::size_t kBlockBytes = 4096;

/// One trampoline. Its code is never freed, since a call may be in it.
class trampoline {
 public:
  /// Creates the code for the hook `id`. Takes the block lock. May map memory.
  explicit trampoline(std::uint64_t id);

  /// Length of the code, in bytes.
  std::uint64_t code_size;
  /// Start of the code; null if there was no memory.
  void* code;
};

/// Called only by trampolines, on the calling thread, in any context. Both keep errno. The first
/// hooked call of a thread maps a page for its hook stack, and so does each 85th nested call; other
/// calls allocate nothing. If the page cannot be mapped, push_hook_stack does not return: it leaves
/// the trampoline and jumps to the original function, which returns to the caller.
void* push_hook_stack(std::uint64_t id, void* return_address,
                      void* stack_address) __asm__("arch_push_hook_stack");
void* pop_hook_stack();

}  // namespace trampoline

/// Creates the thread key of the hook stack if possible. Called at start-up, while keys that never
/// allocate are still free. Otherwise the first trampoline creates it.
void prepare_hook_stack();

/// Whether hooked calls are possible. The hook stack's key must be settable without allocating,
/// since a hooked call may come from the allocator. Logs if it is not. Any thread.
bool can_create_trampolines();

/// Returns the entry of a new trampoline for the hook `id`; null with errno, logged, if there is no
/// memory. Any thread. Takes the block lock.
void* create_trampoline(std::uint64_t id);

/// Returns the function that `hook`, which is running on this thread, calls next: an older hook or
/// the original function. Ends the process if no hooked call is active on the thread, or if `hook`
/// is not a hook of that call. Any context; takes no lock, allocates nothing.
void* get_previous_from_hook(void* hook);

/// Stores the return address and the frame pointer of the thread's innermost hooked call and
/// returns 1. Returns 0 and stores nothing if a pointer is null, or, logged, if no hooked call is
/// active. Any context; takes no lock, allocates nothing.
int get_stack_address_for_previous(std::uintptr_t* return_address, std::uintptr_t* stack_address);

}  // namespace lumora::plthooks
