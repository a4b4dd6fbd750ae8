// SPDX-License-Identifier: Apache-2.0
// The handler queues. It uses lock-free memory and system calls only, except where the interrupted
// thread waits for work.
#include "host/control_signal.h"

#include <dlfcn.h>
#include <errno.h>
#include <signal.h>

#include <atomic>

#include "host/command_queue.h"
#include "host/control_thread.h"
#include "host/signal_actions.h"
#include "host/state.h"
#include "host/waiting_thread.h"

namespace host {
namespace {

using protocol::control_signal;

std::atomic<bool> installed{false};

void OnControlSignal(int /*signal*/, siginfo_t* info, void* context) {
  const int saved_errno = errno;
  // A child of vfork must not change its parent.
  if (OwnsState()) {
    if (info->si_code == SI_QUEUE) {
      CurrentState().received.fetch_add(1);
      AddCommand(protocol::ReadCommand(*info), 0);
    }
    RequestControlThread(WasWaitingForWork(context));
  }
  errno = saved_errno;
}

}  // namespace

int InstallControlSignal() {
  // The loader's own sigaction is the program's.
  using Sigaction = int (*)(int, const struct sigaction*, struct sigaction*);
  const auto real = reinterpret_cast<Sigaction>(dlsym(RTLD_NEXT, "sigaction"));
  if (real == nullptr) return ENOSYS;
  struct sigaction action = {};
  struct sigaction previous = {};
  action.sa_sigaction = OnControlSignal;
  action.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  if (real(control_signal, &action, &previous) != 0) return errno;
  SetAction(&previous, nullptr);
  installed.store(true);
  BlockControlSignal(false);
  return 0;
}

bool ControlSignalIsOurs() {
  return installed.load(std::memory_order_relaxed);
}

}  // namespace host
