// SPDX-License-Identifier: Apache-2.0
// The commands that wait: those received by signal and the loader's own in a ring, those that the
// controller has posted in the state.
//
// Any thread and any signal handler may add. Only one thread at a time takes: the control thread,
// or a thread that holds the lock under which that thread is started and stopped. Nothing here
// allocates or takes a lock.
#pragma once

#include "protocol/state.h"

namespace host {

using protocol::Command;

/// Commands that the ring holds at most. Later ones are dropped until some are carried out.
inline constexpr uint32_t kRingCommands = 1 << 14;

/// Appends a command. `ticket` is 0, or what CarriedOut receives later. Returns false if the ring
/// is full. Safe in signal handlers.
bool AddCommand(const Command& command, uint32_t ticket);

/// Whether a command waits. Safe in signal handlers.
bool CommandWaits();

/// A command and those that are equal to it, directly follow it and can be answered together.
struct Taken {
  Command command;
  uint32_t ticket;  ///< the latest ticket of the commands; 0: none has one
  uint32_t posted;  ///< how many of the commands the controller has posted
  protocol::Recipient recipient;
};

/// Copies the first command to `command` without removing it. Returns false if there is none. A
/// request to detach counts as a command without bits.
bool FirstCommand(Command& command);

/// Removes the first command, and with it the report commands that directly follow and are equal.
/// There must be one.
Taken TakeCommand();

/// Tells the controller that the commands it has posted are complete: `error` is 0 or an errno
/// value.
void Acknowledge(const Taken& taken, int error);

/// Acknowledges all posted commands with `error`. The ring keeps its commands.
void RefusePosted(int error);

/// Empties the ring. For a forked child, on its only thread.
void ForgetCommands();

/// Returns how many commands were dropped since the last call.
uint32_t TakeDropped();

}  // namespace host
