// SPDX-License-Identifier: Apache-2.0
// How commands interfere with a recording in progress. Single-threaded.
#pragma once

#include <string>
#include <vector>

#include "tools/target/kinds.h"
#include "tools/target/log_tail.h"
#include "tools/target/process_info.h"

namespace memleak {

/// Finds the first command in the tracker's log `lines` after which the native records are no
/// longer complete. Returns what it did and when, such as "recording was paused (command 0x20 at
/// 14:03:22)"; empty if there is none.
std::string FindInterference(const std::vector<std::string>& lines);

/// Throws UserError, which names the command to give first, if a command for memory of kind
/// `wanted` would spoil what `process` records. The tracker looks up each block by the kind in the
/// latest command: native memory by its usable size, all other kinds by the size of the call. A
/// native command while a hooked kind is recorded or paused, or the reverse, makes the tracker miss
/// releases and may crash the process. The log shows what is recorded; without a log, hooked slots
/// show hooked kinds. Refuses nothing if neither is readable, or if both sorts are recorded
/// already.
void RefuseMixedKinds(const ProcessInfo& process, const Kind& wanted);

/// The state of native recording according to the log of `process`. Unknown if there is no readable
/// log, or if it has commands for other processes only: a forked child inherits its parent's
/// state.
Recording RecordingOf(const ProcessInfo& process);

}  // namespace memleak
