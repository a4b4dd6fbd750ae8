// SPDX-License-Identifier: Apache-2.0
// The tracker's reports, as the state shows them.
//
// The control thread starts reports; a thread of the tracker writes each and ends. No function here
// allocates, because a report during recording would list the block. None is a cancellation point,
// because fork is not one. Any thread. Keeps errno.
#pragma once

namespace host {

/// Returns whether a report is being written. Safe in signal handlers.
bool ReportRuns();

/// Waits until no report runs and the report's thread has ended, at most `timeout_ms` milliseconds.
/// Gives up earlier if the thread makes no progress: within kNoProgressMs it neither runs, nor
/// waits for a disk, nor uses processor time. So the wait is short if the caller holds a lock that
/// the report needs. Returns true if no report runs.
bool WaitWhileReportRuns(int timeout_ms);

/// How long a report's thread may be idle, in milliseconds, before it counts as blocked.
inline constexpr int kNoProgressMs = 300;

/// Waits until the kernel has removed the thread `id` of this process, at most 100 ms. A join may
/// return earlier, and until the removal the kernel counts the process as multi-threaded.
void WaitForRemoval(int id);

}  // namespace host
