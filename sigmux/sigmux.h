// The signal multiplexer: lets independent parts of the process share one signal.
//
// It becomes the process's action for the signals that it is asked to own and offers each delivery
// to the registered handlers; what nobody claims goes to the action that was there before, as if
// nothing had come between. The hook engine owns SIGSEGV and SIGBUS through it. Taking over,
// registering and removing belong on ordinary threads, never in a handler; deliveries come on any
// thread at any time, also while a handler is being removed on another.
#pragma once

#include <setjmp.h>
#include <signal.h>

#include <atomic>
#include <cstdint>

/// One delivery, as a handler sees it. Lives on the dispatcher's stack.
struct sigmux_event {
  int signum;
  siginfo_t* info;
  /// The interrupted code's ucontext_t.
  void* context;
  /// The phaser phase that the dispatcher is in; for sigmux_longjmp.
  std::uint32_t phase;
};

/// A registered handler: gets the event and the data it was registered with; says, by a value other
/// than zero, that the signal is dealt with. Runs in signal context on the interrupted thread, with
/// no signal blocked that the platform does not keep so; must be async-signal-safe and must not
/// register or remove handlers.
using sigmux_handler = int (*)(sigmux_event* event, void* data);

/// A place in the list of handlers. Opaque to callers of sigmux_register; sigmux_add's callers fill
/// in signals, handler, data and flags.
struct sigmux_entry {
  sigmux_entry* prev;
  /// Dispatchers follow this one without the lock.
  std::atomic<sigmux_entry*> next;
  sigset_t signals;
  sigmux_handler handler;
  void* data;
  std::uint32_t flags;
};

/// Flag of a handler: it is asked only when no handler without the flag has claimed the signal.
inline constexpr std::uint32_t SIGMUX_FLAG_LATE = 1;

/// What sigmux_handle_signal is to do, in this order.
inline constexpr std::uint32_t SIGMUX_RUN_NORMAL = 1;
inline constexpr std::uint32_t SIGMUX_RUN_LATE = 2;
inline constexpr std::uint32_t SIGMUX_RUN_PREVIOUS = 4;

/// Takes over `signum`, 1 to 64, for the rest of the process's life. Returns 0, also when it was
/// taken over before; -1 with errno for a bad number (EINVAL), for want of memory, and when the
/// action cannot be installed. Takes the multiplexer's lock.
int sigmux_init(int signum);

/// Adds a handler for `signals` (copied) in front of all others; `data` is handed to it untouched
/// and `flags` is 0 or SIGMUX_FLAG_LATE. Takes over no signal: that is sigmux_init's. Returns the
/// entry to remove it by, or null when there is no memory. Takes the multiplexer's lock.
sigmux_entry* sigmux_register(const sigset_t* signals, sigmux_handler handler, void* data,
                              std::uint32_t flags);

/// Removes the handler of `entry` and frees the entry. When it returns, the handler is running
/// nowhere and its data may go. Waits for running dispatchers; may change errno. Takes the
/// multiplexer's lock.
void sigmux_unregister(sigmux_entry* entry);

/// The same two for an entry that the caller owns, which must live until sigmux_remove returns.
/// They allocate nothing and cannot fail.
void sigmux_add(sigmux_entry* entry);
void sigmux_remove(sigmux_entry* entry);

/// Offers a delivery to the handlers and the previous action, as far as `selector` says: the sum of
/// SIGMUX_RUN_ values. SIGMUX_RUN_PREVIOUS is for a signal that is taken over. Returns what the
/// claiming handler returned, 1 when the previous action dealt with it, 0 when nobody did. Does not
/// return when the outcome is the process's death. For signal context; takes no lock.
int sigmux_handle_signal(int signum, siginfo_t* info, void* context, std::uint32_t selector);

/// Leaves a handler by siglongjmp to `env`, whose sigsetjmp returns `value`. A handler that jumps
/// must do it by this: a plain jump would leave the dispatcher counted as running for ever.
[[noreturn]] void sigmux_longjmp(sigmux_event* event, sigjmp_buf env, int value);

/// Gives `signum` its default action, with SA_RESTART and an empty mask. The old action is lost.
/// Safe in a signal handler.
void set_signal_handler_to_default(int signum);
