// SPDX-License-Identifier: Apache-2.0
// The tracker's dump thread, which writes one report and ends, as the loader sees it.
//
// The tracker does not signal that a report is complete, so the loader watches the thread in /proc.
// The control thread starts reports. The control thread, exiting threads and forking threads call
// the functions here. None of these allocates, because a report during recording would list the
// block. None is a cancellation point, because fork is not one.
#pragma once

namespace host {

enum class Report {
  kNone,     ///< no dump thread runs
  kRunning,  ///< one runs, or a report command is being carried out
  kUnknown,  ///< a report was started, and its end cannot be seen: there is no /proc
};

/// Carries out a report command: calls `deliver(argument)` and then finds the dump thread.
/// Meanwhile the calling thread has the dump thread's name, which a new thread inherits; afterwards
/// its name is `name` again. For the control thread.
void StartReport(void (*deliver)(void*), void* argument, const char* name);

/// Whether a report is being written. Without a known dump thread it makes no system call. Any
/// thread.
Report CurrentReport();

/// Waits until no report runs: at most `timeout_ms`, and only while the dump thread makes progress:
/// it runs, waits for a disk, or has used processor time within the last kNoProgressMs. So the wait
/// is short if the caller holds a lock that the report needs. Returns true if no report runs or its
/// end cannot be seen. Any thread.
bool WaitWhileReportRuns(int timeout_ms);

/// A report that does nothing for this long makes no progress. On a busy machine a runnable thread
/// waits for less time.
inline constexpr int kNoProgressMs = 300;

/// Forgets the dump thread. For a forked child, which has none.
void ForgetReport();

}  // namespace host
