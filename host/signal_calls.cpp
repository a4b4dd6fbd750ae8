// SPDX-License-Identifier: Apache-2.0
// Replaces the C library's signal functions: the program cannot block the control signal, wait for
// it, or replace its handler. Other signals are passed on.
//
// Any thread. Functions that POSIX allows in signal handlers stay safe there.
#include <errno.h>
#include <signal.h>
#include <sys/signalfd.h>

#include "host/exports.h"
#include "host/next_function.h"
#include "host/replaced_functions.h"
#include "host/signal_actions.h"

namespace host {
namespace {

using protocol::control_signal;

NextFunction<int(int, const struct sigaction*, struct sigaction*)> next_sigaction{"sigaction"};
NextFunction<sighandler_t(int, sighandler_t)> next_signal{"signal"};
NextFunction<sighandler_t(int, sighandler_t)> next_sysv_signal{"__sysv_signal"};
NextFunction<sighandler_t(int, sighandler_t)> next_sigset{"sigset"};
NextFunction<int(int)> next_sighold{"sighold"};
NextFunction<int(int)> next_sigignore{"sigignore"};
NextFunction<int(int, const sigset_t*, sigset_t*)> next_sigprocmask{"sigprocmask"};
NextFunction<int(int, const sigset_t*, sigset_t*)> next_pthread_sigmask{"pthread_sigmask"};
NextFunction<int(const sigset_t*, int*)> next_sigwait{"sigwait"};
NextFunction<int(const sigset_t*, siginfo_t*)> next_sigwaitinfo{"sigwaitinfo"};
NextFunction<int(const sigset_t*, siginfo_t*, const timespec*)> next_sigtimedwait{"sigtimedwait"};
NextFunction<int(int, const sigset_t*, int)> next_signalfd{"signalfd"};

/// The caller's set without the control signal. A null set stays null.
class OtherSignals {
 public:
  explicit OtherSignals(const sigset_t* set) : set_(set) {
    if (set == nullptr || !ControlSignalIsOurs() || sigismember(set, control_signal) != 1) return;
    copy_ = *set;
    sigdelset(&copy_, control_signal);
    set_ = &copy_;
  }
  OtherSignals(const OtherSignals&) = delete;
  OtherSignals& operator=(const OtherSignals&) = delete;
  const sigset_t* get() const { return set_; }

 private:
  const sigset_t* set_;
  sigset_t copy_;
};

bool IsOurs(int signal) {
  return signal == control_signal && ControlSignalIsOurs();
}

/// Calls `next`, one of the functions like signal().
template <typename Next>
sighandler_t SetHandler(Next& next, int signal, sighandler_t handler) {
  if (!IsOurs(signal)) return next(signal, handler);
  struct sigaction action = {};
  struct sigaction previous;
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  // With SIG_HOLD, sigset() only blocks the signal and leaves the action unchanged.
  SetAction(handler == SIG_HOLD ? nullptr : &action, &previous);
  return previous.sa_handler;
}

}  // namespace

void FindSignalFunctions() {
  next_sigaction.Find();
  next_signal.Find();
  next_sysv_signal.Find();
  next_sigset.Find();
  next_sighold.Find();
  next_sigignore.Find();
  next_sigprocmask.Find();
  next_pthread_sigmask.Find();
  next_sigwait.Find();
  next_sigwaitinfo.Find();
  next_sigtimedwait.Find();
  next_signalfd.Find();
}

}  // namespace host

using host::OtherSignals;

MEMLEAK_EXPORT int sigaction(int signal, const struct sigaction* action,
                             struct sigaction* previous) noexcept {
  if (!host::IsOurs(signal)) return host::next_sigaction(signal, action, previous);
  host::SetAction(action, previous);
  return 0;
}

MEMLEAK_EXPORT sighandler_t signal(int signal, sighandler_t handler) noexcept {
  return host::SetHandler(host::next_signal, signal, handler);
}

MEMLEAK_EXPORT sighandler_t ssignal(int signal, sighandler_t handler) noexcept
    __attribute__((alias("signal")));

MEMLEAK_EXPORT sighandler_t bsd_signal(int signal, sighandler_t handler) noexcept
    __attribute__((alias("signal")));

MEMLEAK_EXPORT sighandler_t __sysv_signal(int signal, sighandler_t handler) noexcept {
  return host::SetHandler(host::next_sysv_signal, signal, handler);
}

MEMLEAK_EXPORT sighandler_t sysv_signal(int signal, sighandler_t handler) noexcept
    __attribute__((alias("__sysv_signal")));

MEMLEAK_EXPORT sighandler_t sigset(int signal, sighandler_t handler) noexcept {
  return host::SetHandler(host::next_sigset, signal, handler);
}

MEMLEAK_EXPORT int sighold(int signal) noexcept {
  return host::IsOurs(signal) ? 0 : host::next_sighold(signal);
}

MEMLEAK_EXPORT int sigignore(int signal) noexcept {
  if (!host::IsOurs(signal)) return host::next_sigignore(signal);
  host::SetHandler(host::next_signal, signal, SIG_IGN);
  return 0;
}

MEMLEAK_EXPORT int sigprocmask(int how, const sigset_t* set, sigset_t* previous) noexcept {
  return host::next_sigprocmask(how, OtherSignals(set).get(), previous);
}

MEMLEAK_EXPORT int pthread_sigmask(int how, const sigset_t* set, sigset_t* previous) noexcept {
  return host::next_pthread_sigmask(how, OtherSignals(set).get(), previous);
}

MEMLEAK_EXPORT int sigwait(const sigset_t* set, int* signal) {
  return host::next_sigwait(OtherSignals(set).get(), signal);
}

MEMLEAK_EXPORT int sigwaitinfo(const sigset_t* set, siginfo_t* info) {
  return host::next_sigwaitinfo(OtherSignals(set).get(), info);
}

MEMLEAK_EXPORT int sigtimedwait(const sigset_t* set, siginfo_t* info, const timespec* limit) {
  return host::next_sigtimedwait(OtherSignals(set).get(), info, limit);
}

MEMLEAK_EXPORT int signalfd(int file, const sigset_t* set, int flags) noexcept {
  return host::next_signalfd(file, OtherSignals(set).get(), flags);
}
