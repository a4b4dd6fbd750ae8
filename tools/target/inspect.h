// Looks at a running process: is the tracker in it, would it survive the control signal, where does
// it keep its files. Single-threaded.
#pragma once

#include <sys/types.h>

#include <string>

#include "tools/target/process_info.h"

namespace memleak {

/// The text of /proc/PID/maps. Throws UserError as InspectProcess does.
std::string ReadMaps(pid_t pid);

/// Looks at process `pid`. Throws UserError when there is no such process or looking is not
/// allowed.
ProcessInfo InspectProcess(pid_t pid);

/// How long a command waits for a process that is only just being started. Emulators are slow.
inline constexpr int kStartPatienceMs = 3000;

/// As InspectProcess, for a process that a command is about to be sent to. Throws UserError unless
/// the tracker is loaded and the signal is handled: at once for a process of more than 3 s, after
/// up to `patience_ms` for one that is younger or still this controller. A young process under an
/// emulator is given a moment after the tracker is loaded, within the same patience.
ProcessInfo RequireTracked(pid_t pid, int patience_ms = kStartPatienceMs);

/// True while `pid` names a process that has not ended.
bool IsAlive(pid_t pid);

}  // namespace memleak
