// SPDX-License-Identifier: Apache-2.0
// Sends the control signal to a process. Single-threaded.
#pragma once

#include <cstdint>

#include "tools/target/process_info.h"

namespace memleak {

/// Sends the control signal without a command, which makes `process` read its state file and
/// start the thread that carries out commands. Throws UserError if that is not permitted or the
/// process has ended.
void RingBell(const ProcessInfo& process);

/// Sends a command in the signal itself, for processes without a state file. Returns when the
/// kernel has queued it. Throws UserError as RingBell does, also if too many signals are pending.
void QueueCommand(const ProcessInfo& process, std::uint64_t word, std::uint32_t parameter);

}  // namespace memleak
