// SPDX-License-Identifier: Apache-2.0
// The handler adds the command to the queue. It uses only lock-free memory and system calls, unless
// it has interrupted a wait for work: then it may start the control thread.
#include "host/control_signal.h"

#include <errno.h>
#include <signal.h>

#include "host/command_queue.h"
#include "host/control_thread.h"
#include "host/signal_actions.h"
#include "host/state.h"
#include "host/waiting_thread.h"

namespace host {
namespace {

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
  return InstallHandler(OnControlSignal);
}

}  // namespace host
