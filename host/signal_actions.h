// SPDX-License-Identifier: Apache-2.0
// The actions for the control signal that the tracker and the program believe to be installed.
#pragma once

#include <signal.h>

#include "protocol/protocol.h"

namespace host {

/// While `capture` is set, SetAction on the calling thread changes the tracker's action.
void CaptureActions(bool capture);

/// The tracker's or the program's action for the control signal: sigaction without the kernel.
/// Stores `action` unless it is null, and returns the previous one of the same owner in `previous`
/// unless that is null. Any thread.
void SetAction(const struct sigaction* action, struct sigaction* previous);

/// Installs `handler` for the control signal and keeps the program's action. Returns 0 or an errno
/// value.
int InstallHandler(void (*handler)(int, siginfo_t*, void*));
/// Whether there is a handler. Any thread, safe in signal handlers.
bool ControlSignalIsOurs();
/// Restores the program's action, after InstallHandler. Signals that wait are dropped.
void UninstallHandler();

/// Calls the tracker's handler with `command`, as the kernel would. For the control thread, and for
/// the constructor.
void Deliver(const protocol::Command& command);

/// Blocks or unblocks the control signal in the calling thread. Any context.
void BlockControlSignal(bool block);

}  // namespace host
