// SPDX-License-Identifier: Apache-2.0
// Sending a command to a tracked process. Called by the commands that name a PID. Single-threaded.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/target/process_info.h"

namespace memleak {

/// The time from sending a command until the process had carried it out; nothing on devices, where
/// processes do not answer.
using Carried = std::optional<std::chrono::microseconds>;

/// How long a command waits for earlier ones, such as a long report.
inline constexpr std::chrono::seconds kCommandPatience(60);

/// Makes `process`, which RequireTracked has returned, carry out the command `word` with
/// `parameter`, and waits until it has. On devices it only sends the command. `timeout` limits the
/// wait for a thread that is busy (0: no limit); a process that does not start its thread gets a
/// few seconds. Throws UserError if the command was not carried out, with the reason.
Carried SendCommand(const ProcessInfo& process, std::uint64_t word, std::uint32_t parameter,
                    std::chrono::milliseconds timeout = kCommandPatience);

/// Makes `process`, which has a state, count its live records: `records` and `dropped` of the state
/// are current then. Returns false if it has not done so within half a second, for example because
/// it calls no allocator function. Starts its control thread, if it has none.
bool CountRecords(const ProcessInfo& process);

/// Makes the loader in an attached `process`, which has a state file, detach, and waits until it
/// has. Throws UserError if it did not.
Carried DetachFrom(const ProcessInfo& process);

/// " (0.4 ms)", or on devices where the result is to be seen. Follows the result of a command.
std::string CarriedText(const Carried& carried);

/// "0.4 ms", "32 ms", "2.3 s".
std::string FormatDuration(std::chrono::microseconds duration);

}  // namespace memleak
