// The tracker's dump thread as the loader sees it: it writes one report and ends.
//
// The tracker does not tell when a report is done, so the loader finds the thread in /proc. The
// control thread starts reports; it, exiting threads and forking threads ask whether one runs.
// Nothing here allocates, since a report that is taken while recording goes on would list it, and
// nothing is a cancellation point, since a fork is none.
#pragma once

namespace host {

enum class Report {
  kNone,     ///< no dump thread runs
  kRunning,  ///< one runs, or a report command is being carried out
  kUnknown,  ///< a report was asked for, and its end cannot be seen: there is no /proc
};

/// Carries out a report command: calls `deliver(argument)` and then finds the dump thread that it
/// has started. Meanwhile the calling thread has the dump thread's name, which a new thread
/// inherits; afterwards it is called `name` again. For the control thread.
void StartReport(void (*deliver)(void*), void* argument, const char* name);

/// Whether a report is being written. Costs no system call unless StartReport has found a thread
/// that was not seen to end since. Any thread.
Report CurrentReport();

/// Waits until no report runs: at most `timeout_ms`, and only while the dump thread makes progress,
/// that is, it runs, waits for a disk, or has used processor time within the last kStillMs. So a
/// caller that holds what the report needs does not wait for long. True when no report runs or
/// its end cannot be seen. Any thread.
bool WaitWhileReportRuns(int timeout_ms);

/// A report that does nothing for this long stands still. A busy machine delays a runnable thread
/// by less than this.
inline constexpr int kStillMs = 300;

/// Forgets the dump thread. For a forked child, which has none.
void ForgetReport();

}  // namespace host
