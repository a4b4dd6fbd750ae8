// SPDX-License-Identifier: Apache-2.0
// The tracker's reports, as the state shows them.
//
// The control thread starts reports; a thread of the tracker writes each and ends. No function here
// allocates, because a report during recording would list the block. None is a cancellation point,
// because fork is not one. Any thread. Keeps errno.
#pragma once

namespace host {

/// Whether a report is being written. Safe in signal handlers.
bool ReportRuns();

/// Waits until no report runs and its thread has gone: at most `timeout_ms`, and only while the
/// thread makes progress: it runs, waits for a disk, or has used processor time within the last
/// kNoProgressMs. So the wait is short if the caller holds a lock that the report needs. Returns
/// true if no report runs.
bool WaitWhileReportRuns(int timeout_ms);

/// A report that does nothing for this long makes no progress. On a busy machine a runnable thread
/// waits for less time.
inline constexpr int kNoProgressMs = 300;

/// Waits until the kernel has removed the thread `id` of this process, at most 100 ms: until then
/// the process counts as having several threads, although a join has succeeded.
void WaitForRemoval(int id);

}  // namespace host
