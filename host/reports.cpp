// SPDX-License-Identifier: Apache-2.0
// Watches the thread that writes a report.
#include "host/reports.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "host/clock.h"
#include "host/state.h"
#include "platform/raw_calls.h"

namespace host {
namespace {

/// The activity of a thread, from /proc.
struct Activity {
  bool is_active;  ///< it runs, is ready to run, or waits for a disk
  uint64_t ticks;  ///< processor time that it has used
};

/// Reads the activity of the thread `id`. Without a free descriptor the thread counts as idle.
Activity ReadActivity(int id) {
  char path[64];
  snprintf(path, sizeof path, "/proc/self/task/%d/stat", id);
  const int file = platform::RawOpen(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return {false, 0};
  // "ID (NAME) STATE" and numbers. The 11th and the 12th number are the times in user and in system
  // mode. The name of a report's thread has no bracket.
  char text[512];
  const ssize_t length = platform::RawRead(file, text, sizeof text - 1);
  platform::RawClose(file);
  text[length > 0 ? length : 0] = '\0';
  const char* field = strchr(text, ')');
  if (field == nullptr || field[1] == '\0') return {false, 0};
  field += 2;
  const bool is_active = *field == 'R' || *field == 'D';
  uint64_t ticks = 0;
  for (int number = 1; number <= 12 && (field = strchr(field, ' ')) != nullptr; ++number) {
    ++field;
    if (number >= 11) ticks += strtoull(field, nullptr, 10);
  }
  return {is_active, ticks};
}

bool Exists(int id) {
  return syscall(SYS_tgkill, getpid(), id, 0) == 0;
}

}  // namespace

bool ReportRuns() {
  const State& state = CurrentState();
  return state.reports_started.load() != state.reports_ended.load();
}

bool WaitWhileReportRuns(int timeout_ms) {
  const int saved_errno = errno;
  const int64_t start = NowMs();
  int64_t progress = start;
  uint64_t ticks = 0;
  bool runs;
  while ((runs = ReportRuns())) {
    const int64_t now = NowMs();
    const Activity activity = ReadActivity(CurrentState().report_thread.load());
    if (activity.is_active || activity.ticks != ticks) progress = now;
    ticks = activity.ticks;
    if (now - start >= timeout_ms || now - progress >= kNoProgressMs) break;
    SleepMs(1);
  }
  int id = CurrentState().report_thread.load();
  if (!runs && id != 0) {
    WaitForRemoval(id);
    CurrentState().report_thread.compare_exchange_strong(id, 0);
  }
  errno = saved_errno;
  return !runs;
}

void WaitForRemoval(int id) {
  constexpr int kRemovalMs = 100;
  const int saved_errno = errno;
  const int64_t end = NowMs() + kRemovalMs;
  while (Exists(id) && NowMs() < end) sched_yield();
  errno = saved_errno;
}

}  // namespace host
