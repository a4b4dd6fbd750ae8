// The signal multiplexer: taking signals over, the list of handlers, and dispatch.
//
// Writers hold the lock. Dispatchers take no lock: they are inside the phaser while they look at
// the list, and whoever removes an entry drains the phaser before freeing it.
#include "sigmux/sigmux.h"

#include <pthread.h>
#include <ucontext.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>

#include "platform/signal_policy.h"
#include "sigmux/phaser.h"

namespace {

constexpr int kMaxSignal = 64;
constexpr std::size_t kSignals = kMaxSignal + 1;

/// On the thread's alternate stack if it has one; a dispatcher can itself be interrupted.
constexpr int kDispatcherFlags = SA_SIGINFO | SA_ONSTACK | SA_RESTART | SA_NODEFER;

struct sigmux_state {
  /// Serialises taking over, registering and removing.
  pthread_mutex_t lock;
  phaser_t phaser;
  bool phaser_needs_init;
  /// What was installed before, by signal; null for a signal not yet taken over. Never freed.
  std::atomic<struct sigaction*> previous_action[kSignals];
  /// Kept beside the former, and read by nobody.
  struct sigaction* spare_action[kSignals];
  /// The list's head, a circle's: newest handler first. Only its links are used.
  sigmux_entry handlers;
  /// Installs the dispatcher in place of the C library's function, if set.
  int (*real_sigaction)(int, const struct sigaction*, struct sigaction*);
  /// One bit for each signal already taken over.
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

/// Makes `mask` the thread's, but for what the platform keeps blocked in the code that `context`
/// (may be null) was interrupted in.
void set_handler_mask(sigset_t mask, const void* context) {
  if (context != nullptr) {
    platform::KeepBlocked(static_cast<const ucontext_t*>(context)->uc_sigmask, &mask);
  }
  sigprocmask(SIG_SETMASK, &mask, nullptr);
}

/// The action installed for every signal taken over.
void dispatch(int signum, siginfo_t* info, void* context) {
  const int saved_errno = errno;
  sigset_t none;
  sigemptyset(&none);
  set_handler_mask(none, context);
  sigmux_handle_signal(signum, info, context,
                       SIGMUX_RUN_NORMAL | SIGMUX_RUN_LATE | SIGMUX_RUN_PREVIOUS);
  errno = saved_errno;
}

/// Puts the dispatcher in place. A delivery on another thread between the kernel's change and its
/// copying out of the old action finds a zeroed record, which stands for the default action.
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

  // What is allocated here stays for the next attempt if this one fails.
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

/// Offers the event to the handlers whose late flag is `late`, newest first, until one claims it.
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

/// The previous action as this delivery has to follow it. One with SA_RESETHAND is handed out once
/// and is the default action from then on: of two deliveries at the same time one finds it gone.
struct sigaction take_previous(struct sigaction* previous) {
  struct sigaction taken = {};
  taken.sa_mask = previous->sa_mask;
  taken.sa_flags = __atomic_load_n(&previous->sa_flags, __ATOMIC_SEQ_CST);
  auto handler = __atomic_load_n(&previous->sa_handler, __ATOMIC_SEQ_CST);
  constexpr auto kOnce = static_cast<int>(SA_RESETHAND);
  if ((taken.sa_flags & kOnce) != 0) {
    // On failure `handler` becomes what another thread has put there.
    __atomic_compare_exchange_n(&previous->sa_handler, &handler, SIG_DFL, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    __atomic_fetch_and(&previous->sa_flags, ~kOnce, __ATOMIC_SEQ_CST);
  }
  taken.sa_handler = handler;
  return taken;
}

/// Whether there is a function to call. With SA_SIGINFO anything but null counts as one, SIG_IGN
/// too: that combination is meaningless, and wanted as it is.
bool has_function(const struct sigaction& action) {
  if ((action.sa_flags & SA_SIGINFO) != 0) return action.sa_sigaction != nullptr;
  return action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
}

/// Calls the previous action's function under the mask that the kernel would have given it alone.
void call_previous(const struct sigaction& action, int signum, siginfo_t* info, void* context) {
  sigset_t mask = action.sa_mask;
  if ((action.sa_flags & SA_NODEFER) == 0) sigaddset(&mask, signum);
  set_handler_mask(mask, context);
  if ((action.sa_flags & SA_SIGINFO) != 0) {
    action.sa_sigaction(signum, info, context);
  } else {
    action.sa_handler(signum);
  }
}

/// Whether a signal without a function to call passes without effect.
bool is_dropped(int signum, bool ignored) {
  switch (signum) {
    case SIGILL:
    case SIGABRT:
    case SIGBUS:
    case SIGSEGV:
      // Even ignored: to return from a fault would only repeat it.
      return false;
    case SIGCHLD:
    case SIGWINCH:
      return true;
    default:
      return ignored;
  }
}

/// Ends the process by `signum`. Signals whose default action does not kill (SIGCONT, SIGURG, the
/// stop signals) come back from raise and end in abort. Intentional: none is emulated.
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
  // From here on dispatchers see the entry, so it is complete by now.
  state.handlers.next.store(entry, std::memory_order_release);
}

void sigmux_remove(sigmux_entry* entry) {
  const lock_guard guard;
  // The entry keeps its own links: a dispatcher that stands on it finds its way on.
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
  // The previous action may run for ever or jump away, and is not in the list: outside the phaser.
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
