// The report that a process writes when it ends, if its environment asks for one.
//
// Called by the loader's constructor and exit handler.
#pragma once

#include "host/control_thread.h"

namespace host {

/// Reads MEMLEAK_TRACKER_ROOT, for the reports of this process and of its forked children. Later
/// changes of the environment go unseen, as they do by the tracker.
void CaptureReportRoot();

/// Waits while a report that an earlier command asked for is being written, 10 seconds at most: the
/// end of the process would cut it off.
void WaitForEarlierReports();

/// Removes the old report of this process, has the control thread carry out `command` and waits
/// until the new report is complete: its file ends in "END". One line on stderr says why there is
/// none: `command` has no report bit, or the file cannot be written (both found out beforehand),
/// the file stands still and the dump thread is gone for some seconds, or 60 seconds have passed.
void ReportAtExit(const Command& command);

}  // namespace host
