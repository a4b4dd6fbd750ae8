// What a command does to a recording in progress that is not its own. Called by the commands that
// steer a process; single-threaded.
#pragma once

#include <string>
#include <vector>

#include "tools/target/kinds.h"
#include "tools/target/log_tail.h"
#include "tools/target/process_info.h"

namespace memleak {

/// The first of the tracker's log `lines` that tells of a command after which native records are no
/// longer all that was recorded and is not freed yet: what it did and when, such as "recording was
/// paused (command 0x20 at 14:03:22)". Empty when there is none. Words are carried out in the order
/// of their bits, but one that breaks off does so in whatever order.
std::string FindInterference(const std::vector<std::string>& lines);

/// Throws UserError, which names the command to give first, when a command for memory of kind
/// `wanted` would spoil what `process` records. The tracker looks each block up by the kind that
/// the latest command named: native memory by its usable size, all other kinds by the size of the
/// call. A command of one sort while memory of the other sort is recorded, or paused, makes the
/// tracker miss releases, and may crash the process. The log tells what is recorded; hooked slots
/// tell of the hooked kinds where there is no log. Nothing is refused where neither can be read, or
/// where both sorts are recorded already.
void RefuseBeside(const ProcessInfo& process, const Kind& wanted);

/// The state of native recording as far as the log of `process` tells. Unknown when there is none
/// that can be read, or when it holds commands for other processes that share it, and none for this
/// one: a forked child goes on recording as its parent did.
Recording RecordingOf(const ProcessInfo& process);

}  // namespace memleak
