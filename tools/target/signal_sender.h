// SPDX-License-Identifier: Apache-2.0
// Sending a command word to a tracked process. Called by the commands that name a PID.
#pragma once

#include <cstdint>

#include "tools/target/process_info.h"

namespace memleak {

/// The number that the sender gives the control signal. An emulator adds
/// protocol::kEmulatedSignalShift to the numbers of its guest, which may be the target, the sender
/// or both.
int ControlSignalFor(bool target_emulated, bool sender_emulated);

/// Queues the command `word` with `parameter` for `process`, which RequireTracked has returned.
/// Returns when the kernel has queued it. Throws UserError if the process has ended, belongs to
/// another user, or has too many signals pending.
void SendCommand(const ProcessInfo& process, std::uint64_t word, std::uint32_t parameter);

}  // namespace memleak
