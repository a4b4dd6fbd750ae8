// What the tracker logs after a command was sent: the only answer there is. Called by the commands
// that wait for one; single-threaded.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/target/process_info.h"

namespace memleak {

/// The end of a tracker's log, from where it was when this was made.
class LogTail {
 public:
  explicit LogTail(const ProcessInfo& process);

  /// Whether there is a log that can be read.
  bool IsReadable() const { return readable_; }
  /// The whole lines since then, those of other processes in the same log left out.
  std::vector<std::string> Lines() const;

 private:
  std::string path_;
  pid_t pid_;
  std::uint64_t start_ = 0;
  bool readable_ = false;
};

/// The lines that `process` itself has left in its log so far, one file being shared by those that
/// it forked. Nothing when there is no log that can be read.
std::optional<std::string> OwnLog(const ProcessInfo& process);

/// The command word of a line that says that one was received; 0 for any other line.
std::uint64_t ReceivedWord(std::string_view line);

/// What the tracker's log says about native recording.
enum class Recording { kUnknown, kNever, kOn, kPaused, kStopped };

/// The state after the last command in the text of a tracker log.
Recording RecordingFromLog(std::string_view log);

/// A line without time, process, thread and priority: "TAG: TEXT".
std::string LogText(const std::string& line);

}  // namespace memleak
