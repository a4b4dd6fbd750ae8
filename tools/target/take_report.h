// Asking a process for a report and waiting until it is there. Called by `report` and `watch`;
// single-threaded.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "tools/target/process_info.h"

namespace memleak {

/// What becomes of a report that lies where the next one is written.
enum class OldReport : std::uint8_t { kKeepBeside, kReplace };

/// Sends `word`, one of the commands that end in a report, to `process` and waits for that report
/// at process.ReportPath(), at most `timeout_s` seconds (0: without end), with a line of progress
/// on a terminal. Returns how long it took. Throws UserError when the process ends first, nothing
/// came in time, or the command could not be sent; an old report kept beside is then back in its
/// place.
std::chrono::milliseconds TakeReport(const ProcessInfo& process, std::uint64_t word,
                                     std::uint32_t timeout_s, OldReport old);

/// "0.3 s".
std::string FormatDuration(std::chrono::milliseconds duration);

}  // namespace memleak
