// Trampolines: the code that a hooked slot leads to, and the per-thread stack of hooked calls.
//
// A trampoline notes the call on the thread's hook stack, runs the newest hook with the caller's
// arguments intact, and on return goes back to the real caller. Made by the hook engine; run by
// every thread that calls through a hooked slot; asked by the proxies and by the stack capture.
//
// No unwinder can step over a trampoline: an exception that is thrown across one ends the process
// (std::terminate), and a longjmp across one leaves its note on the hook stack.
#pragma once

#include <cstddef>
#include <cstdint>

#include "arch/trampoline.h"

namespace lumora::plthooks {

namespace trampoline {

/// Behind the code: addresses of push_hook_stack and pop_hook_stack, and the hook id.
inline constexpr std::size_t kDataBytes = 3 * sizeof(std::uint64_t);
/// What one trampoline takes of its block: a multiple of an A64 instruction.
inline constexpr std::size_t kTrampolineBytes =
    (arch::kTrampolineCodeBytes + kDataBytes + 3) / 4 * 4;
/// A block of trampolines: one anonymous mapping.
inline constexpr std::size_t kBlockBytes = 4096;

/// One trampoline. Its copy of the code outlives it, and is never freed: a call may be inside it.
class trampoline {
 public:
  /// Copies the code for the hook `id`. Takes the blocks' lock; may map memory.
  explicit trampoline(std::uint64_t id);

  /// Length of the code, in bytes.
  std::uint64_t code_size;
  /// Where it begins, or null when there was no memory for it.
  void* code;
};

/// The functions that trampolines call; for nobody else. They run on the calling thread, in any
/// context in which that thread may call, and keep errno. The first hooked call of a thread maps a
/// page for its hook stack, as does each 85th nested one; no other one allocates. Without that page
/// push_hook_stack does not return: it leaves the trampoline for the original function, which
/// returns to the caller.
void* push_hook_stack(std::uint64_t id, void* return_address,
                      void* stack_address) __asm__("arch_push_hook_stack");
void* pop_hook_stack();

}  // namespace trampoline

/// Takes the thread key of the hook stack, if there is one left. At start-up, while keys that never
/// allocate are still free. Otherwise the first trampoline takes it.
void prepare_hook_stack();

/// Whether hooked calls are possible: whether the hook stack's key can be set without allocating,
/// since a hooked call may be the allocator's own. If not, that is logged.
bool can_create_trampolines();

/// The entry of a new trampoline for the hook `id`, or null with errno, logged, when there is no
/// memory. Takes the blocks' lock.
void* create_trampoline(std::uint64_t id);

/// For the hook that is running on this thread: the function before it, an older hook or the
/// original, to be called directly. Ends the process when no hooked call is active on the thread,
/// or `hook` is not one of the call's hooks.
void* get_previous_from_hook(void* hook);

/// Return address and frame pointer of the hooked caller that is active on this thread. Returns 1;
/// 0, with nothing stored, for a null pointer or, with a log line, when no hooked call is active.
int get_stack_address_for_previous(std::uintptr_t* return_address, std::uintptr_t* stack_address);

}  // namespace lumora::plthooks
