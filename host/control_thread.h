// SPDX-License-Identifier: Apache-2.0
// The thread that carries out every command to the tracker: "memleak-control".
//
// Commands arrive as a signal, and the tracker's handler allocates and takes locks. On a thread
// that holds the allocator's lock it would deadlock. So the signal is blocked before the program
// can start a thread, all threads inherit the mask, and one thread fetches the commands one by one.
// Since the signal stays blocked, it cannot kill the process either. If the program unblocks it, a
// command may interrupt any thread.
//
// One report runs at a time: a report command waits until the previous report has ended.
// Consecutive identical commands that wait are merged; different commands keep their order.
//
// Called by the loader's constructor and exit handler.
#pragma once

#include <stdint.h>

#include "protocol/protocol.h"

namespace host {

using protocol::Command;

/// Blocks the control signal in the calling thread. Allocates nothing.
void BlockControlSignal();

/// Undoes BlockControlSignal in the calling thread, unless the signal was blocked before that.
void RestoreControlSignal();

/// Gives the control signal a handler that does nothing, if it has none. The tracker restores it as
/// the previous action when it is finalized, so that a late command does not kill the process. Not
/// SIG_IGN, which would survive an exec.
void CatchLateCommands();

/// Starts the thread. Returns 0 or an errno value. Allocates. One caller at a time.
int StartControlThread();

/// Ends the thread after its current command, if any. Later commands wait for the next start.
/// Returns false if that takes longer than `timeout_ms`; then the thread continues. Returns false
/// on the control thread itself.
bool StopControlThread(int timeout_ms);

/// How long a fork waits for a command. After that the child may have no working tracker. A program
/// that hangs would be worse.
inline constexpr int kForkPatienceMs = 1000;

/// Makes forks keep the thread. A fork stops the thread, waits at most `patience_ms` for that, and
/// starts it again in parent and child. The fork also waits at most 3 s for a running report,
/// unless the report makes no progress. Call it once, after track_initialize, so that in the child
/// the tracker's own fork handler frees its locks first. Returns 0 or an errno value.
int KeepControlThreadAcrossForks(int patience_ms = kForkPatienceMs);

/// Whether a report command waits for another report to end. Any thread.
bool ReportCommandWaits();

/// Sends `command` to the control thread, as a controller would, and waits until that command, or
/// an identical one, has been carried out. Returns 0, an errno value if it cannot be sent, or
/// ETIMEDOUT after `timeout_ms`. EDEADLK on the control thread itself.
int RunCommand(const Command& command, int timeout_ms);

}  // namespace host
