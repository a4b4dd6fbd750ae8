// SPDX-License-Identifier: Apache-2.0
// One report of a running process. Polls the report's file: a stat and a short read.
#include "tools/target/take_report.h"

#include <cstdio>
#include <optional>
#include <thread>

#include "protocol/protocol.h"
#include "tools/base/format.h"
#include "tools/base/progress.h"
#include "tools/base/user_error.h"
#include "tools/target/inspect.h"
#include "tools/target/report_file.h"
#include "tools/target/signal_sender.h"
#include "tools/target/site.h"

namespace memleak {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kPoll(20);

milliseconds Since(steady_clock::time_point start) {
  return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
}

// Waits until the report at `path` is complete and is not `old`. A timeout of 0 means forever.
// Throws UserError if the time is over or the process ends without a report.
void WaitForReport(const ProcessInfo& process, const std::string& path,
                   const std::optional<FileState>& old, milliseconds timeout) {
  StatusLine line;
  const auto start = steady_clock::now();
  while (true) {
    // Before the file: a report that the process completed just before it ended counts.
    const bool alive = IsAlive(process.pid);
    const std::optional<FileState> state = StateOf(path);
    const bool fresh = state && state != old;
    if (fresh && EndsComplete(path)) return;
    if (!alive) {
      throw UserError(
          "process " + process.Label() + " ended before its report was complete: " + path,
          Advice().report_at_end);
    }
    const milliseconds waited = Since(start);
    if (timeout.count() != 0 && waited >= timeout) {
      throw UserError(
          "no complete report after " + std::to_string(timeout.count() / 1000) + " s: " + path,
          "wait longer with --timeout, or check that the process may write there");
    }
    std::string text =
        "waiting for the report of " + process.Label() + "  " + FormatDuration(waited);
    if (fresh) text += ", " + FormatBytes(static_cast<std::uint64_t>(state->size)) + " written";
    line.Show(text);
    std::this_thread::sleep_for(kPoll);
  }
}

}  // namespace

std::string FormatDuration(milliseconds duration) {
  const auto tenths = duration.count() / 100;
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " s";
}

milliseconds TakeReport(const ProcessInfo& process, std::uint64_t word, std::uint32_t timeout_s,
                        OldReport old) {
  const std::string path = process.ReportPath();
  const std::string old_path = path + ".old";
  if (old == OldReport::kReplace) std::remove(path.c_str());
  const bool moved = old == OldReport::kRename && std::rename(path.c_str(), old_path.c_str()) == 0;
  // A report that cannot be moved must not be taken for the new one.
  const std::optional<FileState> remaining = StateOf(path);
  const auto start = steady_clock::now();
  try {
    SendCommand(process, word, 0);
    WaitForReport(process, path, remaining, milliseconds(1000) * timeout_s);
  } catch (const UserError&) {
    if (moved && !StateOf(path)) std::rename(old_path.c_str(), path.c_str());
    throw;
  }
  return Since(start);
}

}  // namespace memleak
