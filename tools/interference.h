// What commands that others send do to a recording in progress. Called by `watch`; single-threaded.
#pragma once

#include <string>
#include <vector>

#include "tools/process_info.h"

namespace memleak {

/// The first of the tracker's log `lines` that tells of a command after which native records are no
/// longer all that was recorded and is not freed yet: what it did and when, such as "recording was
/// paused (command 0x20 at 14:03:22)". Empty when there is none. Words are carried out in the order
/// of their bits, but one that breaks off does so in whatever order.
std::string FindInterference(const std::vector<std::string>& lines);

/// The state of native recording as far as the log of `process` tells. Unknown when there is none
/// that can be read, or when it holds commands for other processes that share it, and none for this
/// one: a forked child goes on recording as its parent did.
Recording RecordingOf(const ProcessInfo& process);

}  // namespace memleak
