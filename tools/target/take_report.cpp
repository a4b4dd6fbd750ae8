// SPDX-License-Identifier: Apache-2.0
// One report of a running process. Its state says when the report is complete, or why there is
// none. On devices, which have no state, the report's file is polled: a stat and a short read.
#include "tools/target/take_report.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string_view>
#include <thread>

#include "protocol/protocol.h"
#include "tools/base/files.h"
#include "tools/base/format.h"
#include "tools/base/names.h"
#include "tools/base/progress.h"
#include "tools/base/user_error.h"
#include "tools/target/inspect.h"
#include "tools/target/send_command.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kReportPoll(20);

std::int64_t Nanoseconds(const timespec& time) {
  return time.tv_sec * std::int64_t{1'000'000'000} + time.tv_nsec;
}

/// Waits for a report of a process.
class ReportWait {
 public:
  ReportWait(const ProcessInfo& process, milliseconds timeout)
      : process_(process),
        path_(process.ReportPath()),
        timeout_(timeout),
        reports_before_(process.state ? (*process.state)->reports_started.load() : 0),
        file_before_(StateOf(path_)) {}

  // Throws UserError if the time is over, the process ends, or the report cannot be written.
  void Await() const {
    StatusLine line;
    while (true) {
      // Before the check: a report that the process completed just before it ended counts.
      const bool alive = IsAlive(process_.pid);
      if (process_.state ? HasEnded() : IsNewFileComplete()) return;
      if (!alive) {
        throw UserError(
            "process " + process_.Label() + " ended before its report was complete: " + path_,
            Advice().report_at_end);
      }
      if (process_.state) RequireRunning(process_);
      if (timeout_.count() != 0 && Waited() >= timeout_) {
        throw UserError(
            "no complete report after " + std::to_string(timeout_.count() / 1000) + " s: " + path_,
            process_.state
                ? "wait longer with --timeout"
                : "wait longer with --timeout, or check that the process may write there");
      }
      line.Show(Progress());
      std::this_thread::sleep_for(kReportPoll);
    }
  }

  milliseconds Waited() const {
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start_);
  }

 private:
  // Whether the report that the command has started has ended. Throws UserError if it failed.
  bool HasEnded() const {
    const StateFile& state = *process_.state;
    const std::uint32_t started = state->reports_started;
    if (started == reports_before_) {
      throw UserError("process " + process_.Label() + " has not started a report",
                      process_.log.empty() ? "start it with --log FILE to see why"
                                           : "see its log: " + Printable(process_.log));
    }
    // Reports are written one after the other. The latest one includes what the command asked for.
    if (static_cast<std::int32_t>(state->reports_ended - started) < 0) return false;
    if (state->report_error == 0) return true;
    throw UserError(
        "no report of process " + process_.Label() + ": " + Printable(TextOf(state->report_reason)),
        "remove the cause, then try again; the records are kept");
  }

  bool IsNewFileComplete() const {
    const std::optional<FileState> file = StateOf(path_);
    return file && file != file_before_ && EndsComplete(path_);
  }

  std::string Progress() const {
    std::string text =
        "waiting for the report of " + process_.Label() + "  " + FormatDuration(Waited());
    const std::optional<FileState> file = StateOf(path_);
    if (file && file != file_before_) {
      text += ", " + FormatBytes(static_cast<std::uint64_t>(file->size)) + " written";
    }
    return text;
  }

  const ProcessInfo& process_;
  std::string path_;
  milliseconds timeout_;
  steady_clock::time_point start_ = steady_clock::now();
  std::uint32_t reports_before_;
  std::optional<FileState> file_before_;  // one that could not be moved is not the new report
};

}  // namespace

std::optional<FileState> StateOf(const std::string& path) {
  struct stat status {};
  if (stat(RootedPath(path).c_str(), &status) != 0) return std::nullopt;
  return FileState{status.st_dev, status.st_ino, status.st_size, Nanoseconds(status.st_mtim),
                   Nanoseconds(status.st_ctim)};
}

bool EndsComplete(const std::string& path) {
  constexpr std::string_view kEndLine = "\nEND";
  const Descriptor file = OpenToRead(path, O_NONBLOCK);
  std::array<char, kEndLine.size()> tail{};
  const auto length = static_cast<off_t>(tail.size());
  const off_t start = lseek(file.Number(), 0, SEEK_END) - length;
  return start >= 0 && pread(file.Number(), tail.data(), tail.size(), start) == length &&
         std::string_view(tail.data(), tail.size()) == kEndLine;
}

milliseconds TakeReport(const ProcessInfo& process, std::uint64_t word, std::uint32_t timeout_s,
                        OldReport old) {
  const std::string report = process.ReportPath();
  const RootedPath directory(report.substr(0, report.rfind('/') + 1) + ".");
  const std::string path = JoinPath(directory.Text(), LastPart(report));
  const std::string old_path = path + ".old";
  if (old == OldReport::kReplace) std::remove(path.c_str());
  const bool moved = old == OldReport::kRename && std::rename(path.c_str(), old_path.c_str()) == 0;
  const milliseconds timeout = milliseconds(1000) * timeout_s;
  const ReportWait wait(process, timeout);
  try {
    SendCommand(process, word, 0, timeout);
    wait.Await();
  } catch (const UserError&) {
    if (moved && !StateOf(path)) std::rename(old_path.c_str(), path.c_str());
    throw;
  }
  return wait.Waited();
}

}  // namespace memleak
