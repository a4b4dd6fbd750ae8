// SPDX-License-Identifier: Apache-2.0
// The signal multiplexer: takes over signals, keeps the list of handlers, dispatches deliveries.
//
// Writers hold the lock. Dispatchers take no lock: they are in the phaser while they read the list,
// and a writer that removes an entry drains the phaser before it frees the entry.
#include "sigmux/sigmux.h"

#include <pthread.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>

#include "sigmux/phaser.h"

namespace {

constexpr int kMaxSignal = 64;
constexpr std::size_t kSignals = kMaxSignal + 1;

/// SA_ONSTACK: runs on the thread's alternate stack if it has one. SA_NODEFER: deliveries of the
/// same signal nest.
constexpr int kDispatcherFlags = SA_SIGINFO | SA_ONSTACK | SA_RESTART | SA_NODEFER;

struct sigmux_state {
  /// Guards everything below against concurrent writers.
  pthread_mutex_t lock;
  phaser_t phaser;
  bool phaser_needs_init;
  /// The action that each signal had before; null for a signal not yet taken over. Never freed.
  std::atomic<struct sigaction*> previous_action[kSignals];
  /// Allocated with previous_action and never read.
  struct sigaction* spare_action[kSignals];
  /// Head of the circular list of handlers, newest first. Only its links are used.
  sigmux_entry handlers;
  /// Replaces the C library's sigaction if set.
  int (*real_sigaction)(int, const struct sigaction*, struct sigaction*);
  /// One bit per signal that was taken over.
  std::uint8_t initialised[(kSignals + 7) / 8];
};

sigmux_state state = {PTHREAD_MUTEX_INITIALIZER,
                      {},
                      true,
                      {},
                      {},
                      {&state.handlers, {&state.handlers}, {}, nullptr, nullptr, 0},
                      nullptr,
                      {}};

class lock_guard {
 public:
  lock_guard() { pthread_mutex_lock(&state.lock); }
  ~lock_guard() { pthread_mutex_unlock(&state.lock); }
  lock_guard(const lock_guard&) = delete;
  lock_guard& operator=(const lock_guard&) = delete;
};

struct sigaction* new_action() {
  return static_cast<struct sigaction*>(calloc(1, sizeof(struct sigaction)));
}

/// The action of every signal that was taken over.
void dispatch(int signum, siginfo_t* info, void* context) {
  const int saved_errno = errno;
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  sigmux_handle_signal(signum, info, context,
                       SIGMUX_RUN_NORMAL | SIGMUX_RUN_LATE | SIGMUX_RUN_PREVIOUS);
  errno = saved_errno;
}

/// Installs the dispatcher. Returns 0, or -1 with errno. `previous` is zeroed before the call: a
/// delivery before the kernel has copied the old action out then sees the default action.
int install_dispatcher(int signum, struct sigaction* previous) {
  struct sigaction action = {};
  action.sa_sigaction = dispatch;
  action.sa_flags = kDispatcherFlags;
  sigemptyset(&action.sa_mask);
  const auto install = state.real_sigaction != nullptr ? state.real_sigaction : sigaction;
  return install(signum, &action, previous) == 0 ? 0 : -1;
}

int sigmux_init_locked(int signum) {
  if (state.phaser_needs_init) {
    if (phaser_init(&state.phaser) != 0) return -1;
    state.phaser_needs_init = false;
  }
  if (signum < 1 || signum > kMaxSignal) {
    errno = EINVAL;
    return -1;
  }
  const auto index = static_cast<std::size_t>(signum);
  std::uint8_t& bits = state.initialised[index / 8];
  const auto bit = static_cast<std::uint8_t>(1U << (index % 8));
  if ((bits & bit) != 0) return 0;

  // If a step fails, earlier allocations stay for the next attempt.
  struct sigaction* previous = state.previous_action[index].load(std::memory_order_relaxed);
  if (previous == nullptr) {
    previous = new_action();
    if (previous == nullptr) return -1;
    state.previous_action[index].store(previous, std::memory_order_release);
  }
  if (state.spare_action[index] == nullptr) {
    state.spare_action[index] = new_action();
    if (state.spare_action[index] == nullptr) return -1;
  }
  if (install_dispatcher(signum, previous) != 0) return -1;
  bits = static_cast<std::uint8_t>(bits | bit);
  return 0;
}

/// Offers the event to the handlers whose SIGMUX_FLAG_LATE bit equals `late`, newest first, until
/// one claims it. Returns that handler's result, or 0.
int run_handlers(sigmux_event* event, std::uint32_t late) {
  const sigmux_entry* entry = state.handlers.next.load(std::memory_order_acquire);
  for (; entry != &state.handlers; entry = entry->next.load(std::memory_order_acquire)) {
    if ((entry->flags & SIGMUX_FLAG_LATE) != late) continue;
    if (sigismember(&entry->signals, event->signum) != 1) continue;
    const int result = entry->handler(event, entry->data);
    if (result != 0) return result;
  }
  return 0;
}

/// Returns the previous action for this delivery. An action with SA_RESETHAND is returned once and
/// replaced by the default: of two concurrent deliveries, one gets SIG_DFL.
struct sigaction take_previous(struct sigaction* previous) {
  struct sigaction taken = {};
  taken.sa_mask = previous->sa_mask;
  taken.sa_flags = __atomic_load_n(&previous->sa_flags, __ATOMIC_SEQ_CST);
  auto handler = __atomic_load_n(&previous->sa_handler, __ATOMIC_SEQ_CST);
  constexpr auto kOnce = static_cast<int>(SA_RESETHAND);
  if ((taken.sa_flags & kOnce) != 0) {
    // If another thread changed the handler meanwhile, `handler` becomes that value.
    __atomic_compare_exchange_n(&previous->sa_handler, &handler, SIG_DFL, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    __atomic_fetch_and(&previous->sa_flags, ~kOnce, __ATOMIC_SEQ_CST);
  }
  taken.sa_handler = handler;
  return taken;
}

/// Whether the action has a function to call. Intentional: with SA_SIGINFO, SIG_IGN counts as a
/// function.
bool has_function(const struct sigaction& action) {
  if ((action.sa_flags & SA_SIGINFO) != 0) return action.sa_sigaction != nullptr;
  return action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
}

/// Calls the previous action's function with the mask that the kernel would have set for it.
void call_previous(const struct sigaction& action, int signum, siginfo_t* info, void* context) {
  sigset_t mask = action.sa_mask;
  if ((action.sa_flags & SA_NODEFER) == 0) sigaddset(&mask, signum);
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  if ((action.sa_flags & SA_SIGINFO) != 0) {
    action.sa_sigaction(signum, info, context);
  } else {
    action.sa_handler(signum);
  }
}

/// Whether a signal without a function to call has no effect. `ignored`: the action is SIG_IGN.
bool is_dropped(int signum, bool ignored) {
  switch (signum) {
    case SIGILL:
    case SIGABRT:
    case SIGBUS:
    case SIGSEGV:
      // Fatal even if ignored: a return from the handler would repeat the fault.
      return false;
    case SIGCHLD:
    case SIGWINCH:
      return true;
    default:
      return ignored;
  }
}

/// Ends the process with `signum`. Intentional: a signal whose default action does not kill
/// (SIGCONT, SIGURG, the stop signals) returns from raise and ends in abort.
[[noreturn]] void die_by(int signum) {
  set_signal_handler_to_default(signum);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, signum);
  sigprocmask(SIG_UNBLOCK, &only, nullptr);
  raise(signum);
  abort();
}

}  // namespace

int sigmux_init(int signum) {
  const lock_guard guard;
  return sigmux_init_locked(signum);
}

sigmux_entry* sigmux_register(const sigset_t* signals, sigmux_handler handler, void* data,
                              std::uint32_t flags) {
  auto* entry = static_cast<sigmux_entry*>(calloc(1, sizeof(sigmux_entry)));
  if (entry == nullptr) return nullptr;
  entry->signals = *signals;
  entry->handler = handler;
  entry->data = data;
  entry->flags = flags;
  sigmux_add(entry);
  return entry;
}

void sigmux_unregister(sigmux_entry* entry) {
  sigmux_remove(entry);
  free(entry);
}

void sigmux_add(sigmux_entry* entry) {
  const lock_guard guard;
  sigmux_entry* first = state.handlers.next.load(std::memory_order_relaxed);
  entry->prev = &state.handlers;
  entry->next.store(first, std::memory_order_relaxed);
  first->prev = entry;
  // Publishes the complete entry to dispatchers.
  state.handlers.next.store(entry, std::memory_order_release);
}

void sigmux_remove(sigmux_entry* entry) {
  const lock_guard guard;
  // The entry keeps its own links, so a dispatcher that is at the entry can continue.
  sigmux_entry* next = entry->next.load(std::memory_order_relaxed);
  entry->prev->next.store(next, std::memory_order_release);
  next->prev = entry->prev;
  phaser_drain(&state.phaser);
}

int sigmux_handle_signal(int signum, siginfo_t* info, void* context, std::uint32_t selector) {
  sigmux_event event = {signum, info, context, phaser_enter(&state.phaser)};
  int result = 0;
  if ((selector & SIGMUX_RUN_NORMAL) != 0) result = run_handlers(&event, 0);
  if ((selector & SIGMUX_RUN_LATE) != 0 && result == 0) {
    result = run_handlers(&event, SIGMUX_FLAG_LATE);
  }
  if ((selector & SIGMUX_RUN_PREVIOUS) == 0 || result != 0) {
    phaser_exit(&state.phaser, event.phase);
    return result;
  }

  const auto index = static_cast<std::size_t>(signum);
  const struct sigaction previous =
      take_previous(state.previous_action[index].load(std::memory_order_acquire));
  // Leaves the phaser first: the previous action may run forever or jump away.
  phaser_exit(&state.phaser, event.phase);
  if (has_function(previous)) {
    call_previous(previous, signum, info, context);
    return 1;
  }
  if (is_dropped(signum, previous.sa_handler == SIG_IGN)) return 1;
  die_by(signum);
}

void sigmux_longjmp(sigmux_event* event, sigjmp_buf env, int value) {
  phaser_exit(&state.phaser, event->phase);
  siglongjmp(env, value);
}

void set_signal_handler_to_default(int signum) {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  sigaction(signum, &action, nullptr);
}
