// SPDX-License-Identifier: Apache-2.0
// Keeps the actions, and calls the tracker's.
#include "host/signal_actions.h"

#include <errno.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>

#include "host/clock.h"
#include "host/next_function.h"

namespace host {
namespace {

using protocol::control_signal;

// The thread whose calls change the tracker's action; 0: none.
std::atomic<pthread_t> capturing{0};
struct sigaction tracker_action;
struct sigaction program_action;
constexpr int kLateSignalMs = 5;

std::atomic<bool> installed{false};
// The loader's own sigaction is the program's.
NextFunction<int(int, const struct sigaction*, struct sigaction*)> real_sigaction{"sigaction"};

}  // namespace

void CaptureActions(bool capture) {
  capturing.store(capture ? pthread_self() : 0);
}

void SetAction(const struct sigaction* action, struct sigaction* previous) {
  struct sigaction& kept = capturing.load() == pthread_self() ? tracker_action : program_action;
  const struct sigaction former = kept;
  if (action != nullptr) kept = *action;
  if (previous != nullptr) *previous = former;
}

int InstallHandler(void (*handler)(int, siginfo_t*, void*)) {
  struct sigaction action = {};
  struct sigaction previous = {};
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  if (real_sigaction(control_signal, &action, &previous) != 0) return errno;
  SetAction(&previous, nullptr);
  installed.store(true);
  return 0;
}

bool ControlSignalIsOurs() {
  return installed.load(std::memory_order_relaxed);
}

void UninstallHandler() {
  struct sigaction action = {};
  action.sa_handler = SIG_IGN;
  // The default action would end the process. The kernel drops signals that wait when they are
  // ignored. A controller that has found no control thread may be about to send one.
  real_sigaction(control_signal, &action, nullptr);
  SleepMs(kLateSignalMs);
  SetAction(nullptr, &action);
  installed.store(false);
  real_sigaction(control_signal, &action, nullptr);
}

void Deliver(const protocol::Command& command) {
  const struct sigaction action = tracker_action;
  if ((action.sa_flags & SA_SIGINFO) == 0 || action.sa_sigaction == nullptr) return;
  siginfo_t info = protocol::MakeRecord(control_signal, command);
  ucontext_t context;
  getcontext(&context);
  action.sa_sigaction(control_signal, &info, &context);
}

void BlockControlSignal(bool block) {
  const uint64_t set = uint64_t{1} << (control_signal - 1);
  syscall(SYS_rt_sigprocmask, block ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr, sizeof set);
}

}  // namespace host
