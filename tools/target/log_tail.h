// SPDX-License-Identifier: Apache-2.0
// The tracker's log, which is its only response to commands. Single-threaded.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/target/process_info.h"

namespace memleak {

/// The lines that a tracker logs after this object is created.
class LogTail {
 public:
  explicit LogTail(const ProcessInfo& process);

  /// Whether there is a readable log.
  bool IsReadable() const { return readable_; }
  /// The complete new lines, without those of other processes.
  std::vector<std::string> Lines() const;

 private:
  std::string path_;
  pid_t pid_;
  std::uint64_t start_ = 0;
  bool readable_ = false;
};

/// The lines that `process` itself has logged so far; forked processes share the file. Nothing if
/// there is no readable log.
std::optional<std::string> OwnLog(const ProcessInfo& process);

/// The command word if the line reports one received, else 0.
std::uint64_t ReceivedWord(std::string_view line);

/// The state of native recording.
enum class Recording { kUnknown, kNever, kOn, kPaused, kStopped };

/// The state after the last command in the text of a tracker log.
Recording RecordingFromLog(std::string_view log);

}  // namespace memleak
