// SPDX-License-Identifier: Apache-2.0
// The queue of commands. Commands that arrive by signal, and the loader's own, are in a ring.
// Commands that the controller posts are in the state.
//
// Any thread and any signal handler may add a command. Only one thread at a time may take one: the
// control thread, or a thread that holds the lock under which the control thread is started and
// stopped. Nothing here allocates or takes a lock.
#pragma once

#include "protocol/state.h"

namespace host {

using protocol::Command;

/// Size of the ring. While the ring is full, new commands are dropped.
inline constexpr uint32_t kRingCommands = 1 << 14;

/// Appends a command to the ring. `ticket` is returned in Taken; 0 if nobody waits for the command.
/// Returns false if the ring is full. Safe in signal handlers.
bool AddCommand(const Command& command, uint32_t ticket);

/// Returns whether a command waits, in the ring or posted. Safe in signal handlers.
bool CommandWaits();

/// A command, together with the equal report commands that directly follow it: one report answers
/// them all.
struct Taken {
  Command command;
  uint32_t ticket;  ///< the latest ticket of these commands; 0 if none has a ticket
  uint32_t posted;  ///< how many of these commands were posted; the others are from the ring
  protocol::Recipient recipient;
};

/// Copies the first command to `command` without removing it. Returns false if there is none. A
/// request to detach counts as a command without bits.
bool FirstCommand(Command& command);

/// Takes the first command, and the equal report commands that directly follow it. The queue must
/// not be empty. Commands from the ring are removed; posted commands stay until Acknowledge.
Taken TakeCommand();

/// Tells the controller that the posted commands among `taken` are complete, with `error` (0 or an
/// errno value).
void Acknowledge(const Taken& taken, int error);

/// Acknowledges all posted commands that wait, with `error` (an errno value). The ring keeps its
/// commands.
void RefusePosted(int error);

/// Empties the ring. For a forked child, on its only thread.
void ForgetCommands();

/// Returns how many commands were dropped since the last call.
uint32_t TakeDropped();

}  // namespace host
