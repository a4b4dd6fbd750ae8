// Sending a command word to a tracked process. Called by the commands that name a PID.
#pragma once

#include <cstdint>

#include "tools/target/process_info.h"

namespace memleak {

/// The signal number, in the sender's numbering, that a target sees as 44: an emulator shifts the
/// numbers of its guest up by two, be the guest the target, the sender or both.
int ControlSignalFor(bool target_emulated, bool sender_emulated);

/// Queues the command `word` with `parameter` for `process`, which RequireTracked has returned.
/// Returns when the kernel has taken it, not when it has been carried out. Throws UserError when
/// the process is gone, not ours, or has too many signals pending.
void SendCommand(const ProcessInfo& process, std::uint64_t word, std::uint32_t parameter);

}  // namespace memleak
