// SPDX-License-Identifier: Apache-2.0
// The signal multiplexer: lets independent parts of the process share one signal.
//
// It installs its dispatcher as the process's action for each signal that it takes over, and offers
// each delivery to the registered handlers. A delivery that no handler claims goes to the previous
// action, as if the multiplexer did not exist. The hook engine takes over SIGSEGV and SIGBUS.
//
// Call sigmux_init and the functions that add or remove handlers on ordinary threads, never in a
// handler. Deliveries arrive on any thread at any time, also while another thread removes a
// handler.
#pragma once

#include <setjmp.h>
#include <signal.h>

#include <atomic>
#include <cstdint>

/// One delivery, as a handler sees it. Lives on the dispatcher's stack.
struct sigmux_event {
  int signum;
  siginfo_t* info;
  /// The ucontext_t of the interrupted code.
  void* context;
  /// The dispatcher's phaser phase; for sigmux_longjmp.
  std::uint32_t phase;
};

/// A registered handler. Takes the event and the data it was registered with. Returns non-zero to
/// claim the signal. Runs in signal context on the interrupted thread, with all signals unblocked
/// except those that the platform keeps blocked. Must be async-signal-safe. Must not register or
/// remove handlers.
using sigmux_handler = int (*)(sigmux_event* event, void* data);

/// An entry in the list of handlers. Opaque to callers of sigmux_register. Callers of sigmux_add
/// fill in signals, handler, data and flags.
struct sigmux_entry {
  sigmux_entry* prev;
  /// Dispatchers follow it without the lock.
  std::atomic<sigmux_entry*> next;
  sigset_t signals;
  sigmux_handler handler;
  void* data;
  std::uint32_t flags;
};

/// Handler flag: called only if no handler without the flag claims the signal.
inline constexpr std::uint32_t SIGMUX_FLAG_LATE = 1;

/// Steps of sigmux_handle_signal, in this order.
inline constexpr std::uint32_t SIGMUX_RUN_NORMAL = 1;
inline constexpr std::uint32_t SIGMUX_RUN_LATE = 2;
inline constexpr std::uint32_t SIGMUX_RUN_PREVIOUS = 4;

/// Takes over `signum` (1 to 64) until the process ends. Returns 0, also if it was taken over
/// before. Returns -1 with errno for a bad number (EINVAL), if there is no memory, or if the action
/// cannot be installed. Takes the multiplexer's lock.
int sigmux_init(int signum);

/// Adds a handler for `signals` (copied) in front of all others. `data` is passed to the handler
/// unchanged; `flags` is 0 or SIGMUX_FLAG_LATE. Does not take over the signals: see sigmux_init.
/// Returns the entry for sigmux_unregister, or null if there is no memory. Takes the multiplexer's
/// lock.
sigmux_entry* sigmux_register(const sigset_t* signals, sigmux_handler handler, void* data,
                              std::uint32_t flags);

/// Removes the handler of `entry` and frees the entry. On return the handler runs on no thread, and
/// its data may be freed. Waits for running dispatchers. May change errno. Takes the multiplexer's
/// lock.
void sigmux_unregister(sigmux_entry* entry);

/// As sigmux_register and sigmux_unregister, for an entry that the caller owns. The entry must live
/// until sigmux_remove returns. Neither allocates or fails.
void sigmux_add(sigmux_entry* entry);
void sigmux_remove(sigmux_entry* entry);

/// Offers a delivery to the handlers and the previous action. `selector` is a sum of SIGMUX_RUN_
/// values; SIGMUX_RUN_PREVIOUS needs a signal that was taken over. Returns the claiming handler's
/// result, 1 if the previous action handled the signal, 0 if nothing did. Does not return if the
/// signal ends the process. Runs in signal context. Takes no lock.
int sigmux_handle_signal(int signum, siginfo_t* info, void* context, std::uint32_t selector);

/// Leaves a handler by siglongjmp to `env`, whose sigsetjmp returns `value`. A handler that jumps
/// must use this: a plain siglongjmp would leave the dispatcher in the phaser forever.
[[noreturn]] void sigmux_longjmp(sigmux_event* event, sigjmp_buf env, int value);

/// Sets the action of `signum` to SIG_DFL, with SA_RESTART and an empty mask. The old action is
/// lost. Safe in a signal handler.
void set_signal_handler_to_default(int signum);
