// SPDX-License-Identifier: Apache-2.0
// The state that the controller reads: protocol::State in a shared file, or in private memory until
// the process has a file.
//
// Nothing here allocates or takes a lock. Unless stated otherwise: any thread, safe in signal
// handlers.
#pragma once

#include <stdint.h>

#include <atomic>

#include "protocol/private_files.h"
#include "protocol/state.h"

namespace host {

using protocol::State;

/// Returns the state. A fork and MakeStateFile replace it, so do not keep the reference.
State& CurrentState();

/// Returns whether the state describes the calling process. False in a child of vfork, which runs
/// in its parent's memory, and in a child of fork before ForkState.
bool OwnsState();

/// Fills the private state with a description of the process: program, arguments, version, start
/// time. A mapped file stays in use until MakeStateFile. `arguments` are used if there is no /proc.
/// For the loader's constructor and for an attach.
void InitializeState(int argument_count = 0, char* const* arguments = nullptr);

/// Makes the file "<root>/state", or "<root>/state.PID" if another living process has that
/// (".PID.NAMESPACE" if a process of another PID namespace has both), and moves the state to it.
/// Does nothing if the process has its file, has no root directory, or is already making the file.
/// If the file cannot be made, the state stays private, `refusal` (may be null) gets the reason,
/// and the next call tries again. The caller ensures that no other thread writes the state during
/// the call: no control thread and no report runs. Returns whether the process has its file.
bool MakeStateFile(protocol::Refusal* refusal = nullptr);

/// Returns whether this process has made its state file.
bool HasStateFile();

/// Gives a forked child a private state, on its only thread. The state shows the same recording as
/// the parent's, and no commands. `rested`: the parent had received no command (IsAtRest).
void ForkState(bool rested);

/// Returns the tracker's function for protocol::kSwitchOff; null if there is none.
void (*SwitchOffFunction())();

/// Returns whether recording of any kind is on or paused.
bool Records();

/// Adds a command that was carried out to the state's history. One thread at a time.
void RememberCommand(const protocol::Command& command);

/// Waits while `word` is `value`, at most `timeout_ms` milliseconds (negative: without limit). May
/// return early. Other processes may wake the caller.
void WaitWhile(std::atomic<uint32_t>& word, uint32_t value, int64_t timeout_ms);
/// Wakes all threads, of any process, that wait for `word` by futex.
void WakeWaiters(std::atomic<uint32_t>& word);

/// Adds one to the state's `bell` and wakes the control thread.
void RingBell();

}  // namespace host
