// SPDX-License-Identifier: Apache-2.0
// The report at exit: asks for it and waits for its file.
#include "host/exit_report.h"

#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/clock.h"
#include "host/print_error.h"
#include "host/report_thread.h"
#include "platform/linux/root.h"
#include "protocol/kinds.h"
#include "protocol/private_files.h"
#include "protocol/protocol.h"

namespace host {
namespace {

constexpr int kWaitMs = 60'000;
// Most reports take some milliseconds.
constexpr int kExitPollMs = 2;

char report_path[platform::kPathBytes];

/// Whether the report ends with kReportEnd.
bool IsComplete() {
  const int file = open(report_path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file < 0) return false;
  struct stat status;
  constexpr ssize_t kBytes = sizeof protocol::kReportEnd - 1;
  char tail[kBytes];
  const bool complete = fstat(file, &status) == 0 && status.st_size >= kBytes &&
                        pread(file, tail, kBytes, status.st_size - kBytes) == kBytes &&
                        memcmp(tail, protocol::kReportEnd, kBytes) == 0;
  close(file);
  return complete;
}

/// Waits until the report is complete. Returns false, with one line on stderr, if the report's
/// thread has ended or `deadline` (of NowMs) has passed.
void WaitForReport(int64_t deadline) {
  for (;;) {
    // Read before the file is checked: the thread may complete the file and then end.
    const Report report = CurrentReport();
    // While a thread runs, a complete file may be the previous report.
    if (report != Report::kRunning && IsComplete()) return;
    if (report == Report::kNone) {
      PrintError("no complete report in %s, and its thread has ended; is the disk full?",
                 report_path);
      return;
    }
    if (NowMs() > deadline) {
      PrintError("no complete report in %s after %d s", report_path, kWaitMs / 1000);
      return;
    }
    SleepMs(kExitPollMs);
  }
}

}  // namespace

void WaitForEarlierReports() {
  constexpr int64_t kMaxWaitMs = 10'000;
  const int64_t start = NowMs();
  while ((CurrentReport() != Report::kNone || ReportCommandWaits()) &&
         NowMs() - start < kMaxWaitMs) {
    SleepMs(kExitPollMs);
  }
}

void ReportAtExit(const Command& command) {
  if ((command.word & protocol::kReportBits) == 0) {
    PrintError("no report at exit: %s=0x%llx is not a report command; use 0x%llx",
               protocol::kReportAtExitVariable, static_cast<unsigned long long>(command.word),
               static_cast<unsigned long long>(protocol::kNative.Report()));
    return;
  }
  protocol::Refusal refusal;
  const int file =
      platform::OpenRooted(protocol::kReportPath, protocol::Use::kReplace, report_path, refusal);
  if (file < 0) {
    PrintError("no report at exit: cannot use %.*s: %s; name another root directory",
               static_cast<int>(refusal.path_bytes), report_path, refusal.Reason());
    return;
  }
  close(file);
  unlink(report_path);
  const int64_t deadline = NowMs() + kWaitMs;
  const int error = RunCommand(command, kWaitMs);
  if (error != 0) {
    PrintError("no report at exit: the command could not be carried out: %s", strerror(error));
    return;
  }
  WaitForReport(deadline);
}

}  // namespace host
