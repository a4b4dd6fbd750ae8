// SPDX-License-Identifier: Apache-2.0
// The state of this process that the controller reads: protocol::State in a shared file, or in
// private memory while the process has no file.
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

/// Returns the state. A different one after a fork and after MakeStateFile.
State& CurrentState();

/// Whether the calling process is the one that the state describes. False in a child of vfork,
/// which runs in its parent's memory, and in a child of fork before ForkState.
bool OwnsState();

/// Starts a new state in private memory that describes the process: program, arguments, version,
/// start. The current state stays in use until MakeStateFile. For the loader's constructor and for
/// an attach. The arguments are used where there is no /proc.
void InitializeState(int argument_count = 0, char* const* arguments = nullptr);

/// Makes the file "<root>/state", or "<root>/state.PID" if another living process has that
/// (".PID.NAMESPACE" if a process of another PID namespace has both), and moves the state to it.
/// Does nothing if the process has its file, has no root directory, or is already making the file.
/// If the file cannot be made, the state stays private, and the next call tries again; `refusal`
/// then tells why, unless it is null. The caller makes sure that meanwhile nobody writes the state:
/// no control thread and no report runs. Returns whether the process has its file.
bool MakeStateFile(protocol::Refusal* refusal = nullptr);

/// Whether this process has made its state file.
bool HasStateFile();

/// In a forked child, on its only thread: leaves the parent's file. The child starts with what its
/// parent records, and with no commands. `rested`: the parent had no command (IsAtRest).
void ForkState(bool rested);

/// The tracker's function for protocol::kSwitchOff, null if there is none. Any thread.
void (*SwitchOffFunction())();

/// Whether something is recorded, or recording is paused.
bool Records();

/// Adds `command`, which was carried out, to the state's history. One caller at a time.
void RememberCommand(const protocol::Command& command);

/// Waits while `word` is `value`, at most `timeout_ms` (negative: without limit). May return early.
/// Other processes may wake it.
void WaitWhile(std::atomic<uint32_t>& word, uint32_t value, int64_t timeout_ms);
/// Wakes the threads, of any process, that wait for `word` by futex.
void WakeWaiters(std::atomic<uint32_t>& word);

/// Adds one to the state's `bell` and wakes the threads, of any process, that wait for it.
void RingBell();

}  // namespace host
