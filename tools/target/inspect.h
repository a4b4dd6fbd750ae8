// SPDX-License-Identifier: Apache-2.0
// Inspects a running process: whether the tracker is loaded, whether it catches the control signal,
// and where its files are. Single-threaded.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "tools/target/maps.h"
#include "tools/target/process_info.h"

namespace memleak {

/// The text of /proc/PID/maps. Throws UserError as InspectProcess does.
std::string ReadMaps(pid_t pid);

/// Inspects process `pid`. Throws UserError if it does not exist or permission is missing.
ProcessInfo InspectProcess(pid_t pid);

/// How long a command waits for a process that is being started. Emulators are slow.
inline constexpr int kStartPatienceMs = 3000;

/// InspectProcess for a process that will get a command. Throws UserError unless the tracker is
/// loaded, the signal is handled, and on Linux there is a state file that fits; also if the process
/// is stopped. A process younger than 3 s, or one that is still this controller, gets up to
/// `patience_ms` to reach that state. A forked child is made to create its state file first.
ProcessInfo RequireTracked(pid_t pid, int patience_ms = kStartPatienceMs);

/// Throws UserError if `process` has ended or is stopped.
void RequireRunning(const ProcessInfo& process);

/// Seconds since process `pid` was started, including suspended time; empty if that is not known.
/// Throws UserError if it does not exist.
std::optional<double> AgeOf(pid_t pid);

/// Whether process `pid` exists and has not ended.
bool IsAlive(pid_t pid);

}  // namespace memleak
