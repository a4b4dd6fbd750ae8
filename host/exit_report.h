// SPDX-License-Identifier: Apache-2.0
// The report that a process writes when it exits, if its environment asks for one.
//
// Called by the loader's exit handler.
#pragma once

#include "host/control_thread.h"

namespace host {

/// Waits at most 10 seconds for reports of earlier commands, because the end of the process would
/// truncate them.
void WaitForEarlierReports();

/// Removes the old report of this process, lets the control thread carry out `command` and waits
/// until the new report is complete. If there is none, one line on stderr gives the reason:
/// `command` has no report bit, the file cannot be written (both are checked first), the dump
/// thread has ended without a complete report, or 60 seconds have passed.
void ReportAtExit(const Command& command);

}  // namespace host
