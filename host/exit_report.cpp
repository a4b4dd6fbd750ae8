// SPDX-License-Identifier: Apache-2.0
// The report at exit: asks for it and waits for its end.
#include "host/exit_report.h"

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "host/carry_out.h"
#include "host/clock.h"
#include "host/form.h"
#include "host/print_error.h"
#include "host/reports.h"
#include "host/signal_actions.h"
#include "host/state.h"
#include "protocol/kinds.h"

extern "C" int __cxa_atexit(void (*handler)(void*), void* argument, void* library);

namespace host {
namespace {

constexpr int kWaitMs = 60'000;
// How long an exit waits for earlier reports, which the end of the process would truncate.
constexpr int kEarlierMs = 10'000;
// How long an abrupt end waits for the command, and then for the report. The ending thread may hold
// a lock of the allocator, or be in an operation of the record store, for which the report waits.
constexpr int kAbruptMs = 2'000;
constexpr int kAbruptReportMs = 5'000;
// How long a signal handler waits for a report to start if the handler has interrupted an exit.
constexpr int kInterruptedMs = 100;
// How long an exit waits for a running command. If the command takes longer, the tracker is not
// finalized, which is harmless at exit.
constexpr int kFinalizeMs = 5'000;
// Most reports take some milliseconds.
constexpr int kExitPollMs = 2;

Command exit_command{0, 0};
void (*finalize_tracker)() = nullptr;
struct Ending {
  pid_t process;
  pid_t thread;
};
// `ending`: the process that ends, and the first thread that ends it. `reported`: the process whose
// report at exit is complete or was given up. Process ids, because a forked child ends separately.
std::atomic<Ending> ending{};
static_assert(std::atomic<Ending>::is_always_lock_free);
std::atomic<pid_t> reported{0};

/// Waits until no report runs. Returns false after `timeout_ms`.
bool WaitForReports(int timeout_ms) {
  const int64_t end = NowMs() + timeout_ms;
  while (ReportRuns() || ReportCommandWaits()) {
    if (NowMs() >= end) return false;
    SleepMs(kExitPollMs);
  }
  return true;
}

/// Carries out the exit command and waits for its report by `wait`. If there is no complete report,
/// prints the reason to stderr in one line. All times are in milliseconds.
void Report(int command_ms, int report_ms, PassTracker::From memory, bool (*wait)(int)) {
  if (exit_command.word == 0) return;
  if ((exit_command.word & protocol::kReportBits) == 0) {
    PrintError("no report at exit: %s=0x%llx is not a report command; use 0x%llx",
               protocol::kReportAtExitVariable, static_cast<unsigned long long>(exit_command.word),
               static_cast<unsigned long long>(protocol::kNative.Report()));
    return;
  }
  const int error = RunCommand(exit_command, command_ms, memory);
  if (error != 0) {
    PrintError("no report at exit: the command could not be carried out: %s", strerror(error));
  } else if (!wait(report_ms)) {
    PrintError("no report at exit: it is not complete");
  } else if (CurrentState().report_error.load() != 0) {
    PrintError("no report at exit: %s", CurrentState().report_reason);
  }
}

/// Returns whether the loader is detached, or the process neither has an exit command nor received
/// any command. That is the case in most forked children, whose end then writes to no page.
bool NothingToDo() {
  return !IsActive() || (exit_command.word == 0 && IsAtRest());
}

/// Waits for the report of the thread that ends the process, since the process ends when the caller
/// returns. Gives up if no report runs for `command_ms` milliseconds: the caller may hold a lock
/// that the report needs.
void WaitForFirst(int command_ms, int report_ms) {
  int64_t last = NowMs();
  while (reported.load() != getpid() && NowMs() - last < command_ms) {
    if (ReportRuns()) {
      if (!WaitWhileReportRuns(report_ms)) return;
      last = NowMs();
    }
    SleepMs(kExitPollMs);
  }
}

/// Returns whether the caller is the first thread that ends the process. Any other thread waits for
/// the first one before false is returned. A signal handler on the first thread waits only for the
/// report.
bool EndsNow() {
  if (!OwnsState()) return false;
  const Ending caller{getpid(), static_cast<pid_t>(syscall(SYS_gettid))};
  Ending first = ending.load();
  while (first.process != caller.process) {
    if (ending.compare_exchange_weak(first, caller)) return true;
  }
  if (first.thread == caller.thread) {
    WaitForFirst(kInterruptedMs, kAbruptReportMs);
  } else {
    WaitForFirst(kAbruptMs, kWaitMs);
  }
  return false;
}

/// The exit handler. A preloaded loader registers it before all others, and without a library
/// handle, so that it runs after the destructors of all libraries. If the loader was attached,
/// handlers that were registered before the attach run later. The tracker needs no exit handler of
/// its own.
void AtExit(void*) {
  if (NothingToDo()) return;
  if (EndsNow()) {
    WaitForReports(kEarlierMs);
    Report(kWaitMs, kWaitMs, PassTracker::From::kNextAllocator, WaitForReports);
    reported.store(getpid());
  }
  // The entries stay in place and forward.
  if (CloseControlThread(kFinalizeMs)) {
    CaptureActions(true);
    finalize_tracker();
    CaptureActions(false);
  }
}

}  // namespace

int PrepareExit(const Command& command, void (*finalize)()) {
  exit_command = command;
  finalize_tracker = finalize;
  static bool registered = false;
  if (!registered) {
    registered = __cxa_atexit(AtExit, nullptr, nullptr) == 0 && at_quick_exit(EndAbruptly) == 0;
  }
  return registered ? 0 : ENOMEM;
}

void EndAbruptly() {
  if (NothingToDo() || !EndsNow()) return;
  WaitWhileReportRuns(kAbruptReportMs);
  Report(kAbruptMs, kAbruptReportMs, PassTracker::From::kArena, WaitWhileReportRuns);
  reported.store(getpid());
}

}  // namespace host
