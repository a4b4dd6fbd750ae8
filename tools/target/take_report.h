// SPDX-License-Identifier: Apache-2.0
// Requests a report from a process and waits for it. Called by `report` and `watch`.
// Single-threaded.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "tools/target/process_info.h"

namespace memleak {

/// What happens to a report that is already where the next one is written.
enum class OldReport : std::uint8_t { kRename, kReplace };

/// Sends `word`, a command that ends in a report, to `process` and waits until the report at
/// process.ReportPath() is complete, at most `timeout_s` seconds (0: forever). Shows progress on a
/// terminal. Returns how long it took. Throws UserError if the process ends first, the time is over
/// the report cannot be written, or the command is not carried out; a renamed report then gets its
/// old name back.
std::chrono::milliseconds TakeReport(const ProcessInfo& process, std::uint64_t word,
                                     std::uint32_t timeout_s, OldReport old);

}  // namespace memleak
