// Waiting for a report to be written: by another process, at its own pace, into directories that
// may not exist yet. Called by `report`. Single-threaded.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace memleak {

/// What tells one state of a file from another.
struct FileState {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  std::int64_t modified_ns = 0;
  std::int64_t changed_ns = 0;
  bool operator==(const FileState&) const = default;
};

/// The state of the file at `path`, nothing when there is none.
std::optional<FileState> StateOf(const std::string& path);

/// Moves a report that is already there to "<path>.old", so that the next one cannot be mistaken
/// for it; returns the state of what could not be moved (its directory is not writable for us), for
/// WaitForReport to ignore.
std::optional<FileState> MoveOldReportAside(const std::string& path);

/// Undoes MoveOldReportAside when no new report will come.
void RestoreOldReport(const std::string& path);

/// True if the last line of the file is protocol::kReportEnd without a newline.
bool EndsComplete(const std::string& path);

enum class WaitResult { kComplete, kTimeout, kProcessEnded };

/// How to wait.
struct WaitOptions {
  std::string path;                   ///< the report
  std::optional<FileState> old;       ///< a state of it that does not count
  std::chrono::milliseconds timeout;  ///< 0: without end
  std::function<bool()> is_alive;     ///< whether the writer still runs
  /// Called a few times a second with the time waited and the bytes written so far.
  std::function<void(std::chrono::milliseconds, std::int64_t)> progress;
};

/// Returns when the report is complete, the time is over, or the writer has ended without one.
/// Throws UserError when the system's file watches are used up.
WaitResult WaitForReport(const WaitOptions& options);

}  // namespace memleak
