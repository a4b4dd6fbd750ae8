// SPDX-License-Identifier: Apache-2.0
// Requests a report from a process and waits for it. Called by `report` and `watch`.
// Single-threaded.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/target/process_info.h"

namespace memleak {

/// What distinguishes two states of a report's file, which another process writes.
struct FileState {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  std::int64_t modified_ns = 0;
  std::int64_t changed_ns = 0;
  bool operator==(const FileState&) const = default;
};

/// The state of the file at `path`; nothing if there is none.
std::optional<FileState> StateOf(const std::string& path);

/// Whether the file ends with the line "END" without a newline, which the tracker writes last.
bool EndsComplete(const std::string& path);

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
