// Asks for the last report and waits for its file; see the header.
#include "host/exit_report.h"

#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/clock.h"
#include "host/report_thread.h"
#include "host/say.h"
#include "platform/linux/root.h"
#include "protocol/private_files.h"

namespace host {
namespace {

constexpr char kReport[] = "/data/log/reliability/allocations_dump";
constexpr int kWaitMs = 60'000;
// Most reports are there within some milliseconds.
constexpr int kLookMs = 2;

char report_path[platform::kPathBytes];

/// Whether the report's last bytes are "END".
bool IsComplete() {
  const int file = open(report_path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file < 0) return false;
  struct stat status;
  char tail[3];
  const bool complete = fstat(file, &status) == 0 && status.st_size >= 3 &&
                        pread(file, tail, sizeof tail, status.st_size - 3) == 3 &&
                        memcmp(tail, "END", sizeof tail) == 0;
  close(file);
  return complete;
}

/// Waits until the report is complete. Gives up, with one line on stderr, when nobody writes it any
/// more or `deadline` (NowMs) has passed.
void WaitForReport(int64_t deadline) {
  for (;;) {
    // Asked before the look at the file: a thread may write the end just before it goes.
    const Report report = CurrentReport();
    // A file that is complete may be the last one's while a thread still runs.
    if (report != Report::kRunning && IsComplete()) return;
    if (report == Report::kNone) {
      Say("no complete report in %s, and nobody writes it any more; is the disk full?",
          report_path);
      return;
    }
    if (NowMs() > deadline) {
      Say("no complete report in %s after %d s", report_path, kWaitMs / 1000);
      return;
    }
    SleepMs(kLookMs);
  }
}

}  // namespace

void WaitForEarlierReports() {
  constexpr int64_t kLongestMs = 10'000;
  const int64_t start = NowMs();
  while ((CurrentReport() != Report::kNone || ReportCommandWaits()) &&
         NowMs() - start < kLongestMs) {
    SleepMs(kLookMs);
  }
}

void ReportAtExit(const Command& command) {
  if ((command.word & kReportBits) == 0) {
    Say("no report at exit: MEMLEAK_TRACKER_REPORT_AT_EXIT=0x%llx is no command to report; use "
        "0x40",
        static_cast<unsigned long long>(command.word));
    return;
  }
  protocol::Refusal refusal;
  const int file = platform::OpenRooted(kReport, protocol::Use::kReplace, report_path, refusal);
  if (file < 0) {
    Say("no report at exit: cannot use %.*s: %s; name another root directory",
        static_cast<int>(refusal.path_bytes), report_path, refusal.Reason());
    return;
  }
  close(file);
  unlink(report_path);
  const int64_t deadline = NowMs() + kWaitMs;
  const int error = RunCommand(command, kWaitMs);
  if (error != 0) {
    Say("no report at exit: the command could not be carried out: %s", strerror(error));
    return;
  }
  WaitForReport(deadline);
}

}  // namespace host
