// One report of a running process.
#include "tools/target/take_report.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <optional>
#include <utility>

#include "protocol/protocol.h"
#include "tools/base/format.h"
#include "tools/base/user_error.h"
#include "tools/target/inspect.h"
#include "tools/target/report_wait.h"
#include "tools/target/root_directory.h"
#include "tools/target/signal_sender.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// A line on the terminal that is rewritten while waiting; nothing where no person looks.
class Progress {
 public:
  explicit Progress(std::string label)
      : label_(std::move(label)), enabled_(isatty(STDERR_FILENO) == 1) {}
  ~Progress() {
    if (printed_) std::cerr << "\r\033[K" << std::flush;
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Update(milliseconds waited, std::int64_t bytes) {
    if (!enabled_) return;
    printed_ = true;
    std::cerr << "\r\033[K" << label_ << "  " << FormatDuration(waited);
    if (bytes > 0)
      std::cerr << ", " << FormatBytes(static_cast<std::uint64_t>(bytes)) << " written";
    std::cerr << std::flush;
  }

 private:
  std::string label_;
  bool enabled_;
  bool printed_ = false;
};

void CheckResult(WaitResult result, const ProcessInfo& process, const std::string& path,
                 std::uint32_t timeout_s) {
  if (result == WaitResult::kProcessEnded) {
    throw UserError("process " + process.Label() + " ended before its report was complete: " + path,
                    Advice().report_at_end);
  }
  if (result == WaitResult::kTimeout) {
    throw UserError("no complete report after " + std::to_string(timeout_s) + " s: " + path,
                    "wait longer with --timeout, or see whether the process may write there");
  }
}

// Makes room for a new report; returns the state of one that cannot be moved, not to be mistaken
// for it.
std::optional<FileState> MakeRoom(const std::string& path, OldReport old) {
  if (old == OldReport::kKeepBeside) return MoveOldReportAside(path);
  std::remove(path.c_str());
  return StateOf(path);
}

}  // namespace

std::string FormatDuration(milliseconds duration) {
  const auto tenths = duration.count() / 100;
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " s";
}

milliseconds TakeReport(const ProcessInfo& process, std::uint64_t word, std::uint32_t timeout_s,
                        OldReport old) {
  WaitOptions wait;
  wait.path = process.ReportPath();
  wait.old = MakeRoom(wait.path, old);
  wait.timeout = milliseconds(1000) * timeout_s;
  wait.is_alive = [&] { return IsAlive(process.pid); };
  Progress progress("waiting for the report of " + process.Label());
  wait.progress = [&](milliseconds waited, std::int64_t bytes) { progress.Update(waited, bytes); };

  const bool restore = old == OldReport::kKeepBeside;
  const auto start = steady_clock::now();
  WaitResult result = WaitResult::kTimeout;
  try {
    SendCommand(process, word, 0);
    result = WaitForReport(wait);
  } catch (const UserError&) {
    if (restore) RestoreOldReport(wait.path);
    throw;
  }
  const auto took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
  if (result != WaitResult::kComplete && restore) RestoreOldReport(wait.path);
  CheckResult(result, process, wait.path, timeout_s);
  return took;
}

}  // namespace memleak
